/// Random profiles whose rules overlap each other in every field, and packets at and beside the
/// edges of rules.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "iptables_lines.h"

using Random = std::mt19937;

/// A number from 0 to `count` - 1.
inline int pick(Random& random, int count) {
    return static_cast<int>(random() % static_cast<unsigned>(count));
}

/// How many profiles a test takes, in the short or in the long run.
int countOf(int shortRun, int longRun);

/// Prints how much a property has compared, and of what: "packets".
void tellCompared(int profiles, std::int64_t count, const std::string& what);

template <typename List>
const typename List::value_type& oneOf(Random& random, const List& list) {
    return list[random() % list.size()];
}

/// The countries of the tests, for the library's files and for both evaluators.
class TestCountries {
public:
    /// With up to `ranges` ranges for each country and family.
    explicit TestCountries(unsigned seed, int ranges = 10);

    const CountryRanges& ranges() const { return ranges_; }

    /// The files of the country database by name, "AA.iv4".
    std::map<std::string, std::string> files() const;

    /// For FWENVIRONMENT::countries.
    std::shared_ptr<const FW::FWADDRESSES> find(const std::string& country,
                                                FW::FW_FAMILY family) const;

private:
    CountryRanges ranges_;
    std::map<std::pair<std::string, int>, std::shared_ptr<const FW::FWADDRESSES>> lists_;
};

/// A profile of up to `rules` rules an adapter, for most of `adapters`. Some of the rules are
/// wrong.
FW::FWPROFILE makeProfile(Random& random, int rules, const std::vector<std::string>& adapters);

/// A packet at or beside the edges of a random line.
LinePacket makePacket(Random& random, const FamilyLines& lines,
                      const std::vector<std::string>& interfaces);

/// The same packet for the engine.
FW::FWPACKET packetOf(const LinePacket& packet);

FW::FWADDRESS addressOf(const Bytes& bytes);

// Describe what failed.
std::string textOf(const LinePacket& packet);
std::string textOf(const FamilyLines& lines);
