/// Pieces of the packets that a question is about, and what a question may cost.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "regions.h"

namespace FW {

/// What a question has cost so far.
struct Effort {
    std::size_t limit = FW_MEANING_STEPS;
    std::size_t steps = 0;
    std::size_t bytes = 0;  ///< held, about

    bool isSpent() const { return steps > limit || bytes > FW_MEANING_BYTES; }

    /// Counts the values that a cut has made: a few are as much work as a comparison.
    void addIntervals(std::size_t count) { steps += count / 16; }
};

/// What a piece takes.
std::size_t bytesOf(const Piece& piece);

/// A piece with the rules that overlap it, of one list and of another.
struct ListedPiece {
    Piece piece;
    RuleNumbers rules;
    RuleNumbers others;
};

/// Pieces that wait to be examined, the last one first: so the largest of those that a cut makes
/// comes last, and few wait, however many rules cut it in turn.
class WaitingPieces {
public:
    WaitingPieces(const PacketSpace& space, const std::vector<SpaceRule>& rules,
                  const std::vector<SpaceRule>& others, Effort& effort)
        : space_(space), rules_(rules), others_(others), effort_(effort) {}
    ~WaitingPieces() { clear(); }
    WaitingPieces(const WaitingPieces&) = delete;
    WaitingPieces& operator=(const WaitingPieces&) = delete;

    /// Adds a region. All of the rules overlap it.
    void add(Region region, RuleNumbers rules, RuleNumbers others = {});

    /// Adds what a rule does not have of a piece.
    void addOutside(ListedPiece piece, const SpaceRule& rule);

    /// Takes the next one; false when there is none, or the effort is spent.
    bool take(ListedPiece& next);

private:
    struct Lists {
        RuleNumbers rules;
        RuleNumbers others;
    };
    struct Waiting {
        Piece piece;
        std::shared_ptr<const Lists> lists;  // those of the pieces that one cut made
        std::size_t bytes;
    };

    void push(Piece piece, const std::shared_ptr<const Lists>& lists, std::size_t listBytes);
    void clear();

    const PacketSpace& space_;
    const std::vector<SpaceRule>& rules_;
    const std::vector<SpaceRule>& others_;
    Effort& effort_;
    std::vector<Waiting> waiting_;
};

}  // namespace FW
