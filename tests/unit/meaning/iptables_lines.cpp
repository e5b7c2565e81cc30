#include "iptables_lines.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <sstream>

#include "tarnfirewall/fwIptables.h"

namespace {

using Texts = std::vector<std::string>;

Texts split(const std::string& text, char separator) {
    Texts parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

Texts wordsOf(const std::string& line) {
    Texts words = split(line, ' ');
    words.erase(std::remove(words.begin(), words.end(), ""), words.end());
    return words;
}

// ---- Addresses ----

std::optional<Bytes> bytesFrom(const std::string& text, bool ipv6) {
    Bytes bytes{};
    if (inet_pton(ipv6 ? AF_INET6 : AF_INET, text.c_str(), bytes.data()) != 1) {
        return std::nullopt;
    }
    return bytes;
}

struct Masked {
    Bytes address;
    Bytes mask;

    bool has(const Bytes& other) const {
        for (std::size_t i = 0; i < other.size(); ++i) {
            if ((address[i] & mask[i]) != (other[i] & mask[i])) {
                return false;
            }
        }
        return true;
    }
};

std::optional<Masked> maskedFrom(const std::string& text, bool ipv6) {
    const std::size_t slash = text.find('/');
    const std::size_t length = ipv6 ? 128 : 32;
    Masked masked{};
    std::size_t prefix = length;
    if (slash != std::string::npos) {
        const std::string after = text.substr(slash + 1);
        if (const auto mask = bytesFrom(after, ipv6)) {
            masked.mask = *mask;
            prefix = 0;
        } else if (after.empty() || after.find_first_not_of("0123456789") != std::string::npos ||
                   std::atoi(after.c_str()) > static_cast<int>(length)) {
            return std::nullopt;
        } else {
            prefix = static_cast<std::size_t>(std::atoi(after.c_str()));
        }
    }
    for (std::size_t bit = 0; bit < prefix; ++bit) {
        masked.mask[bit / 8] = static_cast<std::uint8_t>(masked.mask[bit / 8] | 0x80 >> bit % 8);
    }
    const auto address = bytesFrom(text.substr(0, slash), ipv6);
    if (!address) {
        if (masked.mask == Bytes{}) {
            return masked;  // any address, whatever is before "/0"
        }
        return std::nullopt;
    }
    masked.address = *address;
    return masked;
}

/// The next address up or down; wraps around.
Bytes neighbour(Bytes bytes, bool ipv6, int step) {
    for (int i = ipv6 ? 15 : 3; i >= 0; --i) {
        std::uint8_t& byte = bytes[static_cast<std::size_t>(i)];
        byte = static_cast<std::uint8_t>(byte + step);
        if (byte != (step > 0 ? 0 : 255)) {
            break;
        }
    }
    return bytes;
}

void appendEdges(const ByteRange& range, bool ipv6, std::vector<Bytes>& edges) {
    edges.push_back(range.first);
    edges.push_back(range.second);
    edges.push_back(neighbour(range.first, ipv6, -1));
    edges.push_back(neighbour(range.second, ipv6, +1));
}

ByteRange rangeOf(const Masked& masked, bool ipv6) {
    ByteRange range;
    for (std::size_t i = 0; i < (ipv6 ? 16U : 4U); ++i) {
        range.first[i] = masked.address[i] & masked.mask[i];
        range.second[i] = static_cast<std::uint8_t>(range.first[i] | ~masked.mask[i]);
    }
    return range;
}

// ---- Ports ----

std::optional<int> portFrom(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        std::atoi(text.c_str()) > 65535) {
        return std::nullopt;
    }
    return std::atoi(text.c_str());
}

// ---- Lines ----

/// Reads one line word by word.
class Reader {
public:
    Reader(Line& line, bool ipv6, const CountryRanges& countries)
        : line_(line), ipv6_(ipv6), countries_(countries), words_(wordsOf(line.text)) {}

    void read() {
        while (at_ < words_.size() && !line_.refused) {
            readOption();
        }
    }

private:
    std::string next() {
        if (at_ < words_.size()) {
            return words_[at_++];
        }
        line_.refused = true;
        return "";
    }

    void require(bool valid) { line_.refused = line_.refused || !valid; }

    void readOption() {
        const std::string option = next();
        if (option == "-t") {
            require(next() == "filter");
        } else if (option == "-A") {
            line_.chain = next();
        } else if (option == "-m") {
            next();
        } else if (option == "!") {
            negated_ = true;
        } else if (option == "-i" || option == "-o") {
            readInterface(option == "-i");
        } else if (option == "-s" || option == "-d") {
            readAddresses(option == "-s");
        } else if (option == "--src-range" || option == "--dst-range") {
            readRange(option == "--src-range");
        } else if (option == "--source-country" || option == "--destination-country") {
            readCountries(option == "--source-country");
        } else if (option == "-p") {
            readProtocol();
        } else if (option == "--sport" || option == "--dport") {
            readPorts(option == "--sport", {next()});
        } else if (option == "--sports" || option == "--dports") {
            readPorts(option == "--sports", split(next(), ','));
        } else if (option == "--icmpv6-type") {
            readIcmpType();
        } else if (option == "--state") {
            const Texts states = split(next(), ',');
            line_.matches.emplace_back([states](const LinePacket& packet) {
                return std::find(states.begin(), states.end(), packet.state) != states.end();
            });
        } else if (option == "-j") {
            line_.target = next();
        } else {
            require(false);
        }
    }

    void readInterface(bool incoming) {
        std::string name = next();
        (incoming ? line_.in : line_.out) = name;
        const bool isBeginning = name.back() == '+';
        if (isBeginning) {
            name.pop_back();
        }
        line_.matches.emplace_back([=](const LinePacket& packet) {
            const std::string& actual = incoming ? packet.in : packet.out;
            return isBeginning ? actual.compare(0, name.size(), name) == 0 : actual == name;
        });
    }

    void addAddressMatch(bool source, std::function<bool(const Bytes&)> has) {
        const bool negated = negated_;
        negated_ = false;
        line_.matches.emplace_back([=](const LinePacket& packet) {
            return has(source ? packet.source : packet.destination) != negated;
        });
    }

    std::vector<Bytes>& edgesOf(bool source) { return source ? line_.sources : line_.destinations; }

    void readAddresses(bool source) {
        std::vector<Masked> all;
        for (const std::string& text : split(next(), ',')) {
            const auto masked = maskedFrom(text, ipv6_);
            require(masked.has_value());
            if (masked) {
                all.push_back(*masked);
                appendEdges(rangeOf(*masked, ipv6_), ipv6_, edgesOf(source));
            }
        }
        addAddressMatch(source, [all](const Bytes& address) {
            return std::any_of(all.begin(), all.end(),
                               [&](const Masked& masked) { return masked.has(address); });
        });
    }

    void readRange(bool source) {
        const std::string text = next();
        const std::size_t dash = text.find('-');
        const auto first = bytesFrom(text.substr(0, dash), ipv6_);
        const auto last = bytesFrom(text.substr(dash + 1), ipv6_);
        require(first && last);
        if (!line_.refused) {
            addRanges(source, {{*first, *last}});
        }
    }

    void addRanges(bool source, const std::vector<ByteRange>& ranges) {
        for (const ByteRange& range : ranges) {
            appendEdges(range, ipv6_, edgesOf(source));
        }
        addAddressMatch(source, [ranges](const Bytes& address) {
            return std::any_of(ranges.begin(), ranges.end(), [&](const ByteRange& range) {
                return range.first <= address && address <= range.second;
            });
        });
    }

    void readCountries(bool source) {
        std::vector<ByteRange> all;
        for (const std::string& code : split(next(), ',')) {
            const auto found = countries_.find({code, ipv6_ ? 1 : 0});
            ASSERT_NE(found, countries_.end()) << line_.text;
            all.insert(all.end(), found->second.begin(), found->second.end());
        }
        addRanges(source, all);
    }

    void readProtocol() {
        static const std::map<std::string, int> kNumbers = {
            {"tcp", 6}, {"udp", 17}, {"icmp", 1}, {"icmpv6", 58}, {"igmp", 2}};
        const std::string name = next();
        const auto known = kNumbers.find(name);
        const int number = known != kNumbers.end() ? known->second : std::atoi(name.c_str());
        line_.protocols.push_back(number);
        // "never matched protocol: ah": an extension header of IPv6.
        const bool never = ipv6_ && number == 51;
        line_.matches.emplace_back(
            [=](const LinePacket& packet) { return packet.protocol == number && !never; });
    }

    void readPorts(bool source, const Texts& entries) {
        std::vector<std::pair<int, int>> ranges;
        for (const std::string& entry : entries) {
            const std::size_t colon = entry.find(':');
            const auto first = portFrom(entry.substr(0, colon));
            const auto last =
                colon == std::string::npos ? first : portFrom(entry.substr(colon + 1));
            require(first && last && (colon == std::string::npos ? true : *first < *last));
            if (line_.refused) {
                return;
            }
            ranges.emplace_back(*first, *last);
            for (const int edge : {*first - 1, *first, *last, *last + 1}) {
                if (edge >= 0 && edge <= 65535) {
                    (source ? line_.sourcePorts : line_.destinationPorts).push_back(edge);
                }
            }
        }
        line_.matches.emplace_back([=](const LinePacket& packet) {
            const int port = source ? packet.sourcePort : packet.destinationPort;
            return std::any_of(ranges.begin(), ranges.end(), [port](const auto& range) {
                return range.first <= port && port <= range.second;
            });
        });
    }

    void readIcmpType() {
        static const std::map<std::string, int> kTypes = {{"router-solicitation", 133},
                                                          {"router-advertisement", 134},
                                                          {"neighbour-solicitation", 135},
                                                          {"neighbour-advertisement", 136},
                                                          {"137", 137}};
        const int type = kTypes.at(next());
        line_.icmpTypes = {type - 1, type, type + 1};
        line_.matches.emplace_back(
            [type](const LinePacket& packet) { return packet.icmpType == type; });
    }

    Line& line_;
    bool ipv6_;
    const CountryRanges& countries_;
    Texts words_;
    std::size_t at_ = 0;
    bool negated_ = false;
};

/// Lists of lines by family and adapter, with the place of each.
class Tracer {
public:
    Tracer(bool batch, const CountryRanges& countries) : batch_(batch), countries_(countries) {
        translate({}, {}, fixed_);
        add(fixed_, "", 0, /*skipFixed=*/false);
    }

    void add(const std::map<std::string, std::vector<FW::FWRULE>>& rules,
             const std::map<std::string, FW::FW_POLICY>& policies, const std::string& adapter,
             int position) {
        Json::Value piece;
        translate(rules, policies, piece);
        add(piece, adapter, position, /*skipFixed=*/true);
    }

    FamilyLines lines() const {
        FamilyLines all;
        for (std::size_t family = 0; family < 2; ++family) {
            const auto& adapters = lists_[family];
            const auto global = adapters.find("global");
            all[family] = global->second;
            for (const auto& [adapter, list] : adapters) {
                if (adapter != "global") {
                    all[family].insert(all[family].end(), list.begin(), list.end());
                }
            }
        }
        return all;
    }

    void translate(const std::map<std::string, std::vector<FW::FWRULE>>& rules,
                   const std::map<std::string, FW::FW_POLICY>& policies, Json::Value& out) {
        EXPECT_TRUE(batch_ ? translator_.fwRulesToBatchRules(true, rules, policies, out, "")
                           : translator_.fwRulesToIptablesRules(true, rules, policies, out));
    }

private:
    void add(const Json::Value& piece, const std::string& adapter, int position, bool skipFixed) {
        for (const bool ipv6 : {false, true}) {
            const char* const key = ipv6 ? "v6" : "v4";
            for (const std::string& list : piece[key].getMemberNames()) {
                const Json::ArrayIndex first =
                    skipFixed && list == "global" ? fixed_[key][list].size() : 0;
                for (Json::ArrayIndex i = first; i < piece[key][list].size(); ++i) {
                    Line line;
                    line.text = piece[key][list][i].asString();
                    line.adapter = adapter;
                    line.position = position;
                    Reader(line, ipv6, countries_).read();
                    lists_[ipv6 ? 1 : 0][list].push_back(std::move(line));
                }
            }
        }
    }

    bool batch_;
    const CountryRanges& countries_;
    FW::TARNFW_IPTABLES_RULES translator_;
    Json::Value fixed_;
    std::array<std::map<std::string, std::vector<Line>>, 2> lists_;
};

/// The texts of a family's lines, "global" first.
Texts textsOf(const Json::Value& family) {
    Texts texts;
    const auto append = [&](const Json::Value& list) {
        for (const Json::Value& line : list) {
            texts.push_back(line.asString());
        }
    };
    append(family["global"]);
    for (const std::string& adapter : family.getMemberNames()) {
        if (adapter != "global") {
            append(family[adapter]);
        }
    }
    return texts;
}

Texts textsOf(const std::vector<Line>& lines) {
    Texts texts;
    for (const Line& line : lines) {
        texts.push_back(line.text);
    }
    return texts;
}

}  // namespace

FamilyLines linesOfProfile(const FW::FWPROFILE& profile, bool batch,
                           const CountryRanges& countries) {
    Tracer tracer(batch, countries);
    std::map<std::string, int> adapters;
    for (const auto& [adapter, rules] : profile.rules) {
        adapters[adapter] = static_cast<int>(rules.size());
    }
    for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
        adapters[adapter];
    }
    for (const auto& [adapter, count] : adapters) {
        for (int i = 0; i < count; ++i) {
            const FW::FWRULE& rule = profile.rules.at(adapter)[static_cast<std::size_t>(i)];
            tracer.add({{adapter, {rule}}}, {}, adapter, i + 1);
        }
        const auto policy = profile.adapterPolicyMap.find(adapter);
        if (policy != profile.adapterPolicyMap.end()) {
            tracer.add({}, {{adapter, policy->second}}, adapter, 0);
        }
    }
    FamilyLines lines = tracer.lines();
    Json::Value whole;
    tracer.translate(profile.rules, profile.adapterPolicyMap, whole);
    EXPECT_EQ(textsOf(lines[0]), textsOf(whole["v4"]));
    EXPECT_EQ(textsOf(lines[1]), textsOf(whole["v6"]));
    return lines;
}

LineVerdict decideByLines(const FamilyLines& lines, const LinePacket& packet) {
    LineVerdict verdict;
    const std::string chain = packet.forward ? "FORWARD_FIREWALL" : "INPUT_FIREWALL";
    for (const Line& line : lines[packet.ipv6 ? 1 : 0]) {
        if (line.refused || line.chain != chain ||
            !std::all_of(line.matches.begin(), line.matches.end(),
                         [&](const auto& matches) { return matches(packet); })) {
            continue;
        }
        if (line.target == "LOG") {
            verdict.logged = true;
            continue;
        }
        verdict.target = line.target;
        verdict.decider = &line;
        break;
    }
    return verdict;
}
