#include "tarnfwadmin/ruleDiff.h"

#include <algorithm>
#include <cstdint>
#include <map>

namespace tarnfw {
namespace {

// Largest table of the longest common part; for longer lists the differing middle is shown whole.
constexpr std::size_t kMostCells = 16U << 20U;

using Lines = std::vector<std::string>;

class Comparison {
public:
    Comparison(const Lines& wanted, const Lines& held) : wanted_(wanted), held_(held) {}

    std::vector<RuleEdit> run() {
        std::size_t first = 0;
        std::size_t wantedEnd = wanted_.size();
        std::size_t heldEnd = held_.size();
        while (first < wantedEnd && first < heldEnd && wanted_[first] == held_[first]) {
            addCommon(first++);
        }
        while (wantedEnd > first && heldEnd > first &&
               wanted_[wantedEnd - 1] == held_[heldEnd - 1]) {
            --wantedEnd;
            --heldEnd;
        }
        compareMiddle(first, wantedEnd, heldEnd);
        for (; heldEnd < held_.size(); ++heldEnd) {
            addCommon(heldEnd);
        }
        return std::move(edits_);
    }

private:
    void addCommon(std::size_t j) { edits_.push_back({' ', held_[j], j + 1}); }
    void addMissing(std::size_t i) { edits_.push_back({'-', wanted_[i], i + 1}); }
    void addExtra(std::size_t j) { edits_.push_back({'+', held_[j], j + 1}); }

    void compareMiddle(std::size_t first, std::size_t wantedEnd, std::size_t heldEnd) {
        const std::size_t rows = wantedEnd - first + 1;
        const std::size_t columns = heldEnd - first + 1;
        std::size_t i = first;
        std::size_t j = first;
        if (rows <= kMostCells / columns) {
            // common[r][c]: how many lines the rests after row r and column c have in common.
            std::vector<std::uint32_t> common(rows * columns);
            const auto cell = [&](std::size_t r, std::size_t c) -> std::uint32_t& {
                return common[(r - first) * columns + (c - first)];
            };
            for (std::size_t r = wantedEnd; r-- > first;) {
                for (std::size_t c = heldEnd; c-- > first;) {
                    cell(r, c) = wanted_[r] == held_[c] ? cell(r + 1, c + 1) + 1
                                                        : std::max(cell(r + 1, c), cell(r, c + 1));
                }
            }
            while (i < wantedEnd && j < heldEnd) {
                if (wanted_[i] == held_[j]) {
                    addCommon(j++);
                    ++i;
                } else if (cell(i + 1, j) >= cell(i, j + 1)) {
                    addMissing(i++);
                } else {
                    addExtra(j++);
                }
            }
        }
        while (i < wantedEnd) {
            addMissing(i++);
        }
        while (j < heldEnd) {
            addExtra(j++);
        }
    }

    const Lines& wanted_;
    const Lines& held_;
    std::vector<RuleEdit> edits_;
};

}  // namespace

std::vector<RuleEdit> editsBetween(const std::vector<std::string>& wanted,
                                   const std::vector<std::string>& held) {
    return Comparison(wanted, held).run();
}

std::vector<RuleEdit> missingFrom(const std::vector<std::string>& wanted,
                                  const std::vector<std::string>& held) {
    std::map<std::string, std::size_t> left;
    for (const std::string& line : held) {
        ++left[line];
    }
    std::vector<RuleEdit> missing;
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        std::size_t& count = left[wanted[i]];
        if (count == 0) {
            missing.push_back({'-', wanted[i], i + 1});
        } else {
            --count;
        }
    }
    return missing;
}

bool hasDifferences(const std::vector<RuleEdit>& edits) {
    return std::any_of(edits.begin(), edits.end(),
                       [](const RuleEdit& edit) { return edit.mark != ' '; });
}

}  // namespace tarnfw
