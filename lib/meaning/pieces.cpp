#include "pieces.h"

#include <cstdint>
#include <utility>

namespace FW {

std::size_t bytesOf(const Piece& piece) {
    // A set of its own has a counter besides, and most have one interval.
    constexpr std::size_t kSetBytes = sizeof(ValueSet) + 32;
    std::size_t bytes = sizeof(Piece);
    for (std::size_t field = 0; field < kFields; ++field) {
        if (piece.own[field]) {
            bytes += kSetBytes + (piece.region[field]->size() - 1) * sizeof(Interval);
        }
    }
    return bytes;
}

void WaitingPieces::add(Region region, RuleNumbers rules, RuleNumbers others) {
    push({std::move(region), {}},
         std::make_shared<const Lists>(Lists{std::move(rules), std::move(others)}), 0);
}

void WaitingPieces::addOutside(ListedPiece piece, const SpaceRule& rule) {
    std::vector<Piece> rest;
    effort_.addIntervals(appendWithout(space_, std::move(piece.piece), rule, rest));
    const auto lists =
        std::make_shared<const Lists>(Lists{std::move(piece.rules), std::move(piece.others)});
    // The first one waits longest, and keeps the lists.
    std::size_t listBytes =
        (lists->rules.size() + lists->others.size()) * sizeof(RuleNumbers::value_type);
    for (Piece& one : rest) {
        push(std::move(one), lists, listBytes);
        listBytes = 0;
    }
}

bool WaitingPieces::take(ListedPiece& next) {
    if (waiting_.empty() || effort_.isSpent()) {
        return false;
    }
    Waiting last = std::move(waiting_.back());
    waiting_.pop_back();
    effort_.bytes -= last.bytes;
    const auto overlapping = [&](const RuleNumbers& numbers, const std::vector<SpaceRule>& rules) {
        OverlapTest overlapsPiece(space_, last.piece.region, effort_.steps);
        RuleNumbers found;
        for (const std::uint32_t number : numbers) {
            if (overlapsPiece(rules[number])) {
                found.push_back(number);
            }
        }
        return found;
    };
    ++effort_.steps;
    next.rules = overlapping(last.lists->rules, rules_);
    next.others = overlapping(last.lists->others, others_);
    next.piece = std::move(last.piece);
    return true;
}

void WaitingPieces::push(Piece piece, const std::shared_ptr<const Lists>& lists,
                         std::size_t listBytes) {
    const std::size_t bytes = sizeof(Waiting) + bytesOf(piece) + listBytes;
    effort_.bytes += bytes;
    waiting_.push_back({std::move(piece), lists, bytes});
}

void WaitingPieces::clear() {
    for (const Waiting& one : waiting_) {
        effort_.bytes -= one.bytes;
    }
    waiting_.clear();
}

}  // namespace FW
