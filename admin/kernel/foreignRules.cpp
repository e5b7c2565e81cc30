#include "tarnfwadmin/foreignRules.h"

#include <netinet/in.h>

#include <algorithm>
#include <functional>
#include <set>
#include <utility>

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include "tarnfirewall/fwTypes.h"

#include "kernel/kernelRule.h"
#include "tarnfwadmin/baseFilter.h"

namespace tarnfw {
namespace {

// A host of containers has thousands of rules in chains that jump to each other. What is not
// followed to its end may accept.
constexpr std::size_t kMostSteps = 100000;
constexpr std::size_t kMostDepth = 50;

// ---- Which packets of a question a rule is for --------------------------------------------------

enum class Match { kNone, kSome, kAll };

Match lessOf(Match one, Match other) {
    return std::min(one, other);
}

Match opposite(Match match) {
    return match == Match::kAll ? Match::kNone : match == Match::kNone ? Match::kAll : match;
}

/// Of a condition. `compare` is asked when the condition has been read and the question says more
/// than "any".
template <typename Value>
Match matchOf(const Condition<Value>& condition, bool known,
              const std::function<Match(const Value&)>& compare) {
    if (!condition.isThere()) {
        return Match::kAll;
    }
    if (condition.unread || !known) {
        return Match::kSome;
    }
    const Match match = compare(*condition.value);
    return condition.negated ? opposite(match) : match;
}

bool isInterface(const std::string& pattern, const std::string& name) {
    return !pattern.empty() && pattern.back() == '+'
               ? boost::starts_with(name, pattern.substr(0, pattern.size() - 1))
               : pattern == name;
}

Match matchOfNames(const std::string& pattern, const std::vector<std::string>& names) {
    const auto hits = std::count_if(names.begin(), names.end(), [&](const std::string& name) {
        return isInterface(pattern, name);
    });
    return hits == 0                                        ? Match::kNone
           : static_cast<std::size_t>(hits) == names.size() ? Match::kAll
                                                            : Match::kSome;
}

/// Whether a packet through one of the interfaces comes through those of a chain.
Match matchOfInterfaces(const std::vector<std::string>& asked,
                        const std::vector<std::string>& chain) {
    const auto hits = std::count_if(asked.begin(), asked.end(), [&](const std::string& name) {
        return std::find(chain.begin(), chain.end(), name) != chain.end();
    });
    return hits == 0                                        ? Match::kNone
           : static_cast<std::size_t>(hits) == asked.size() ? Match::kAll
                                                            : Match::kSome;
}

Match matchOfPorts(const std::vector<PortSpan>& spans, const PortSpan& asked) {
    Match match = Match::kNone;
    for (const PortSpan& span : spans) {
        if (covers(span, asked)) {
            return Match::kAll;
        }
        if (span.first <= asked.last && asked.first <= span.last) {
            match = Match::kSome;
        }
    }
    return match;
}

Match matchOfAddress(const AddressRange& range, const Address& address) {
    return range.contains(address) ? Match::kAll : Match::kNone;
}

bool isLoopback(const Address& address) {
    static const std::optional<AddressRange> v4 = networkFrom("127.0.0.0", "8");
    static const std::optional<AddressRange> v6 = networkFrom("::1", "128");
    return v4->contains(address) || v6->contains(address);
}

/// Which of the machine's addresses a range has, apart from those of loopback.
Match matchOfOwn(const AddressRange& range, const std::vector<Address>& own) {
    std::size_t hits = 0;
    std::size_t all = 0;
    for (const Address& address : own) {
        if (!isLoopback(address) && address.isIpv6() == range.first.isIpv6()) {
            ++all;
            hits += range.contains(address) ? 1 : 0;
        }
    }
    return all == 0      ? Match::kSome
           : hits == 0   ? Match::kNone
           : hits == all ? Match::kAll
                         : Match::kSome;
}

/// `own` are the destinations that packets for this machine may have; empty: any.
Match matchOf(const KernelRule& rule, const ForeignQuestion& question,
              const std::vector<Address>& own) {
    // Packets of the machine to itself are none of the question, and the firewall accepts them too.
    if (rule.establishedOnly || rule.opensNone || (rule.in.value == "lo" && !rule.in.negated)) {
        return Match::kNone;
    }
    Match match = rule.more ? Match::kSome : Match::kAll;
    if (rule.toThisMachine && !question.toThisMachine) {
        match = Match::kSome;
    }
    match =
        lessOf(match, matchOf<std::string>(rule.in, !question.interfaces.empty(),
                                           [&](const std::string& pattern) {
                                               return matchOfNames(pattern, question.interfaces);
                                           }));
    match = lessOf(match, matchOf<std::string>(rule.out, false, {}));
    match = lessOf(match, matchOf<AddressRange>(rule.source, question.source.has_value(),
                                                [&](const AddressRange& range) {
                                                    return matchOfAddress(range, *question.source);
                                                }));
    const bool toOwn = question.toThisMachine && !question.destination && !own.empty();
    match = lessOf(match, matchOf<AddressRange>(
                              rule.destination, toOwn || question.destination.has_value(),
                              [&](const AddressRange& range) {
                                  return toOwn ? matchOfOwn(range, own)
                                               : matchOfAddress(range, *question.destination);
                              }));
    match = lessOf(match, matchOf<int>(rule.protocol, question.protocol != 0, [&](int protocol) {
                       return protocol == question.protocol ? Match::kAll : Match::kNone;
                   }));
    match = lessOf(match, matchOf<std::vector<PortSpan>>(
                              rule.ports, question.ports.has_value(), [&](const auto& spans) {
                                  return matchOfPorts(spans, *question.ports);
                              }));
    return lessOf(
        match, matchOf<std::vector<PortSpan>>(
                   rule.sourcePorts, question.sourcePorts.has_value(),
                   [&](const auto& spans) { return matchOfPorts(spans, *question.sourcePorts); }));
}

// ---- A packet's way through the chains ----------------------------------------------------------

/// What a target does that is no chain.
enum class Effect { kGoesOn, kDrops, kAccepts, kReturns, kRedirects, kUnknown };

Effect effectOf(const std::string& target) {
    static const std::map<std::string, Effect> effects = {
        {"", Effect::kGoesOn},         {"LOG", Effect::kGoesOn},
        {"NFLOG", Effect::kGoesOn},    {"ULOG", Effect::kGoesOn},
        {"MARK", Effect::kGoesOn},     {"CONNMARK", Effect::kGoesOn},
        {"SET", Effect::kGoesOn},      {"TRACE", Effect::kGoesOn},
        {"AUDIT", Effect::kGoesOn},    {"LED", Effect::kGoesOn},
        {"CLASSIFY", Effect::kGoesOn}, {"TCPMSS", Effect::kGoesOn},
        {"SECMARK", Effect::kGoesOn},  {"CONNSECMARK", Effect::kGoesOn},
        {"RATEEST", Effect::kGoesOn},  {"CT", Effect::kGoesOn},
        {"NOTRACK", Effect::kGoesOn},  {"CHECKSUM", Effect::kGoesOn},
        {"DSCP", Effect::kGoesOn},     {"TOS", Effect::kGoesOn},
        {"TTL", Effect::kGoesOn},      {"HL", Effect::kGoesOn},
        {"TEE", Effect::kGoesOn},      {"ACCEPT", Effect::kAccepts},
        {"DROP", Effect::kDrops},      {"REJECT", Effect::kDrops},
        {"TARPIT", Effect::kDrops},    {"RETURN", Effect::kReturns},
        {"DNAT", Effect::kRedirects},  {"REDIRECT", Effect::kRedirects}};
    const auto found = effects.find(target);
    // Others hand the packet to a program (NFQUEUE), or are not known.
    return found == effects.end() ? Effect::kUnknown : found->second;
}

bool isOwnChain(const std::string& chain) {
    const auto& chains = FW::FW_FIREWALL_CHAINS;
    return chain == kReloadingChain ||
           std::find(chains.begin(), chains.end(), chain) != chains.end();
}

/// Follows packets through a table, looking for what accepts, drops or redirects them. Where it
/// looks for what drops, the firewall allows the packets.
class Walk {
public:
    /// Called with the rules up to one with the effect; `certain` when all packets of the question
    /// that get there have it.
    using Found = std::function<void(const std::vector<KernelRule>& path, bool certain)>;

    /// `isFilter`: the table has the firewall's chains.
    Walk(const RuleListing& table, const ForeignQuestion& question, Effect wanted, Found found,
         bool isFilter, std::vector<Address> own = {})
        : table_(table),
          question_(question),
          wanted_(wanted),
          found_(std::move(found)),
          isFilter_(isFilter),
          own_(std::move(own)) {}

    void run(const std::string& chain) {
        base_ = chain;
        if (follow(chain, Match::kAll) == End::kFellThrough) {
            (void)endWithPolicy(Match::kAll);
        }
    }

private:
    enum class End { kFellThrough, kStopped };

    /// `match`: which packets of the question come to the chain.
    End follow(const std::string& chain, Match match) {
        for (const std::string& line : table_.rulesOf(chain)) {
            const KernelRule rule = kernelRuleFrom(line);
            if (isFilter_ && isOwnChain(rule.target)) {
                if (wanted_ == Effect::kAccepts && chain == base_ &&
                    rule.target == base_ + "_FIREWALL") {
                    return End::kStopped;
                }
                if (endsInReloading(rule, match)) {
                    return End::kStopped;
                }
                continue;
            }
            const Match matched = lessOf(match, matchOf(rule, question_, own_));
            if (matched == Match::kNone) {
                continue;
            }
            path_.push_back(rule);
            if (++steps_ > kMostSteps || path_.size() > kMostDepth) {
                report(Match::kSome);
                path_.pop_back();
                return End::kFellThrough;
            }
            const bool ends = apply(rule, matched);
            path_.pop_back();
            if (ends) {
                return rule.target == "RETURN" && chain != base_ ? End::kFellThrough
                                                                 : End::kStopped;
            }
        }
        return End::kFellThrough;
    }

    /// Follows a jump to FIREWALL_RELOADING, for the rules that others have put there: during a
    /// reload the firewall has one, for established connections. Whether no packet comes back.
    bool endsInReloading(const KernelRule& rule, Match match) {
        const Match matched = lessOf(match, matchOf(rule, question_, own_));
        return rule.target == kReloadingChain && rule.chain == base_ && matched != Match::kNone &&
               follow(kReloadingChain, matched) == End::kStopped && matched == Match::kAll;
    }

    /// Whether no packet goes on after the rule.
    bool apply(const KernelRule& rule, Match matched) {
        if (!table_.has(rule.target)) {
            return end(effectOf(rule.target), matched);
        }
        const End ended = follow(rule.target, matched);
        if (ended == End::kFellThrough && rule.goesTo && rule.chain == base_) {
            return endWithPolicy(matched);
        }
        return ended == End::kStopped && matched == Match::kAll;
    }

    bool end(Effect effect, Match matched) {
        if (effect == Effect::kGoesOn) {
            return false;
        }
        if (effect == Effect::kReturns && path_.back().chain == base_) {
            return endWithPolicy(matched);
        }
        if (effect == Effect::kUnknown && wanted_ != Effect::kRedirects) {
            report(Match::kSome);
        }
        return endWith(effect, matched);
    }

    bool endWithPolicy(Match matched) {
        if (!table_.hasPolicy(base_, "DROP")) {
            return !path_.empty() && endWith(Effect::kAccepts, matched);
        }
        KernelRule policy;
        policy.text = "-P " + base_ + " DROP";
        path_.push_back(policy);
        const bool ends = endWith(Effect::kDrops, matched);
        path_.pop_back();
        return ends;
    }

    bool endWith(Effect effect, Match matched) {
        if (effect == wanted_) {
            report(matched);
        }
        if (matched == Match::kAll && effect != Effect::kUnknown) {
            return true;
        }
        // Some packets of the question do not come to the next rules. Those that have met the
        // effect already make what the next ones do no less certain.
        clean_ = clean_ && effect == wanted_ && wanted_ != Effect::kRedirects;
        return false;
    }

    void report(Match matched) { found_(path_, matched == Match::kAll && clean_); }

    const RuleListing& table_;
    const ForeignQuestion& question_;
    Effect wanted_;
    Found found_;
    bool isFilter_;
    std::vector<Address> own_;
    std::string base_;
    std::vector<KernelRule> path_;
    std::size_t steps_ = 0;
    bool clean_ = true;
};

std::vector<std::string> textsOf(const std::vector<KernelRule>& path,
                                 const HookTable& table = HookTable()) {
    std::vector<std::string> texts;
    texts.reserve(path.size());
    for (const KernelRule& rule : path) {
        const auto text = table.texts.find(rule.text);
        texts.push_back(text == table.texts.end() ? table.prefix + rule.text : text->second);
    }
    return texts;
}

// ---- Redirections -------------------------------------------------------------------------------

/// The text after an option of the target; empty without it.
std::string optionOf(const KernelRule& rule, const std::string& option) {
    const auto found = std::find(rule.targetWords.begin(), rule.targetWords.end(), option);
    return found == rule.targetWords.end() || found + 1 == rule.targetWords.end() ? std::string()
                                                                                  : *(found + 1);
}

/// The ports that all rules of a path and the question have in common, as far as they are a span.
PortSpan portsOn(const std::vector<KernelRule>& path, const ForeignQuestion& question) {
    PortSpan ports = question.ports.value_or(PortSpan());
    for (const KernelRule& rule : path) {
        if (rule.ports.value && !rule.ports.negated && rule.ports.value->size() == 1) {
            const PortSpan& span = rule.ports.value->front();
            ports.first = std::max(ports.first, span.first);
            ports.last = std::min(ports.last, span.last);
        }
    }
    return ports;
}

/// "172.17.0.2:80", "[fd00::1]:100-200", "10.0.0.1-10.0.0.9", ":8080": address and ports.
std::pair<std::string, std::string> endsOf(const std::string& target) {
    if (boost::starts_with(target, "[")) {
        const std::size_t close = target.find(']');
        const std::string rest = close == std::string::npos ? "" : target.substr(close + 1);
        return {target.substr(1, close - 1), rest.empty() ? rest : rest.substr(1)};
    }
    const std::size_t colon = target.find(':');
    if (colon == std::string::npos || target.find(':', colon + 1) != std::string::npos) {
        return {target, ""};  // also an IPv6 address without a port
    }
    return {target.substr(0, colon), target.substr(colon + 1)};
}

/// What the last rule of a path through a table does; without the ports that it is for.
Redirection redirectionBy(const std::vector<KernelRule>& path, const HookTable& table,
                          const std::vector<Address>& own) {
    const KernelRule& last = path.back();
    Redirection redirection;
    redirection.rules = textsOf(path, table);
    std::string ports = optionOf(last, "--to-ports");
    if (last.target == "REDIRECT") {
        redirection.toThisMachine = true;
        redirection.target = ports.empty() ? "this machine" : "port " + ports;
    } else {
        redirection.target = optionOf(last, "--to-destination");
        const auto ends = endsOf(redirection.target);
        ports = ends.second;
        redirection.destination = addressFrom(ends.first);
        redirection.toThisMachine =
            ends.first.empty() ||
            (redirection.destination &&
             std::find(own.begin(), own.end(), *redirection.destination) != own.end());
    }
    redirection.seenPorts = portSpanFrom(ports);
    return redirection;
}

}  // namespace

ForeignRules::ForeignRules(std::string family, RuleListing filter, RuleListing nat,
                           std::vector<Address> own)
    : ForeignRules(
          std::move(family), std::move(filter),
          std::vector<HookTable>{{std::move(nat), {{kNatEntrance, Hook::kPrerouting}}, {}, ""}},
          std::move(own)) {}

ForeignRules::ForeignRules(std::string family, RuleListing filter, std::vector<HookTable> others,
                           std::vector<Address> own)
    : family_(std::move(family)),
      filter_(std::move(filter)),
      others_(std::move(others)),
      own_(std::move(own)) {}

std::vector<EarlyAccept> ForeignRules::earlyAccepts(const std::string& chain,
                                                    const ForeignQuestion& question) const {
    std::vector<EarlyAccept> accepts;
    if (filter_.positionOf(chain, "-A " + chain + " -j " + chain + "_FIREWALL") == 0) {
        return accepts;
    }
    Walk(
        filter_, question, Effect::kAccepts,
        [&](const auto& path, bool certain) {
            if (accepts.size() < kMostForeignRules) {
                accepts.push_back({chain, textsOf(path), certain});
            }
        },
        true)
        .run(chain);
    return accepts;
}

std::vector<EarlyAccept> ForeignRules::anyEarlyAccepts() const {
    std::vector<EarlyAccept> all;
    std::set<std::string> seen;
    for (const char* const chain : {"INPUT", "FORWARD"}) {
        for (EarlyAccept& accept : earlyAccepts(chain, ForeignQuestion())) {
            accept.rules.resize(1);
            accept.chain = kernelRuleFrom(accept.rules.front()).chain;
            if (seen.insert(accept.rules.front()).second) {
                all.push_back(std::move(accept));
            }
        }
    }
    return all;
}

std::vector<Redirection> ForeignRules::redirections(const ForeignQuestion& question) const {
    std::vector<Redirection> found;
    std::size_t certainTables = 0;
    for (const HookTable& table : others_) {
        bool certainHere = false;
        for (const HookTable::Entrance& entrance : table.entrances) {
            if (entrance.hook != Hook::kPrerouting) {
                continue;
            }
            Walk(
                table.rules, question, Effect::kRedirects,
                [&](const auto& path, bool certain) {
                    if (found.size() >= kMostForeignRules) {
                        return;
                    }
                    found.push_back(redirectionBy(path, table, own_));
                    found.back().ports = portsOn(path, question);
                    found.back().certain = certain;
                    certainHere = certainHere || certain;
                },
                false)
                .run(entrance.chain);
        }
        certainTables += certainHere ? 1 : 0;
    }
    if (certainTables > 1) {
        // The table that the packets meet first decides, and the order is not known.
        for (Redirection& redirection : found) {
            redirection.certain = false;
        }
    }
    return found;
}

std::vector<ForeignDrop> ForeignRules::drops(Hook hook, const ForeignQuestion& question) const {
    std::vector<ForeignDrop> found;
    const auto follow = [&](const RuleListing& rules, const HookTable& shown,
                            const HookTable::Entrance& entrance, bool isFilter) {
        const Match match = entrance.interfaces.empty() ? Match::kAll
                            : question.interfaces.empty()
                                ? Match::kSome
                                : matchOfInterfaces(question.interfaces, entrance.interfaces);
        if (entrance.hook != hook || match == Match::kNone) {
            return;
        }
        const auto add = [&](const auto& path, bool certain) {
            if (found.size() < kMostForeignRules) {
                found.push_back({textsOf(path, shown), certain && match == Match::kAll});
            }
        };
        Walk(rules, question, Effect::kDrops, add, isFilter, own_).run(entrance.chain);
    };
    if (hook != Hook::kPrerouting) {
        follow(filter_, HookTable(), {hook == Hook::kInput ? "INPUT" : "FORWARD", hook}, true);
    }
    for (const HookTable& table : others_) {
        for (const HookTable::Entrance& entrance : table.entrances) {
            follow(table.rules, table, entrance, false);
        }
    }
    return found;
}

std::string rulesText(const std::vector<std::string>& rules) {
    return boost::join(rules, "; ");
}

}  // namespace tarnfw
