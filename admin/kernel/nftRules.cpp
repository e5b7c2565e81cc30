#include "kernel/nftRules.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <set>
#include <sstream>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/erase.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/portEntry.h"

namespace tarnfw {
namespace {

using Words = std::vector<std::string>;

// A condition that a reader of iptables' rules does not know.
constexpr char kUnread[] = " -m nft";

// Before the names of chains, some of which are those of targets.
constexpr char kChainMark[] = ".";

// ---- Text ---------------------------------------------------------------------------------------

/// The words of a rule. A text in quotes is one, without them, and so is what is in braces.
Words wordsOf(const std::string& rule) {
    Words words;
    std::string word;
    bool quoted = false;
    int braces = 0;
    for (const char c : rule) {
        if (c == '"') {
            quoted = !quoted;
        } else if (!quoted && braces == 0 && c == ' ') {
            if (!word.empty()) {
                words.push_back(word);
            }
            word.clear();
        } else {
            braces += quoted ? 0 : c == '{' ? 1 : c == '}' ? -1 : 0;
            word += c;
        }
    }
    if (!word.empty()) {
        words.push_back(word);
    }
    return words;
}

/// The lines of a text, trimmed; those of one set in braces are one, with their chain's.
std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream input(text);
    bool open = false;  // a set whose end is in a later line
    for (std::string line; std::getline(input, line);) {
        boost::trim(line);
        if (open) {
            lines.back() += " " + line;
        } else {
            lines.push_back(line);
        }
        const std::string& whole = lines.back();
        open = !boost::ends_with(whole, "{") && std::count(whole.begin(), whole.end(), '{') >
                                                    std::count(whole.begin(), whole.end(), '}');
    }
    return lines;
}

/// "eth0" of "chain eth0 {" after "chain "; empty for another line.
std::string nameIn(const std::string& line, const std::string& kind) {
    return boost::starts_with(line, kind + " ") && boost::ends_with(line, " {")
               ? line.substr(kind.size() + 1, line.size() - kind.size() - 3)
               : std::string();
}

// ---- Chains at hooks ----------------------------------------------------------------------------

/// The interfaces of "type filter hook ingress devices = { "eth0", "eth1" } priority 0; ...".
Words devicesIn(const Words& words) {
    Words devices;
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        if (words[i] == "device") {
            devices.push_back(words[i + 1]);
        } else if (words[i] == "devices" && words[i + 1] == "=" && i + 2 < words.size()) {
            boost::split(devices, words[i + 2], boost::is_any_of("{}, \""),
                         boost::token_compress_on);
        }
    }
    devices.erase(std::remove(devices.begin(), devices.end(), ""), devices.end());
    return devices;
}

/// The hook of the second line of a chain; none where incoming packets do not meet it.
std::optional<HookTable::Entrance> entranceFrom(const std::string& chain, const Words& words) {
    const auto hook = std::find(words.begin(), words.end(), "hook");
    if (hook == words.end() || hook + 1 == words.end()) {
        return std::nullopt;
    }
    const std::string& name = *(hook + 1);
    if (name == "prerouting" || name == "ingress") {
        return HookTable::Entrance{chain, Hook::kPrerouting, devicesIn(words)};
    }
    if (name == "input" || name == "forward") {
        return HookTable::Entrance{chain, name == "input" ? Hook::kInput : Hook::kForward, {}};
    }
    return std::nullopt;
}

// ---- One rule -----------------------------------------------------------------------------------

/// What one rule of nftables is in the words of iptables.
class Translation {
public:
    Translation(const std::string& rule, const std::string& family)
        : words_(wordsOf(rule)), ipv6_(family == "v6") {
        while (at_ < words_.size()) {
            read(next());
        }
    }

    /// Whether it is for packets of the family.
    bool isForFamily() const { return forFamily_; }

    /// "-i eth0 -p tcp --dport 80".
    std::string conditions() const {
        return conditions_ + (protocol_.empty() ? "" : " -p " + protocol_) + ports_;
    }

    /// "-j DNAT --to-destination 10.0.0.1", "-j .other"; several for a map of chains, none for a
    /// rule that only counts.
    const Words& targets() const { return targets_; }

    /// It goes to chains that a map names.
    bool goesAnywhere() const { return goesAnywhere_; }

private:
    std::string peek() const { return at_ < words_.size() ? words_[at_] : std::string(); }
    std::string next() { return at_ < words_.size() ? words_[at_++] : std::string(); }

    /// Reads the word if it is the next one.
    bool skip(const std::string& word) {
        if (peek() != word) {
            return false;
        }
        ++at_;
        return true;
    }

    void unread() {
        if (conditions_.find(kUnread) == std::string::npos) {
            conditions_ += kUnread;
        }
    }

    void read(const std::string& word) {
        if (word == "iifname" || word == "iif") {
            readInterface();
        } else if (word == "icmp" || word == "icmpv6") {
            protocol_ = word;
            unread();
        } else if (word == "ip" || word == "ip6") {
            forFamily_ = forFamily_ && (word == "ip6") == ipv6_;
            readAddress(next());
        } else if (word == "tcp" || word == "udp" || word == "th") {
            readPorts(word, next());
        } else if (word == "meta") {
            readMeta(next());
        } else if (word == "fib" && skip("daddr") && skip("type") && (skip("2") || skip("local"))) {
            conditions_ += " -m addrtype --dst-type LOCAL";
        } else if (word == "ct" && skip("state")) {
            if (skip("vmap")) {
                readVerdicts(next(), true);
            } else {
                readStates(next());
            }
        } else if (word == "counter") {
            (void)(skip("packets") && !next().empty());
            (void)(skip("bytes") && !next().empty());
        } else if (word == "comment") {
            (void)next();
        } else if (word == "log") {
            readLog();
        } else {
            readVerdict(word);
        }
    }

    void readLog() {
        while (peek() == "prefix" || peek() == "level" || peek() == "group" || peek() == "flags") {
            (void)next();
            (void)next();
        }
    }

    std::string negation() { return skip("!=") ? " !" : ""; }

    /// Whether a value is not one alone: a set, or the begin of several fields joined by ".".
    static bool isSet(const std::string& value) {
        return value.empty() || value == "." || value.front() == '{' || value.front() == '@';
    }

    void readInterface() {
        const std::string negated = negation();
        if (isMap()) {
            return;
        }
        const std::string name = next();
        if (isSet(name) || std::isdigit(static_cast<unsigned char>(name.front())) != 0) {
            unread();  // also the number of an interface
        } else {
            conditions_ += negated + " -i " + boost::replace_all_copy(name, "*", "+");
        }
    }

    void readAddress(const std::string& field) {
        const std::string negated = negation();
        if (isMap()) {
            return;
        }
        const std::string value = next();
        if (field == "protocol" || field == "nexthdr") {
            readProtocol(negated, value);
        } else if ((field == "saddr" || field == "daddr") && !isSet(value) &&
                   value.find('-') == std::string::npos) {
            conditions_ += negated + (field == "saddr" ? " -s " : " -d ") + value;
        } else {
            unread();
        }
    }

    void readProtocol(const std::string& negated, const std::string& value) {
        if (isSet(value) || !negated.empty()) {
            unread();
        } else {
            protocol_ = value;
        }
    }

    void readMeta(const std::string& field) {
        if (field == "l4proto") {
            const std::string negated = negation();
            if (!isMap()) {
                readProtocol(negated, next());
            }
        } else if (field == "nfproto" && (peek() == "ipv4" || peek() == "ipv6")) {
            forFamily_ = forFamily_ && (next() == "ipv6") == ipv6_;
        } else if (skip("set")) {
            (void)next();  // a mark
        } else {
            unread();
        }
    }

    void readPorts(const std::string& protocol, const std::string& field) {
        if (protocol != "th") {
            protocol_ = protocol;
        }
        const std::string negated = negation();
        if (isMap()) {
            return;
        }
        std::string value = next();
        if ((field != "dport" && field != "sport") || value == "." || value.empty() ||
            value.front() == '@') {
            unread();
            return;
        }
        boost::erase_all(value, "{");
        boost::erase_all(value, "}");
        boost::erase_all(value, " ");
        boost::replace_all(value, "-", ":");
        ports_ += negated + (field == "dport" ? " --dports " : " --sports ") + value;
    }

    /// A state of packets that open no connection in the words of iptables; empty for others.
    static std::string stateFrom(const std::string& name) {
        return name == "established" || name == "0x2" ? "ESTABLISHED"
               : name == "related" || name == "0x4"   ? "RELATED"
               : name == "invalid" || name == "0x1"   ? "INVALID"
                                                      : "";
    }

    void readStates(const std::string& states) {
        std::istringstream names(boost::replace_all_copy(states, ",", " "));
        Words read;
        for (std::string name; names >> name;) {
            read.push_back(stateFrom(name));
            if (read.back().empty()) {
                unread();
                return;
            }
        }
        conditions_ += " -m conntrack --ctstate " + boost::join(read, ",");
    }

    /// Whether the last words were the key of a map of verdicts, which is then read.
    bool isMap() {
        if (!skip("vmap")) {
            return false;
        }
        readVerdicts(next());
        return true;
    }

    /// "{ 80 : jump published, 81 : drop }", or "@published", whose verdicts are not shown.
    void readVerdicts(const std::string& map, bool ofStates = false) {
        unread();
        if (map.empty() || map.front() == '@') {
            goesAnywhere_ = true;
            targets_.emplace_back("-j @");
            return;
        }
        Words words;
        boost::split(words, map, boost::is_any_of("{}, "), boost::token_compress_on);
        for (std::size_t i = 1; i + 1 < words.size(); ++i) {
            if (words[i] != ":" || (ofStates && !stateFrom(words[i - 1]).empty())) {
                continue;
            }
            const std::string& verdict = words[i + 1];
            if (verdict == "drop" || verdict == "accept") {
                targets_.emplace_back(verdict == "drop" ? "-j DROP" : "-j ACCEPT");
            } else if ((verdict == "jump" || verdict == "goto") && i + 2 < words.size()) {
                targets_.push_back(std::string("-j ") + kChainMark + words[i + 2]);
            }
        }
    }

    void readVerdict(const std::string& word) {
        if (word == "vmap") {
            readVerdicts(next());
        } else if (word == "jump" || word == "goto") {
            targets_.push_back((word == "jump" ? "-j " : "-g ") + (kChainMark + next()));
        } else if (word == "dnat") {
            readDnat();
        } else if (word == "redirect") {
            readRedirect();
        } else if (word == "reject" || word == "queue") {
            targets_.emplace_back(word == "reject" ? "-j REJECT" : "-j NFQUEUE");
            at_ = words_.size();
        } else if (word == "accept" || word == "drop" || word == "return") {
            targets_.push_back(word == "accept" ? "-j ACCEPT"
                               : word == "drop" ? "-j DROP"
                                                : "-j RETURN");
        } else {
            unread();
        }
    }

    void readDnat() {
        if (peek() == "ip" || peek() == "ip6") {
            forFamily_ = forFamily_ && (next() == "ip6") == ipv6_;
        }
        const std::string target = skip("to") ? next() : "";
        const bool last = at_ == words_.size() || isFlag(peek());
        const bool isAddress =
            !target.empty() &&
            (std::isdigit(static_cast<unsigned char>(target.front())) != 0 ||
             target.front() == '[' || target.front() == ':' || addressFrom(target).has_value());
        targets_.push_back(last && isAddress ? "-j DNAT --to-destination " + target
                                             : "-j DNAT --to-destination \"an address of a map\"");
        at_ = words_.size();
    }

    void readRedirect() {
        const std::string target = skip("to") ? next() : "";
        const bool isPort = target.size() > 1 && target.front() == ':' &&
                            portSpanFrom(target.substr(1)).has_value();
        targets_.push_back(isPort ? "-j REDIRECT --to-ports " + target.substr(1) : "-j REDIRECT");
        at_ = words_.size();
    }

    static bool isFlag(const std::string& word) {
        return word == "random" || word == "persistent" || word == "fully-random" ||
               boost::starts_with(word, "random,") || word == "comment";
    }

    Words words_;
    std::size_t at_ = 0;
    bool ipv6_;
    bool forFamily_ = true;
    std::string conditions_;
    std::string protocol_;
    std::string ports_;
    Words targets_;
    bool goesAnywhere_ = false;
};

/// A rule as people see it: without its counter.
std::string shown(const NftTable& table, const std::string& chain, const std::string& rule) {
    std::string text = "table " + table.first + " " + table.second + " chain " + chain + ":";
    std::istringstream words(rule);
    for (std::string word; words >> word;) {
        if (word == "packets" || word == "bytes") {
            words >> word;
        } else if (word != "counter") {
            text += " " + word;
        }
    }
    return text;
}

}  // namespace

HookTable hookTableFrom(const std::string& text, const NftTable& table, const std::string& family) {
    HookTable result;
    Words anywhere;  // the rules that go to chains which are not shown
    std::string chain;
    std::size_t number = 0;
    const auto add = [&](const std::string& line, const std::string& rule) {
        // With its number: two rules may be the same in the words of iptables.
        const std::string start =
            "-A " + (kChainMark + chain) + " -m comment --comment " + std::to_string(++number);
        result.rules.chains[kChainMark + chain].push_back(start + line);
        result.texts[start + line] = shown(table, chain, rule);
        return start + line;
    };
    std::set<std::string> others;
    for (const std::string& line : linesOf(text)) {
        const std::string name = nameIn(line, "chain");
        if (!name.empty()) {
            chain = name;
            result.rules.chains[kChainMark + chain];
            others.insert(chain);
        } else if (line == "}") {
            chain.clear();
        } else if (chain.empty() && line == "flags dormant") {
            return HookTable();  // no packet meets it
        } else if (chain.empty() || line.empty() || boost::starts_with(line, "comment ")) {
            continue;
        } else if (boost::starts_with(line, "type ")) {
            others.erase(chain);
            if (const auto entrance = entranceFrom(kChainMark + chain, wordsOf(line))) {
                result.entrances.push_back(*entrance);
            }
            const bool drops = boost::ends_with(line, "policy drop;");
            result.rules.policies[kChainMark + chain] = drops ? "DROP" : "ACCEPT";
            result.texts["-P " + (kChainMark + chain) + " DROP"] =
                shown(table, chain, "policy drop");
        } else {
            const Translation rule(line, family);
            if (!rule.isForFamily()) {
                continue;
            }
            for (const std::string& target : rule.targets()) {
                (void)add(rule.conditions() + " " + target, line);
            }
            if (rule.goesAnywhere()) {
                anywhere.push_back(add(rule.conditions(), line));
            }
        }
    }
    for (const std::string& start : anywhere) {
        for (auto& [unused, rules] : result.rules.chains) {
            const auto found = std::find(rules.begin(), rules.end(), start);
            if (found == rules.end()) {
                continue;
            }
            Words jumps;
            for (const std::string& other : others) {
                jumps.push_back(start + " -j " + (kChainMark + other));
                result.texts[jumps.back()] = result.texts[start];
            }
            rules.insert(rules.erase(found), jumps.begin(), jumps.end());
            break;
        }
    }
    return result;
}

}  // namespace tarnfw
