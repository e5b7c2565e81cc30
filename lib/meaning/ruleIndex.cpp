#include "ruleIndex.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <utility>

#include "regions.h"

namespace FW {
namespace {

// Sixteen bytes a rule for each field. Of 10,000 rules, a class has some 150 edges at most.
constexpr std::size_t kClasses = 128;

constexpr std::size_t kSampledIntervals = 8;  // of a rule's values, to propose cuts

constexpr std::size_t kWordBits = 64;
constexpr std::size_t kChunk = 8;  // words of each bitmap that are combined at once

/// The number of the class of a value.
std::size_t classOf(const std::vector<Number>& cuts, Number value) {
    return static_cast<std::size_t>(std::upper_bound(cuts.begin(), cuts.end(), value) -
                                    cuts.begin());
}

/// Whether values contain numbers. Many rules share long lists of addresses: each is searched once
/// for a number.
class KnownValues {
public:
    explicit KnownValues(const PacketSpace& space) : space_(space) {}

    bool contain(std::uint32_t id, Field field, Number number) {
        const ValueSet& values = *space_.values(id);
        if (values.size() <= kLongList) {
            return contains(values, number);
        }
        const std::uint32_t key = id * 2 + (field == kSource ? 0 : 1);
        Known& known = known_[key % known_.size()];
        if (known.key != key) {
            known = {key, contains(values, number)};
        }
        return known.isIn;
    }

private:
    struct Known {
        std::uint32_t key = 0;
        bool isIn = false;
    };
    const PacketSpace& space_;
    std::array<Known, 64> known_{};
};

}  // namespace

RuleIndex::RuleIndex(const PacketSpace& space, const std::vector<SpaceRule>& rules)
    : space_(space), rules_(rules) {
    const std::size_t chunkBits = kWordBits * kChunk;
    words_ = (rules.size() + chunkBits - 1) / chunkBits * kChunk;
    for (std::size_t field = 0; field < kFields; ++field) {
        if (std::any_of(rules.begin(), rules.end(),
                        [field](const SpaceRule& rule) { return rule.values[field] != 0; })) {
            axes_.push_back(axisOf(static_cast<Field>(field)));
        }
    }
}

RuleIndex::Axis RuleIndex::axisOf(Field field) const {
    Axis axis;
    axis.field = field;
    setCuts(axis);
    setBitmaps(axis);
    return axis;
}

void RuleIndex::setCuts(Axis& axis) const {
    std::vector<Number> edges;
    const Number last = space_.all(axis.field).back().last;
    for (const SpaceRule& rule : rules_) {
        const std::uint32_t id = rule.values[axis.field];
        if (id == 0) {
            continue;
        }
        const ValueSet& values = *space_.values(id);
        if (values.size() > kLongList) {
            axis.isExact = false;
            continue;
        }
        const std::size_t step = values.size() / kSampledIntervals + 1;
        axis.isExact = axis.isExact && step == 1;
        for (std::size_t i = 0; i < values.size(); i += step) {
            const Interval one = values[i];
            if (one.first > 0) {
                edges.push_back(one.first);
            }
            if (one.last < last) {
                edges.push_back(one.last + 1);
            }
        }
    }
    std::sort(edges.begin(), edges.end());
    std::vector<Number> distinct = edges;
    distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
    if (distinct.size() < kClasses) {
        axis.cuts = std::move(distinct);
    } else {
        axis.isExact = false;
        for (std::size_t i = 1; i < kClasses; ++i) {
            const Number cut = edges[i * edges.size() / kClasses];
            if (axis.cuts.empty() || axis.cuts.back() < cut) {
                axis.cuts.push_back(cut);
            }
        }
    }
    axis.cuts.shrink_to_fit();
}

void RuleIndex::setBitmaps(Axis& axis) const {
    using Classes = std::array<bool, kClasses>;
    const std::size_t count = axis.cuts.size() + 1;
    const auto classesOf = [&](const ValueSet& values) {
        Classes classes{};
        if (values.size() > kLongList) {
            for (std::size_t i = 0; i < count; ++i) {
                const Number first = i == 0 ? 0 : axis.cuts[i - 1];
                const Number last = i + 1 == count ? kMaxNumber : axis.cuts[i] - 1;
                classes[i] = FW::overlaps(values, Interval{first, last});
            }
            return classes;
        }
        for (const Interval& one : values) {
            std::fill(classes.begin() + classOf(axis.cuts, one.first),
                      classes.begin() + classOf(axis.cuts, one.last) + 1, true);
        }
        return classes;
    };
    std::unordered_map<std::uint32_t, Classes> known;  // of long lists
    axis.bitmaps.resize(count * words_);
    for (std::size_t word = 0; word * kWordBits < rules_.size(); ++word) {
        std::array<std::uint64_t, kClasses> bits{};
        const std::size_t end = std::min(rules_.size(), (word + 1) * kWordBits);
        for (std::size_t rule = word * kWordBits; rule < end; ++rule) {
            const std::uint64_t bit = std::uint64_t(1) << rule % kWordBits;
            const std::uint32_t id = rules_[rule].values[axis.field];
            Classes classes;
            classes.fill(true);
            if (id != 0) {
                const ValueSet& values = *space_.values(id);
                const auto found = known.find(id);
                classes = found != known.end() ? found->second : classesOf(values);
                if (values.size() > kLongList && found == known.end()) {
                    known.emplace(id, classes);
                }
            }
            for (std::size_t i = 0; i < kClasses; ++i) {
                bits[i] |= classes[i] ? bit : 0;
            }
        }
        for (std::size_t i = 0; i < count; ++i) {
            axis.bitmaps[i * words_ + word] = bits[i];
        }
    }
}

std::size_t RuleIndex::nextMatch(const Point& point, std::size_t from, std::size_t& steps) const {
    std::array<const std::uint64_t*, kFields> bitmaps;
    for (std::size_t i = 0; i < axes_.size(); ++i) {
        bitmaps[i] = &axes_[i].bitmaps[classOf(axes_[i].cuts, point[axes_[i].field]) * words_];
    }
    KnownValues known(space_);
    const auto matches = [&](std::size_t rule) {
        ++steps;
        return std::all_of(axes_.begin(), axes_.end(), [&](const Axis& axis) {
            const std::uint32_t id = rules_[rule].values[axis.field];
            return axis.isExact || id == 0 || known.contain(id, axis.field, point[axis.field]);
        });
    };
    for (std::size_t chunk = from / kWordBits / kChunk * kChunk; chunk < words_; chunk += kChunk) {
        ++steps;
        std::array<std::uint64_t, kChunk> common;
        common.fill(~std::uint64_t(0));
        for (std::size_t i = 0; i < axes_.size(); ++i) {
            for (std::size_t word = 0; word < kChunk; ++word) {
                common[word] &= bitmaps[i][chunk + word];
            }
        }
        for (std::size_t word = 0; word < kChunk; ++word) {
            for (std::uint64_t bits = common[word]; bits != 0; bits &= bits - 1) {
                const std::size_t rule =
                    (chunk + word) * kWordBits + static_cast<std::size_t>(__builtin_ctzll(bits));
                if (rule >= from && rule < rules_.size() && matches(rule)) {
                    return rule;
                }
            }
        }
    }
    return rules_.size();
}

}  // namespace FW
