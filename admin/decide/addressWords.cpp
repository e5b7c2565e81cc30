#include "decide/addressWords.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

#include "decide/listWords.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using FW::FW_FAMILY;
using FW::Interval;
using FW::Intervals;
using FW::Number;

const Intervals& everyNumber() {
    static const Intervals every = {{0, FW::kMaxNumber}};
    return every;
}

Address addressOf(Number number, FW_FAMILY family) {
    Address::Bytes bytes = {};
    const std::size_t size = family == FW::FW_FAMILY_V6 ? 16 : 4;
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>(number >> (120U - 8U * i));
    }
    return Address(family == FW::FW_FAMILY_V6, bytes);
}

std::string spelledInterval(const Interval& interval, FW_FAMILY family) {
    return spelled(
        AddressRange{addressOf(interval.first, family), addressOf(interval.last, family)});
}

/// Whether an interval is one network or one address, which is one word for people.
bool isNetwork(const Interval& interval) {
    const Number size = interval.last - interval.first;  // less one
    return (size & (size + 1)) == 0 && (interval.first & size) == 0;
}

/// The smallest network around an interval.
Interval networkAround(const Interval& interval) {
    Number mask = interval.first ^ interval.last;
    for (unsigned shift = 1; shift < 128; shift *= 2) {
        mask |= mask >> shift;
    }
    return {interval.first & ~mask, interval.last | mask};
}

bool encloses(const Interval& outer, const Interval& inner) {
    return outer.first <= inner.first && inner.last <= outer.last;
}

/// What people pay for reading a text.
using Cost = std::size_t;
constexpr Cost kNetworkCost = 2;
constexpr Cost kRangeCost = 5;
constexpr Cost kNameCost = 1;
constexpr Cost kExceptCost = 1;
constexpr Cost kEverybodyCost = 1;

/// Addresses in words: "10.0.0.0/8 except 10.3.0.0/16".
struct Phrase {
    std::string text;  ///< empty: everybody
    Texts except;
    bool isCountry = false;
};

struct Description {
    std::vector<Phrase> phrases;
    Cost cost = 0;

    void add(Phrase phrase, Cost more) {
        phrases.push_back(std::move(phrase));
        cost += more;
    }

    bool isEverybody() const { return phrases.size() == 1 && phrases.front().text.empty(); }
};

/// Finds a short text for addresses of one family.
class AddressDescriber {
public:
    AddressDescriber(const AddressNames& names, FW_FAMILY family)
        : names_(names), family_(family) {}

    Description describe(const Intervals& addresses) const {
        Description direct = listed(addresses, /*excepting=*/true);
        const Intervals others = FW::without(everyNumber(), addresses);
        if (addresses.empty() || direct.cost <= kEverybodyCost) {
            return direct;
        }
        const Description except = listed(others, /*excepting=*/false);
        const Cost cost = kEverybodyCost + (others.empty() ? 0 : kExceptCost + except.cost);
        if (cost >= direct.cost) {
            return direct;
        }
        Description everybody;
        everybody.add({"", textsOf(except), false}, cost);
        return everybody;
    }

private:
    // Longer lists are named entry by entry.
    static constexpr std::size_t kLongestRun = 24;
    static constexpr std::size_t kMostIntervals = 512;

    static Texts textsOf(const Description& description) {
        Texts texts;
        for (const Phrase& phrase : description.phrases) {
            texts.push_back((phrase.isCountry ? "country " : "") + phrase.text);
        }
        return texts;
    }

    /// Names what is a list or a country, and then the rest.
    Description listed(const Intervals& addresses, bool excepting) const {
        Description description;
        Intervals rest = addresses;
        for (const NamedAddresses& list : names_.lists) {
            if (rest.size() > 1 && FW::includes(rest, list.addresses)) {
                description.add({list.name, {}, false}, kNameCost);
                rest = FW::without(rest, list.addresses);
            } else {
                addCut(list, false, excepting, rest, description);
            }
        }
        addAround(excepting, rest, description);
        std::string codes;
        for (const NamedAddresses& country : names_.countries) {
            if (rest.empty() || !FW::includes(rest, country.addresses)) {
                addCut(country, true, excepting, rest, description);
                continue;
            }
            codes += (codes.empty() ? "" : ",") + country.name;
            rest = FW::without(rest, country.addresses);
        }
        if (!codes.empty()) {
            description.add({codes, {}, true}, kNameCost);
        }
        appendIntervals(rest, excepting, description);
        return description;
    }

    /// Names a list or a country of which few addresses are missing.
    void addCut(const NamedAddresses& named, bool isCountry, bool excepting, Intervals& rest,
                Description& description) const {
        if (!excepting || rest.size() <= 1 || !FW::overlaps(rest, named.addresses)) {
            return;
        }
        const Intervals missing = FW::without(named.addresses, rest);
        const Intervals left = FW::without(rest, named.addresses);
        if (missing.size() + left.size() >= rest.size()) {
            return;
        }
        Description except = listed(missing, false);
        description.add({named.name, textsOf(except), isCountry},
                        kNameCost + kExceptCost + except.cost);
        rest = left;
    }

    /// Of more intervals than a run may have: names a network around all of them of which a list or
    /// a country is missing.
    void addAround(bool excepting, Intervals& rest, Description& description) const {
        if (!excepting || rest.size() <= kLongestRun) {
            return;
        }
        Intervals bases = names_.networks;
        bases.push_back(networkAround({rest.front().first, rest.back().last}));
        std::optional<std::pair<Interval, Description>> best;
        for (const Interval& base : bases) {
            if (!encloses(base, {rest.front().first, rest.back().last}) || isEveryAddress({base})) {
                continue;
            }
            Description except = listed(FW::without({base}, rest), false);
            if (except.cost < kLongestRun && (!best || except.cost < best->second.cost)) {
                best = {base, std::move(except)};
            }
        }
        if (best) {
            const auto& [base, except] = *best;
            description.add({spelledInterval(base, family_), textsOf(except), false},
                            costOf(base) + kExceptCost + except.cost);
            rest.clear();
        }
    }

    Cost costOf(const Interval& interval) const {
        return isKnown(interval) || isNetwork(interval) ? kNetworkCost : kRangeCost;
    }

    Cost costOf(const Intervals& intervals) const {
        Cost cost = 0;
        for (const Interval& interval : intervals) {
            cost += costOf(interval);
        }
        return cost;
    }

    bool isKnown(const Interval& interval) const {
        return std::binary_search(names_.networks.begin(), names_.networks.end(), interval,
                                  [](const Interval& a, const Interval& b) {
                                      return a.first != b.first ? a.first < b.first
                                                                : a.last < b.last;
                                  });
    }

    /// One entry of the text: a base without some intervals.
    struct Entry {
        std::size_t end = 0;  ///< one past the last of the intervals that it is for
        Interval base{};
        Intervals except;
        Cost cost = 0;
    };

    Entry single(const Intervals& intervals, std::size_t index) const {
        return {index + 1, intervals[index], {}, costOf(intervals[index])};
    }

    /// The intervals from `first` on as a base without something; nothing when the base would need
    /// too much of it.
    std::optional<Entry> cut(const Intervals& intervals, std::size_t first,
                             const Interval& base) const {
        // Of everything describe() says what is left out.
        if (!encloses(base, intervals[first]) || isEveryAddress({base}) ||
            (first > 0 && base.first <= intervals[first - 1].last)) {
            return std::nullopt;
        }
        std::size_t end = first;
        while (end < intervals.size() && intervals[end].first <= base.last) {
            if (++end - first > kLongestRun) {
                return std::nullopt;
            }
        }
        if (intervals[end - 1].last > base.last) {
            return std::nullopt;
        }
        const Intervals inside(intervals.begin() + static_cast<std::ptrdiff_t>(first),
                               intervals.begin() + static_cast<std::ptrdiff_t>(end));
        Intervals except = FW::without({base}, inside);
        if (except.empty()) {
            return std::nullopt;
        }
        const Cost own = isKnown(base) ? kNameCost : costOf(base);
        const Cost cost = own + kExceptCost + costOf(except);
        return Entry{end, base, std::move(except), cost};
    }

    /// Appends the cheapest entries for the intervals.
    void appendIntervals(const Intervals& intervals, bool excepting,
                         Description& description) const {
        std::vector<Entry> best(intervals.size());
        std::vector<Cost> costs(intervals.size() + 1, 0);  // of the intervals from this one on
        const bool cutting = excepting && intervals.size() <= kMostIntervals;
        for (std::size_t i = intervals.size(); i-- > 0;) {
            best[i] = single(intervals, i);
            const auto consider = [&](const Interval& base) {
                const auto entry = cut(intervals, i, base);
                if (entry && entry->cost + costs[entry->end] < best[i].cost + costs[best[i].end]) {
                    best[i] = *entry;
                }
            };
            if (cutting) {
                for (const Interval& network : names_.networks) {
                    if (encloses(network, intervals[i])) {
                        consider(network);
                    }
                }
                const std::size_t end = std::min(intervals.size(), i + kLongestRun);
                for (std::size_t last = i; last < end; ++last) {
                    consider(networkAround({intervals[i].first, intervals[last].last}));
                }
            }
            costs[i] = best[i].cost + costs[best[i].end];
        }
        for (std::size_t i = 0; i < intervals.size(); i = best[i].end) {
            Phrase phrase{spelledInterval(best[i].base, family_), {}, false};
            for (const Interval& except : best[i].except) {
                phrase.except.push_back(spelledInterval(except, family_));
            }
            description.add(std::move(phrase), best[i].cost);
        }
    }

    const AddressNames& names_;
    FW_FAMILY family_;
};

/// One entry of a text.
struct Term {
    std::string text;
    std::string except;   ///< "except 10.3.0.0/16"
    std::string family;   ///< where the text does not show it
    bool isRest = false;  ///< "7 more"

    std::string plain() const {
        return text + (except.empty() ? "" : " " + except) +
               (family.empty() ? "" : " (" + family + ")");
    }

    std::string bracketed() const {
        const std::string between = except.empty() || family.empty() ? "" : ", ";
        const std::string inside = family + between + except;
        return text + (inside.empty() ? "" : " (" + inside + ")");
    }
};

using Terms = std::vector<Term>;

bool isWithoutException(const Term& term) {
    return term.except.empty();
}

/// Of a long list the first ones, and the number of the others.
Terms termsOf(const Description& description, const std::string& everybody, FW_FAMILY family,
              std::size_t most) {
    Terms terms;
    for (const Phrase& phrase : description.phrases) {
        Term term;
        term.text =
            phrase.text.empty() ? everybody : (phrase.isCountry ? "country " : "") + phrase.text;
        if (!phrase.except.empty()) {
            term.except = "except " + enumerated(shortened(phrase.except, most));
        }
        if (phrase.text.empty() || phrase.isCountry) {
            term.family = family == FW::FW_FAMILY_V6 ? "IPv6" : "IPv4";
        }
        terms.push_back(std::move(term));
    }
    std::stable_partition(terms.begin(), terms.end(), isWithoutException);
    if (terms.size() > most + 1) {
        const std::size_t others = terms.size() - most;
        terms.resize(most);
        terms.push_back({std::to_string(others) + " more", "", "", true});
    }
    return terms;
}

/// What has no exception comes first. A single exception ends the text; several are in brackets,
/// since it would not be clear what the entries after one belong to.
std::string textOf(Terms terms, bool bracketed) {
    const auto excepting = static_cast<std::size_t>(std::distance(
        std::stable_partition(terms.begin(), terms.end(), isWithoutException), terms.end()));
    const bool inBrackets = bracketed || excepting > 1;
    const bool isPair =
        terms.size() == 2 && std::any_of(terms.begin(), terms.end(),
                                         [](const Term& term) { return !term.family.empty(); });
    std::string text;
    for (std::size_t i = 0; i < terms.size(); ++i) {
        const bool isException = !inBrackets && !terms[i].except.empty();
        text += i == 0 ? "" : isException ? ", and " : terms[i].isRest || isPair ? " and " : ", ";
        text += inBrackets ? terms[i].bracketed() : terms[i].plain();
    }
    return text;
}

Terms withoutFamilies(Terms terms) {
    for (Term& term : terms) {
        term.family.clear();
    }
    return terms;
}

}  // namespace

Intervals numbersOf(const FW::FWADDRESSES& addresses) {
    Intervals numbers;
    numbers.reserve(addresses.size());
    for (const FW::FWADDRESSINTERVAL& one : addresses) {
        numbers.push_back(intervalOf(one));
    }
    return numbers;
}

Intervals numbersOf(const std::shared_ptr<const FW::FWADDRESSES>& addresses) {
    return addresses == nullptr ? everyNumber() : numbersOf(*addresses);
}

FW::FWADDRESSES addressesOf(const FW::Intervals& numbers) {
    const auto half = [](FW::Number number) {
        return FW::FWADDRESS{static_cast<std::uint64_t>(number >> 64U),
                             static_cast<std::uint64_t>(number)};
    };
    FW::FWADDRESSES addresses;
    for (const FW::Interval& interval : numbers) {
        addresses.push_back({half(interval.first), half(interval.last)});
    }
    return addresses;
}

bool isEveryAddress(const Intervals& addresses) {
    return addresses == everyNumber();
}

std::string addressesText(const std::array<Intervals, 2>& addresses,
                          const std::array<AddressNames, 2>& names, const std::string& everybody,
                          const std::string& nobody, std::size_t most, bool bracketed) {
    std::array<Description, 2> descriptions;
    for (const FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
        descriptions[family] = AddressDescriber(names[family], family).describe(addresses[family]);
    }
    const auto& [v4, v6] = descriptions;
    if (addresses[0].empty() && addresses[1].empty()) {
        return nobody;
    }
    if (v4.isEverybody() && v6.isEverybody()) {
        Description both = v4;
        Texts& except = both.phrases.front().except;
        for (const std::string& text : v6.phrases.front().except) {
            if (std::find(except.begin(), except.end(), text) == except.end()) {
                except.push_back(text);
            }
        }
        return textOf(withoutFamilies(termsOf(both, everybody, FW::FW_FAMILY_V4, most)), bracketed);
    }
    Terms terms = termsOf(v4, everybody, FW::FW_FAMILY_V4, most);
    const Terms others = termsOf(v6, everybody, FW::FW_FAMILY_V6, most);
    const std::string same = textOf(withoutFamilies(terms), bracketed);
    if (same == textOf(withoutFamilies(others), bracketed)) {
        return same;
    }
    terms.insert(terms.end(), others.begin(), others.end());
    return textOf(std::move(terms), bracketed);
}

}  // namespace tarnfw
