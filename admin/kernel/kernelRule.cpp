#include "kernel/kernelRule.h"

#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

namespace tarnfw {
namespace {

using Words = std::vector<std::string>;

constexpr std::size_t kUsualWords = 24;
constexpr std::size_t kProtocolBytes = 4096;  // for a line of /etc/protocols

/// The words of a line without quotes.
std::vector<std::string_view> plainWordsOf(std::string_view line) {
    std::vector<std::string_view> words;
    words.reserve(kUsualWords);
    while (!line.empty()) {
        const std::string_view word = line.substr(0, line.find(' '));
        if (!word.empty()) {
            words.push_back(word);
        }
        line.remove_prefix(std::min(word.size() + 1, line.size()));
    }
    return words;
}

/// The words of a line; comments and log prefixes are in quotes.
Words wordsOf(const std::string& line) {
    Words words;
    std::string word;
    bool inWord = false;
    bool quoted = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (quoted && line[i] == '\\' && i + 1 < line.size()) {
            word += line[++i];
        } else if (line[i] == '"') {
            quoted = !quoted;
            inWord = true;
        } else if (!quoted && line[i] == ' ') {
            if (inWord) {
                words.push_back(word);
            }
            word.clear();
            inWord = false;
        } else {
            word += line[i];
            inWord = true;
        }
    }
    if (inWord) {
        words.push_back(word);
    }
    return words;
}

bool isOneOf(std::string_view word, std::initializer_list<const char*> words) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

/// "10.0.0.1", "10.0.0.0/8", "10.0.0.0/255.0.0.0".
std::optional<AddressRange> rangeOf(const std::string& text) {
    const std::size_t slash = text.find('/');
    if (slash != std::string::npos) {
        return networkFrom(text.substr(0, slash), text.substr(slash + 1));
    }
    const std::optional<Address> address = addressFrom(text);
    return address ? std::optional(AddressRange{*address, *address}) : std::nullopt;
}

/// "22", "6000:6010", ":1023", "1024:".
std::optional<PortSpan> portsOf(const std::string& text) {
    const std::size_t colon = text.find(':');
    const std::string first = text.substr(0, colon);
    const std::string last = colon == std::string::npos ? first : text.substr(colon + 1);
    const std::optional<int> low = first.empty() ? std::optional(0) : portFrom(first);
    const std::optional<int> high = last.empty() ? std::optional(kHighestPort) : portFrom(last);
    return text.empty() || !low || !high ? std::nullopt : std::optional(PortSpan{*low, *high});
}

/// "tcp", "6"; 0 is "all".
std::optional<int> protocolOf(std::string text) {
    boost::to_lower(text);
    constexpr std::array<std::pair<const char*, int>, 7> kNames = {{{"all", 0},
                                                                    {"icmp", IPPROTO_ICMP},
                                                                    {"igmp", IPPROTO_IGMP},
                                                                    {"tcp", IPPROTO_TCP},
                                                                    {"udp", IPPROTO_UDP},
                                                                    {"icmpv6", IPPROTO_ICMPV6},
                                                                    {"ipv6-icmp", IPPROTO_ICMPV6}}};
    for (const auto& [name, number] : kNames) {
        if (text == name) {
            return number;
        }
    }
    if (const std::optional<int> number = portFrom(text)) {
        return number;
    }
    // Of /etc/protocols. Lines are read in several threads, which would share the answer of
    // getprotobyname().
    std::array<char, kProtocolBytes> buffer;
    protoent entry = {};
    protoent* found = nullptr;
    const int failure =
        getprotobyname_r(text.c_str(), &entry, buffer.data(), buffer.size(), &found);
    return failure != 0 || found == nullptr ? std::nullopt : std::optional(found->p_proto);
}

template <typename Value>
void set(Condition<Value>& condition, std::optional<Value> value, bool negated) {
    condition.unread = !value || condition.isThere();  // one twice: both count, and are not read
    condition.value = condition.unread ? std::nullopt : std::move(value);
    condition.negated = negated;
}

/// What is true of every packet is no condition.
void dropEmptyConditions(KernelRule& rule) {
    for (Condition<AddressRange>* const condition : {&rule.source, &rule.destination}) {
        if (condition->value && !condition->negated &&
            condition->value->contains(wholeFamily(condition->value->first.isIpv6()))) {
            *condition = {};
        }
    }
    if (rule.protocol.value == 0 && !rule.protocol.negated) {
        rule.protocol = {};
    }
    for (Condition<std::vector<PortSpan>>* const condition : {&rule.ports, &rule.sourcePorts}) {
        if (condition->value && !condition->negated && condition->value->size() == 1 &&
            covers(condition->value->front(), PortSpan())) {
            *condition = {};
        }
    }
    if (rule.in.value == "+" && !rule.in.negated) {
        rule.in = {};
    }
}

class Reader {
public:
    explicit Reader(const std::string& line) {
        rule_.text = line;
        if (line.find('"') == std::string::npos) {
            words_ = plainWordsOf(line);
        } else {
            unquoted_ = wordsOf(line);
            words_.assign(unquoted_.begin(), unquoted_.end());
        }
    }

    KernelRule read() {
        while (at_ < words_.size()) {
            const std::string_view word = next();
            if (word == "!") {
                negated_ = true;
                continue;
            }
            readOption(word);
            negated_ = false;
        }
        dropEmptyConditions(rule_);
        return std::move(rule_);
    }

private:
    std::string_view next() { return at_ < words_.size() ? words_[at_++] : std::string_view(); }
    std::string nextText() { return std::string(next()); }

    void readOption(std::string_view word) {
        if (word == "-t") {
            rule_.table = next();
        } else if (word == "-A") {
            rule_.chain = next();
        } else if (word == "-i") {
            set(rule_.in, std::optional(nextText()), negated_);
        } else if (word == "-o") {
            set(rule_.out, std::optional(nextText()), negated_);
        } else if (word == "-s") {
            set(rule_.source, rangeOf(nextText()), negated_);
        } else if (word == "-d") {
            set(rule_.destination, rangeOf(nextText()), negated_);
        } else if (word == "-p") {
            set(rule_.protocol, protocolOf(nextText()), negated_);
        } else if (isOneOf(word, {"--dport", "--dports", "--destination-port"})) {
            readPorts(rule_.ports);
        } else if (isOneOf(word, {"--sport", "--sports", "--source-port"})) {
            readPorts(rule_.sourcePorts);
        } else if (isOneOf(word, {"-j", "-g"})) {
            rule_.goesTo = word == "-g";
            rule_.target = next();
            rule_.targetWords.assign(words_.begin() + static_cast<std::ptrdiff_t>(at_),
                                     words_.end());
            at_ = words_.size();
        } else {
            readMatch(word);
        }
    }

    void readMatch(std::string_view word) {
        if (word == "-m") {
            // The options of these are read one by one, and those of others are not.
            rule_.more = !isOneOf(next(), {"tcp", "udp", "multiport", "comment", "state",
                                           "conntrack", "addrtype"}) ||
                         rule_.more;
        } else if (word == "--comment") {
            (void)next();
        } else if (word == "--dst-type" && !negated_ && peek() == "LOCAL") {
            (void)next();
            rule_.toThisMachine = true;
        } else if (isOneOf(word, {"--state", "--ctstate"}) && !negated_ && isEstablished(peek())) {
            (void)next();
            rule_.establishedOnly = true;
        } else if (isOneOf(word, {"--state", "--ctstate"}) && !negated_ && opensNone(peek())) {
            (void)next();
            rule_.opensNone = true;
        } else if (word == "--tcp-flags") {
            const std::string mask = nextText();
            rule_.opensNone = hasOpeningFlags(mask, nextText()) == negated_ || rule_.opensNone;
        } else {
            rule_.more = true;
        }
    }

    static bool areAll(std::string_view list, std::initializer_list<const char*> words) {
        Words names;
        boost::split(names, list, boost::is_any_of(","));
        return std::all_of(names.begin(), names.end(),
                           [&](const std::string& name) { return isOneOf(name, words); });
    }

    static bool opensNone(std::string_view states) {
        return areAll(states, {"ESTABLISHED", "RELATED", "INVALID"});
    }

    /// Whether the first packet of a connection matches: of the flags it has SYN alone.
    static bool hasOpeningFlags(const std::string& mask, const std::string& set) {
        Words names;
        boost::split(names, mask, boost::is_any_of(","));
        const bool looksAtSyn =
            std::any_of(names.begin(), names.end(), [](const std::string& name) {
                return isOneOf(name, {"SYN", "ALL"});
            });
        return set == (looksAtSyn ? "SYN" : "NONE");
    }

    std::string_view peek() const { return at_ < words_.size() ? words_[at_] : std::string_view(); }

    /// RELATED is for connections that an established one has announced: the firewall's own line
    /// accepts them as well.
    static bool isEstablished(std::string_view states) {
        return areAll(states, {"ESTABLISHED", "RELATED"});
    }

    void readPorts(Condition<std::vector<PortSpan>>& condition) {
        Words entries;
        const std::string_view list = next();
        boost::split(entries, list, boost::is_any_of(","));
        std::vector<PortSpan> spans;
        for (const std::string& entry : entries) {
            const std::optional<PortSpan> span = portsOf(entry);
            if (!span) {
                set(condition, std::optional<std::vector<PortSpan>>(), negated_);
                return;
            }
            spans.push_back(*span);
        }
        set(condition, std::optional(spans), negated_);
    }

    Words unquoted_;  // where the line has quotes
    std::vector<std::string_view> words_;
    std::size_t at_ = 0;
    bool negated_ = false;
    KernelRule rule_;
};

bool isSame(const std::string& one, const std::string& other) {
    return one == other;
}

bool isSame(int one, int other) {
    return one == other;
}

bool isSame(const AddressRange& one, const AddressRange& other) {
    return one.first == other.first && one.last == other.last;
}

bool isSame(const std::vector<PortSpan>& one, const std::vector<PortSpan>& other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [](const PortSpan& a, const PortSpan& b) {
                          return a.first == b.first && a.last == b.last;
                      });
}

template <typename Value>
bool isSameCondition(const Condition<Value>& one, const Condition<Value>& other) {
    if (one.unread || other.unread) {
        return true;
    }
    return one.value.has_value() == other.value.has_value() &&
           (!one.value || (one.negated == other.negated && isSame(*one.value, *other.value)));
}

}  // namespace

KernelRule kernelRuleFrom(const std::string& line) {
    return Reader(line).read();
}

bool isSameAsFarAsRead(const KernelRule& one, const KernelRule& other) {
    return one.chain == other.chain && one.target == other.target &&
           one.establishedOnly == other.establishedOnly && one.opensNone == other.opensNone &&
           isSameCondition(one.in, other.in) && isSameCondition(one.out, other.out) &&
           isSameCondition(one.source, other.source) &&
           isSameCondition(one.destination, other.destination) &&
           isSameCondition(one.protocol, other.protocol) &&
           isSameCondition(one.ports, other.ports) &&
           isSameCondition(one.sourcePorts, other.sourcePorts);
}

}  // namespace tarnfw
