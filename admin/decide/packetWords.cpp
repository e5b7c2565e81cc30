#include "tarnfwadmin/packetWords.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include <netinet/in.h>

#include "tarnfirewall/fwTypes.h"

#include "decide/addressWords.h"
#include "decide/kindWords.h"
#include "decide/listWords.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using FW::FW_FAMILY;
using FW::Interval;
using FW::Intervals;

constexpr char kAnywhere[] = "anywhere";
constexpr char kNowhere[] = "nowhere";
constexpr char kEverybody[] = "everybody";
constexpr char kNobody[] = "nobody";
constexpr char kLoopback[] = "lo";  // whose packets every profile accepts

/// How many ports a service has, or protocols without ports.
std::size_t entriesOf(const NamedService& service) {
    std::size_t count = 0;
    for (const PacketKind& kind : service.kinds) {
        const std::size_t ports = kind.sourcePorts.size() + kind.destinationPorts.size();
        for (const FW::FWINTERVAL& protocols : kind.protocols) {
            count += (protocols.last - protocols.first + std::size_t(1)) *
                     std::max(ports, std::size_t(1));
        }
    }
    return count;
}

bool isOfIpv4(const PacketPeers& peers) {
    return peers.family == FW::FW_FAMILY_V4;
}

bool isOfIpv4(const PacketGroup& group) {
    return std::all_of(group.peers.begin(), group.peers.end(),
                       [](const PacketPeers& peers) { return isOfIpv4(peers); });
}

/// Whether the packets of one group are as those of another in IPv4, apart from their kinds.
bool isIpv4PartOf(const PacketGroup& part, const PacketGroup& whole) {
    const auto same = [](const auto& one, const auto& other) {
        return one == other ||
               (one != nullptr && other != nullptr && numbersOf(one) == numbersOf(other));
    };
    std::vector<PacketPeers> peers = whole.peers;
    peers.erase(std::remove_if(peers.begin(), peers.end(),
                               [](const PacketPeers& one) { return !isOfIpv4(one); }),
                peers.end());
    return part.states == whole.states && isOfIpv4(part) && peers.size() < whole.peers.size() &&
           std::equal(part.peers.begin(), part.peers.end(), peers.begin(), peers.end(),
                      [&](const PacketPeers& a, const PacketPeers& b) {
                          return same(a.sources, b.sources) && same(a.destinations, b.destinations);
                      });
}

}  // namespace

// ---- Names --------------------------------------------------------------------------------------

struct PacketWords::Names {
    std::size_t most = kMost;
    std::array<AddressNames, 2> addresses;
    std::vector<NamedService> services;  ///< those with the most ports first
    std::map<std::string, FW::FWINTERFACES> adapters;
    std::set<std::string> filtered;  ///< adapters that the profiles have something for

    void add(const Meaning& meaning) {
        for (const auto& [adapter, rules] : meaning.profile().rules) {
            if (!rules.empty()) {
                addFiltered(adapter);
            }
        }
        for (const auto& [adapter, policy] : meaning.profile().adapterPolicyMap) {
            if (policy != FW::FW_POLICY_NONE) {
                addFiltered(adapter);
            }
        }
        for (const std::string name : {FW::FW_ADAPTER_PPPOE, FW::FW_ADAPTER_VPN}) {
            const auto found = meaning.environment().adapters.find(name);
            if (found != meaning.environment().adapters.end()) {
                adapters[name] = found->second;
            }
        }
        for (const auto& [name, ports] : meaning.environment().services) {
            addService(name, ports);
        }
        addCountries(meaning);
        std::set<const FW::FWADDRESSES*> seen;
        for (const FW::FWRESOLVEDRULE& rule : meaning.rules()) {
            for (const auto& list : {rule.packets.sources, rule.packets.destinations}) {
                if (rule.place.origin == FW::FW_ORIGIN_RULE && list != nullptr &&
                    seen.insert(list.get()).second) {
                    addAddresses(rule, *list, meaning.profile());
                }
            }
        }
    }

    void sort() {
        for (AddressNames& family : addresses) {
            std::stable_sort(family.countries.begin(), family.countries.end(),
                             [](const auto& a, const auto& b) {
                                 return a.addresses.size() > b.addresses.size();
                             });
            std::sort(family.networks.begin(), family.networks.end(),
                      [](const Interval& a, const Interval& b) {
                          return a.first != b.first ? a.first < b.first : a.last < b.last;
                      });
            family.networks.erase(std::unique(family.networks.begin(), family.networks.end()),
                                  family.networks.end());
        }
        std::stable_sort(services.begin(), services.end(),
                         [](const auto& a, const auto& b) { return entriesOf(a) > entriesOf(b); });
    }

private:
    void addFiltered(const std::string& adapter) {
        if (adapter != FW::FW_ADAPTER_GLOBAL && adapter != kLoopback) {
            filtered.insert(adapter);
        }
    }

    void addService(const std::string& name, const FW::ServPort& ports) {
        const bool isKnown = std::any_of(services.begin(), services.end(),
                                         [&](const auto& known) { return known.name == name; });
        const auto groups =
            isKnown ? std::vector<PacketGroup>() : packetGroups(FW::fwServicePackets(name, ports));
        if (groups.size() == 1) {
            services.push_back({name, groups.front().kinds, {}});
        } else if (groups.size() == 2 && isOfIpv4(groups[1]) && !isOfIpv4(groups[0])) {
            std::vector<PacketKind> kinds = groups[0].kinds;
            kinds.insert(kinds.end(), groups[1].kinds.begin(), groups[1].kinds.end());
            services.push_back({name, std::move(kinds), groups[1].kinds});
        }
    }

    void addCountries(const Meaning& meaning) {
        if (!meaning.environment().countries) {
            return;
        }
        for (const auto& [adapter, rules] : meaning.profile().rules) {
            for (const FW::FWRULE& rule : rules) {
                if (rule.ipGroup == FW::FW_IP_GROUP_COUNTRIES) {
                    for (const std::string& code : rule.ipList) {
                        addCountry(code, meaning.environment());
                    }
                }
            }
        }
    }

    void addCountry(const std::string& code, const FW::FWENVIRONMENT& environment) {
        for (const FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
            std::vector<NamedAddresses>& countries = addresses[family].countries;
            const bool isKnown =
                std::any_of(countries.begin(), countries.end(),
                            [&](const NamedAddresses& known) { return known.name == code; });
            const auto found = isKnown ? nullptr : environment.countries(code, family);
            if (found != nullptr && !found->empty()) {
                countries.push_back({code, numbersOf(*found)});
            }
        }
    }

    void addAddresses(const FW::FWRESOLVEDRULE& resolved, const FW::FWADDRESSES& list,
                      const FW::FWPROFILE& profile) {
        const FW_FAMILY family = resolved.packets.families == (1U << FW::FW_FAMILY_V6)
                                     ? FW::FW_FAMILY_V6
                                     : FW::FW_FAMILY_V4;
        if (list.size() == 1) {
            const Intervals network = numbersOf(list);
            if (!isEveryAddress(network)) {
                addresses[family].networks.push_back(network.front());
            }
            return;
        }
        const auto rules = profile.rules.find(resolved.place.adapter);
        const auto position = static_cast<std::size_t>(resolved.place.position);
        if (rules == profile.rules.end() || position == 0 || position > rules->second.size()) {
            return;
        }
        const FW::FWRULE& rule = rules->second[position - 1];
        if (rule.ipGroup != FW::FW_IP_GROUP_COUNTRIES) {
            const std::string text = addressText(rule);  // "from 10.0.0.1/255.0.255.0"
            addresses[family].lists.push_back({text.substr(text.find(' ') + 1), numbersOf(list)});
        }
    }

public:
    std::string addressesTextOf(const std::array<Intervals, 2>& both, const char* everybody,
                                const char* nobody, bool bracketed = false) const {
        return addressesText(both, addresses, everybody, nobody, most, bracketed);
    }
};

// ---- The words ----------------------------------------------------------------------------------

FW::FWADDRESSES allAddresses() {
    return {{{0, 0}, {~0ULL, ~0ULL}}};
}

PacketWords::PacketWords() : names_(std::make_unique<Names>()) {}

PacketWords::PacketWords(const std::vector<Meaning>& meanings, std::size_t most) : PacketWords() {
    names_->most = most;
    for (const Meaning& meaning : meanings) {
        names_->add(meaning);
    }
    names_->sort();
}

PacketWords::~PacketWords() = default;
PacketWords::PacketWords(PacketWords&& other) noexcept = default;
PacketWords& PacketWords::operator=(PacketWords&& other) noexcept = default;

std::vector<PacketGroup> PacketWords::groups(const std::vector<FW::FWPACKETSET>& sets) const {
    std::vector<PacketGroup> groups = packetGroups(sets);
    for (const NamedService& service : names_->services) {
        const std::vector<PacketKind>& own = service.ipv4Only;
        const auto part = std::find_if(groups.begin(), groups.end(), [&](const PacketGroup& group) {
            return !own.empty() && isSameKinds(group.kinds, own);
        });
        if (part == groups.end()) {
            continue;
        }
        const auto whole =
            std::find_if(groups.begin(), groups.end(), [&](const PacketGroup& group) {
                std::vector<PacketKind> both = group.kinds;
                both.insert(both.end(), own.begin(), own.end());
                return isIpv4PartOf(*part, group) && waysText(part->ways) == waysText(group.ways) &&
                       includesKinds(both, service.kinds);
            });
        if (whole != groups.end()) {
            whole->kinds.insert(whole->kinds.end(), own.begin(), own.end());
            groups.erase(part);
        }
    }
    return groups;
}

std::string PacketWords::kindsText(const std::vector<PacketKind>& kinds) const {
    return tarnfw::kindsText(kinds, names_->services, names_->most);
}

std::string PacketWords::adaptersText(const FW::FWINTERFACES& interfaces) const {
    FW::FWINTERFACES left = interfaces;
    Texts texts;
    const auto everything = std::find(left.names.begin(), left.names.end(), "+");
    if (everything != left.names.end()) {
        texts.emplace_back("every adapter");
        left.names.erase(everything);
    }
    for (const auto& [name, adapter] : names_->adapters) {
        const auto has = [](const Texts& list, const std::string& entry) {
            return std::find(list.begin(), list.end(), entry) != list.end();
        };
        const auto hasAll = [&](const Texts& list, const Texts& entries) {
            return std::all_of(entries.begin(), entries.end(),
                               [&](const std::string& entry) { return has(list, entry); });
        };
        for (Texts* const list : {&left.names, &left.except}) {
            // Among the others the adapter's own exceptions are names.
            Texts& opposite = list == &left.names ? left.except : left.names;
            if (adapter.names.empty() || !hasAll(*list, adapter.names) ||
                !hasAll(opposite, adapter.except)) {
                continue;
            }
            const auto take = [&](Texts& from, const Texts& entries) {
                from.erase(
                    std::remove_if(from.begin(), from.end(),
                                   [&](const std::string& entry) { return has(entries, entry); }),
                    from.end());
            };
            take(*list, adapter.names);
            take(opposite, adapter.except);
            list->push_back(name);
        }
    }
    if (!texts.empty()) {
        left.except.erase(std::remove(left.except.begin(), left.except.end(), kLoopback),
                          left.except.end());
        const std::set<std::string> except(left.except.begin(), left.except.end());
        if (!except.empty() && except == names_->filtered && left.names.empty()) {
            return "any other adapter";
        }
    }
    texts.insert(texts.end(), left.names.begin(), left.names.end());
    std::string text = enumerated(shortened(std::move(texts), names_->most));
    if (!left.except.empty()) {
        text += " except " + enumerated(shortened(left.except, names_->most));
    }
    return text;
}

std::string PacketWords::waysText(const std::vector<PacketWay>& ways) const {
    const auto adapters = [this](const std::shared_ptr<const FW::FWINTERFACES>& interfaces) {
        return interfaces == nullptr ? std::string("every adapter") : adaptersText(*interfaces);
    };
    Texts texts;
    for (const PacketWay& way : ways) {
        if (way.chains == (1U << FW::FW_CHAIN_FORWARD)) {
            std::string text = "forwarded";
            if (way.in != nullptr) {
                text += " from " + adapters(way.in);
            }
            if (way.out != nullptr) {
                text += " out through " + adapters(way.out);
            }
            texts.push_back(text);
        } else if (way.chains == (1U << FW::FW_CHAIN_INPUT)) {
            texts.push_back("on " + adapters(way.in) + " to this machine itself");
        } else {
            texts.push_back("on " + adapters(way.in));
        }
    }
    return enumerated(shortened(std::move(texts), names_->most));
}

std::string PacketWords::sendersText(const FamilyAddresses& senders) const {
    return names_->addressesTextOf({numbersOf(senders.v4), numbersOf(senders.v6)}, kEverybody,
                                   kNobody);
}

namespace {

/// Peers as one pair of sources and destinations for each family, if they are that.
struct PairedPeers {
    std::array<Intervals, 2> sources;
    std::array<Intervals, 2> destinations;
    bool anySource = true;
    bool anyDestination = true;

    void add(const PacketPeers& peers) {
        sources[peers.family] = numbersOf(peers.sources);
        destinations[peers.family] = numbersOf(peers.destinations);
        anySource = anySource && peers.sources == nullptr;
        anyDestination = anyDestination && peers.destinations == nullptr;
    }
};

/// Each with at most one pair of a family.
std::vector<PairedPeers> pairsOf(const std::vector<PacketPeers>& peers) {
    std::array<std::size_t, 2> counts = {0, 0};
    std::vector<PairedPeers> pairs;
    for (const PacketPeers& one : peers) {
        const std::size_t index = counts[one.family]++;
        if (index == pairs.size()) {
            pairs.emplace_back();
        }
        pairs[index].add(one);
    }
    return pairs;
}

}  // namespace

std::string PacketWords::fromText(const std::vector<PacketPeers>& peers) const {
    Texts texts;
    const std::vector<PairedPeers> pairs = pairsOf(peers);
    for (const PairedPeers& pair : pairs) {
        const bool goesOn = pairs.size() > 1 || (!pair.anySource && !pair.anyDestination);
        const std::string from =
            "from " + names_->addressesTextOf(pair.sources, kAnywhere, kNowhere, goesOn);
        const std::string to =
            "to " + names_->addressesTextOf(pair.destinations, kAnywhere, kNowhere, goesOn);
        texts.push_back(pair.anyDestination ? from
                        : pair.anySource    ? to
                                            : std::string(from).append(" ").append(to));
    }
    return enumerated(shortened(std::move(texts), names_->most));
}

std::string PacketWords::forText(const std::vector<PacketPeers>& peers) const {
    Texts texts;
    const std::vector<PairedPeers> pairs = pairsOf(peers);
    for (const PairedPeers& pair : pairs) {
        const bool goesOn = pairs.size() > 1 || (!pair.anySource && !pair.anyDestination);
        const std::string from = names_->addressesTextOf(pair.sources, kEverybody, kNobody, goesOn);
        const std::string to =
            "packets to " + names_->addressesTextOf(pair.destinations, kAnywhere, kNowhere, goesOn);
        texts.push_back(pair.anyDestination ? from
                        : pair.anySource    ? to
                                            : std::string(to).append(" from ").append(from));
    }
    return "for " + enumerated(shortened(std::move(texts), names_->most));
}

namespace {

/// Of what state the packets are, where new connections are not among them.
std::string statesText(std::uint8_t states) {
    return (states & (1U << FW::FW_STATE_NEW)) != 0 ? "" : ", of no new connection";
}

}  // namespace

std::string PacketWords::text(const PacketGroup& group) const {
    return kindsText(group.kinds) + " " + waysText(group.ways) + " " + fromText(group.peers) +
           statesText(group.states);
}

std::string PacketWords::effectText(const PacketGroup& group) const {
    return kindsText(group.kinds) + " " + waysText(group.ways) + ", " + forText(group.peers) +
           statesText(group.states);
}

}  // namespace tarnfw
