#include "tarnfwadmin/ruleSyntax.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <optional>
#include <sstream>
#include <utility>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>

#include "tarnfirewall/fwTypes.h"

#include "base/iptablesAddress.h"
#include "rules/portWords.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

// A rule for tcp or udp with an empty list of ports makes no line.
constexpr char kEveryPort[] = "0-65535";

constexpr char kWhatWords[] = "service, tcp, udp, tcp/udp, icmp, igmp, any, from or to";

/// The protocols without ports.
const std::map<std::string, std::int32_t> kPortlessProtocols = {
    {"icmp", FW::FW_PORT_PROTOCOL_ICMP},
    {"igmp", FW::FW_PORT_PROTOCOL_IGMP},
};

[[noreturn]] void wrong(const std::string& text, Remedy remedy = Remedy::kNone) {
    throw Error(ErrorKind::kInvalid, text, {}, remedy);
}

[[noreturn]] void unknown(const std::string& text, Remedy remedy = Remedy::kNone) {
    throw Error(ErrorKind::kNotFound, text, {}, remedy);
}

/// "on eth0" among a rule's words is an attempt to give its adapter.
Remedy remedyFor(const std::string& word) {
    return word == "on" ? Remedy::kGiveAdapterApart : Remedy::kNone;
}

/// The entries of "a,b,c"; `what` is what an empty one should have been.
Texts entriesOf(const std::string& word, const std::string& what) {
    Texts entries;
    boost::split(entries, word, boost::is_any_of(","));
    if (std::find(entries.begin(), entries.end(), "") != entries.end()) {
        wrong(inQuotes(word) + " lacks " + what + " next to a comma; lists contain no blanks");
    }
    return entries;
}

/// The words of a rule, taken one after the other.
class Words {
public:
    explicit Words(const Texts& words) : words_(words) {}

    bool done() const { return next_ == words_.size(); }
    bool isSide() const {
        const std::string word = done() ? std::string() : boost::to_lower_copy(peek());
        return word == "from" || word == "to";
    }
    const std::string& peek() const { return words_[next_]; }

    /// Takes the next word if it is this one, in any case of letters.
    bool takeIf(const std::string& word) {
        const bool isIt = !done() && boost::iequals(peek(), word);
        next_ += isIt ? 1U : 0U;
        return isIt;
    }

    /// The next word; without one, an error that `expected` is missing after the last.
    const std::string& take(const std::string& expected) {
        if (done()) {
            wrong(words_.empty() ? "a rule's words are missing: expected " + expected
                                 : "expected " + expected + " after " + inQuotes(words_.back()));
        }
        return words_[next_++];
    }

private:
    const Texts& words_;
    std::size_t next_ = 0;
};

// ---- Ports, protocols, services ----

/// A port or a range as rules have it.
std::string portEntry(const std::string& entry, const RuleVocabulary& vocabulary) {
    const std::optional<PortSpan> span = portEndsWritten(entry);
    if (!span) {
        wrong(notAPort(entry) +
              (vocabulary.services.count(entry) > 0 ? didYouMean("service " + entry) : ""));
    }
    if (span->last < span->first) {
        wrong("the range of ports " + inQuotes(entry) + " runs backwards");
    }
    return portSpanText(*span);
}

void readPorts(const std::string& list, const RuleVocabulary& vocabulary, FW::FWRULE& rule) {
    for (const std::string& entry : entriesOf(list, "a port")) {
        rule.portList.push_back(portEntry(entry, vocabulary));
    }
}

/// The ports after a protocol: "22", "port 22", "source port 123"; none is every port.
void takePorts(Words& words, const RuleVocabulary& vocabulary, FW::FWRULE& rule) {
    const bool source = words.takeIf("source");
    const bool named = words.takeIf("port") || words.takeIf("ports");
    if (source && !named) {
        wrong("expected port after \"source\"");
    }
    if (!named && (words.done() || words.isSide())) {
        rule.portList = {kEveryPort};
        return;
    }
    if (source) {
        rule.portDirect = FW::FW_PORT_DIRECT_SOURCE;
    }
    readPorts(words.take("ports"), vocabulary, rule);
}

/// The protocol that the services need, as the library computes it in an update: those that
/// take both protocols do not count, and alone they get both.
std::int32_t protocolOf(const Texts& services, const RuleVocabulary& vocabulary) {
    const auto needs = [&](std::int32_t protocol) {
        return std::any_of(services.begin(), services.end(), [&](const std::string& name) {
            return vocabulary.services.at(name) == protocol;
        });
    };
    const bool tcp = needs(FW::FW_PORT_PROTOCOL_TCP);
    const bool udp = needs(FW::FW_PORT_PROTOCOL_UDP);
    if (tcp == udp) {
        return FW::FW_PORT_PROTOCOL_TCP_UDP;
    }
    return tcp ? FW::FW_PORT_PROTOCOL_TCP : FW::FW_PORT_PROTOCOL_UDP;
}

void takeServices(Words& words, const RuleVocabulary& vocabulary, FW::FWRULE& rule) {
    Texts known;
    for (const auto& [name, protocol] : vocabulary.services) {
        known.push_back(name);
    }
    rule.portGroup = FW::FW_PORT_GROUP_SERVICES;
    const std::string& word = words.take("a service's name");
    if (known.empty()) {
        throw Error(ErrorKind::kSystem, "the service catalogue is empty or cannot be read");
    }
    for (const std::string& name : entriesOf(word, "a service")) {
        if (vocabulary.services.count(name) == 0) {
            unknown("there is no service " + inQuotes(name) + didYouMean(nearest(name, known)),
                    Remedy::kListServices);
        }
        if (std::find(rule.portList.begin(), rule.portList.end(), name) == rule.portList.end()) {
            rule.portList.push_back(name);
        }
    }
    rule.protocol = protocolOf(rule.portList, vocabulary);
}

/// A suggestion for `word` in the place of a protocol.
std::string whatWasMeant(const std::string& word, const RuleVocabulary& vocabulary) {
    if (vocabulary.services.count(word) > 0) {
        return "service " + word;
    }
    if (portEndsWritten(word.substr(0, word.find(',')))) {
        return "tcp " + word;
    }
    Texts known = portProtocolWords();
    known.insert(known.end(), {"icmp", "igmp", "service", "any", "from", "to"});
    return nearest(word, known);
}

void takeWhat(Words& words, const RuleVocabulary& vocabulary, FW::FWRULE& rule) {
    rule.portGroup = FW::FW_PORT_GROUP_ANY;
    if (words.done() || words.isSide()) {
        return;
    }
    const std::string& typed = words.take(kWhatWords);
    const std::string word = boost::to_lower_copy(typed);
    if (word == "any" || word == "everything") {
        return;
    }
    if (word == "service") {
        takeServices(words, vocabulary, rule);
        return;
    }
    rule.portGroup = FW::FW_PORT_GROUP_PORTS;
    if (const auto portless = kPortlessProtocols.find(word); portless != kPortlessProtocols.end()) {
        rule.protocol = portless->second;
    } else if (const auto protocol = portProtocolFrom(word)) {
        rule.protocol = *protocol;
        takePorts(words, vocabulary, rule);
    } else if (const auto both = protocolPortsFrom(word)) {
        rule.protocol = both->protocol;
        readPorts(both->ports, vocabulary, rule);
    } else {
        wrong("unexpected " + inQuotes(typed) + ": expected " + kWhatWords +
                  didYouMean(whatWasMeant(word, vocabulary)),
              remedyFor(word));
    }
}

// ---- Addresses ----

/// The family of an address; an error if the options are for the other one.
std::int32_t familyOf(const Address& address, const std::string& word, const RuleOptions& options) {
    if (address.isIpv6() ? options.v4 : options.v6) {
        wrong(inQuotes(word) + " is an " + (address.isIpv6() ? "IPv6" : "IPv4") +
              " address, but the rule is for " + (options.v4 ? "IPv4" : "IPv6") + " only");
    }
    return address.isIpv6() ? FW::FW_IP_TYPE_V6 : FW::FW_IP_TYPE_V4;
}

/// A network as iptables and ip6tables read it, see addressesRead(). Not with a zone, which they
/// leave out, nor with a mask of 0, before which they take anything.
std::optional<MaskedAddress> networkRead(const std::string& word) {
    for (const bool ipv6 : {false, true}) {
        const auto read = addressesRead(word, ipv6);
        if (read && read->size() == 1 && read->front().mask != Address(ipv6, {}) &&
            word.find('%') == std::string::npos) {
            return read->front();
        }
    }
    return std::nullopt;
}

void useNetwork(const std::string& word, const RuleOptions& options, FW::FWRULE& rule) {
    const std::size_t slash = word.find('/');
    std::string mask = word.substr(slash + 1);
    std::optional<AddressRange> network = networkFrom(word.substr(0, slash), mask);
    rule.ipGroup = FW::FW_IP_GROUP_NETWORK;
    if (!network) {
        const std::optional<MaskedAddress> read = networkRead(word);
        if (!read) {
            wrong(inQuotes(word) +
                  " is not a network such as 192.168.1.0/24, 192.168.1.0/255.255.255.0 "
                  "or 2001:db8::/64");
        }
        network = read->range();
        mask = spelled(read->mask);
        if (!network) {  // the mask has a gap, and so no length
            rule.ipType = familyOf(read->base, word, options);
            rule.ipList = {spelled(read->base), mask};
            return;
        }
    }
    const int length = *prefixLengthFrom(mask, network->first.isIpv6());
    rule.ipType = familyOf(network->first, word, options);
    rule.ipList = {spelled(network->first), std::to_string(length)};
    if (!network->first.isIpv6()) {
        rule.ipList[1] = spelled(networkFrom("255.255.255.255", std::to_string(length))->first);
    }
}

void useRange(const std::string& word, const RuleOptions& options, FW::FWRULE& rule) {
    const std::size_t dash = word.find('-');
    const std::optional<Address> first = addressFrom(word.substr(0, dash));
    const std::optional<Address> last = addressFrom(word.substr(dash + 1));
    if (!first || !last || first->isIpv6() != last->isIpv6()) {
        wrong(inQuotes(word) +
              " is not a range of addresses of one family, such as 10.0.0.5-10.0.0.9");
    }
    if (*last < *first) {
        wrong("the range of addresses " + inQuotes(word) + " runs backwards");
    }
    rule.ipGroup = FW::FW_IP_GROUP_RANGE;
    rule.ipType = familyOf(*first, word, options);
    rule.ipList = {spelled(*first), spelled(*last)};
}

void useCountries(const std::string& word, const RuleOptions& options,
                  const RuleVocabulary& vocabulary, FW::FWRULE& rule) {
    Texts known;
    if (!options.v6) {
        known = vocabulary.countriesV4;
    }
    if (!options.v4) {
        known.insert(known.end(), vocabulary.countriesV6.begin(), vocabulary.countriesV6.end());
    }
    const std::string family = options.v4 ? "IPv4 " : options.v6 ? "IPv6 " : "";
    if (known.empty()) {
        throw Error(ErrorKind::kNotFound,
                    "there is no " + family +
                        "country data on this machine: a rule for a country would match "
                        "nobody");
    }
    for (const std::string& entry : entriesOf(word, "a country")) {
        const std::string code = boost::to_upper_copy(entry);
        if (std::find(known.begin(), known.end(), code) == known.end()) {
            unknown(inQuotes(entry) + " is not a country with " + family +
                    "data (two letters, such as " + known.front() + ")" +
                    didYouMean(nearestCode(code, known)));
        }
        if (std::find(rule.ipList.begin(), rule.ipList.end(), code) == rule.ipList.end()) {
            rule.ipList.push_back(code);
        }
    }
    rule.ipGroup = FW::FW_IP_GROUP_COUNTRIES;
}

void takeAddress(Words& words, const RuleOptions& options, const RuleVocabulary& vocabulary,
                 FW::FWRULE& rule) {
    constexpr char kExpected[] =
        "an address, a network, a range, \"country\" with codes, or \"anywhere\"";
    const std::string& word = words.take(kExpected);
    const std::string keyword = boost::to_lower_copy(word);
    if (keyword == "anywhere" || keyword == "any") {
        return;
    }
    if (keyword == "country") {
        useCountries(words.take("the codes of countries"), options, vocabulary, rule);
    } else if (word.find('/') != std::string::npos) {
        useNetwork(word, options, rule);
    } else if (const std::optional<Address> address = addressFrom(word)) {
        rule.ipGroup = FW::FW_IP_GROUP_SINGLE;
        rule.ipType = familyOf(*address, word, options);
        rule.ipList = {spelled(*address)};
    } else if (word.find('-') != std::string::npos) {
        useRange(word, options, rule);
    } else {
        wrong("unexpected " + inQuotes(word) + ": expected " + kExpected +
              didYouMean(nearest(word, {"anywhere", "country"})));
    }
}

void takeSide(Words& words, const RuleOptions& options, const RuleVocabulary& vocabulary,
              FW::FWRULE& rule) {
    rule.ipGroup = FW::FW_IP_GROUP_ANY;
    rule.ipType = options.v4   ? FW::FW_IP_TYPE_V4
                  : options.v6 ? FW::FW_IP_TYPE_V6
                               : FW::FW_IP_TYPE_BOTH;
    if (words.done()) {
        return;
    }
    const std::string& typed = words.take("from or to");
    const std::string word = boost::to_lower_copy(typed);
    if (word != "from" && word != "to") {
        wrong("unexpected " + inQuotes(typed) + ": expected from or to" +
                  didYouMean(nearest(word, {"from", "to"})),
              remedyFor(word));
    }
    rule.ipDirect = word == "from" ? FW::FW_IP_DIRECT_SOURCE : FW::FW_IP_DIRECT_DESTINATION;
    takeAddress(words, options, vocabulary, rule);
    if (!words.done()) {
        wrong("unexpected " + inQuotes(words.peek()) + ": a rule ends with its address");
    }
}

FW::FW_POLICY takePolicy(Words& words) {
    const std::string& typed = words.take("allow or deny");
    const std::string word = boost::to_lower_copy(typed);
    if (word != "allow" && word != "deny") {
        // Words that other tools have for it.
        const bool drops = word == "block" || word == "drop" || word == "reject";
        const std::string guess = drops              ? "deny"
                                  : word == "accept" ? "allow"
                                                     : nearest(word, {"allow", "deny"});
        wrong("unexpected " + inQuotes(typed) + ": expected allow or deny" + didYouMean(guess));
    }
    return word == "allow" ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
}

FW::FWRULE ruleFromPlain(const Texts& words, const RuleOptions& options,
                         const RuleVocabulary& vocabulary) {
    FW::FWRULE rule;
    Words remaining(words);
    rule.portDirect =
        options.sourcePort ? FW::FW_PORT_DIRECT_SOURCE : FW::FW_PORT_DIRECT_DESTINATION;
    rule.policy = takePolicy(remaining);
    takeWhat(remaining, vocabulary, rule);
    takeSide(remaining, options, vocabulary, rule);
    if (options.sourcePort &&
        (rule.portGroup != FW::FW_PORT_GROUP_PORTS || rule.portList.empty())) {
        wrong("a source port needs tcp or udp and ports, such as \"udp 123\"");
    }
    rule.adapterDirect = options.out ? FW::FW_ADAPTER_DIRECT_OUT : FW::FW_ADAPTER_DIRECT_IN;
    rule.blLog = options.log;
    rule.enable = !options.disabled;
    rule.name = options.name;
    rule.labelList = options.labels;
    return rule;
}

// ---- The words as ruleText() prints them --------------------------------------------------------

/// The parts of the words that options say as well; `words` keeps the others.
class Printed {
public:
    Printed(const Texts& words, const RuleOptions& options) : options_(options) {
        for (auto word = words.begin(); word != words.end(); ++word) {
            const std::size_t quote = word->find('"');
            if (quote != std::string::npos &&
                takeName(boost::join(Texts(word, words.end()), " ").substr(quote))) {
                add(word->substr(0, quote));
                break;
            }
            // An empty word stays: it is what a script makes of a variable that is not set.
            word->empty() ? words_.push_back("") : add(*word);
        }
        if (!words_.empty() && words_.front() == "[off]") {
            options_.disabled = true;
            words_.erase(words_.begin());
        }
        if (takeLast("(ipv4)")) {
            narrow(options_.v4, options_.v6);
        } else if (takeLast("(ipv6)")) {
            narrow(options_.v6, options_.v4);
        }
        const bool logged = takeLast("logged");
        const bool outgoing = takeLast("outgoing");
        options_.log = options_.log || logged;
        options_.out = options_.out || outgoing;
    }

    const RuleOptions& options() const { return options_; }
    const Texts& words() const { return words_; }

private:
    void add(const std::string& words) {
        std::istringstream stream(words);
        for (std::string word; stream >> word;) {
            words_.push_back(word);
        }
    }

    /// Takes a name in quotes.
    bool takeName(const std::string& text) {
        if (text.size() < 2 || text.back() != '"') {
            return false;
        }
        const std::string name = text.substr(1, text.size() - 2);
        if (!options_.name.empty() && options_.name != name) {
            wrong("the rule has two names: " + inQuotes(name) + " and " + inQuotes(options_.name));
        }
        options_.name = name;
        return true;
    }

    /// Takes the last word if it is this one, and a comma before it.
    bool takeLast(const std::string& word) {
        if (words_.empty() || !boost::iequals(words_.back(), word)) {
            return false;
        }
        words_.pop_back();
        if (!words_.empty() && words_.back().size() > 1 && words_.back().back() == ',') {
            words_.back().pop_back();
        }
        return true;
    }

    static void narrow(bool& wanted, bool other) {
        if (other) {
            wrong("the rule's words and options say different address families");
        }
        wanted = true;
    }

    RuleOptions options_;
    Texts words_;
};

}  // namespace

FW::FWRULE ruleFrom(const std::vector<std::string>& words, const RuleOptions& options,
                    const RuleVocabulary& vocabulary) {
    const Printed printed(words, options);
    return ruleFromPlain(printed.words(), printed.options(), vocabulary);
}

}  // namespace tarnfw
