#include "random_profile.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>

namespace {

using FW::FWRULE;
using Texts = std::vector<std::string>;

const Texts kAddresses4 = {"10.0.0.0",        "10.0.0.1",       "10.0.0.255",  "10.1.2.3",
                           "10.3.0.0",        "10.255.255.255", "192.168.1.7", "0.0.0.0",
                           "255.255.255.255", "172.16.5.4"};
const Texts kMasks4 = {"8",
                       "9",
                       "16",
                       "24",
                       "30",
                       "31",
                       "32",
                       "0",
                       "255.0.0.0",
                       "255.255.0.255",
                       "255.0.255.0",
                       "0.255.255.255",
                       "255.255.255.253"};
const Texts kAddresses6 = {"2001:db8::",  "2001:db8::1", "2001:db8:1::5",
                           "fe80::1",     "::",          "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
                           "2001:db8::ff"};
const Texts kMasks6 = {"10",  "32",  "33", "48",     "64",
                       "127", "128", "0",  "ffff::", "ffff:f00f:ffff::"};
const Texts kPorts = {"0",   "1",         "22",          "80",     "80-80", "79-81",
                      "443", "1024-2047", "1000-65535",  "0-1023", "65535", "0-65535",
                      "53",  "6000-6010", "65534-65535", "8080"};
const Texts kWrong = {"", "10.0.0.256", "nowhere", "1::2::3", "10.0.0.1/33"};

FWRULE makeRule(Random& random) {
    FWRULE rule;
    rule.enable = pick(random, 15) != 0;
    rule.adapterDirect = pick(random, 5) == 0 ? 0 : 1;
    rule.policy = pick(random, 20) == 0  ? FW::FW_POLICY_NONE
                  : pick(random, 2) == 0 ? FW::FW_POLICY_ALLOW
                                         : FW::FW_POLICY_DENY;
    rule.blLog = pick(random, 5) == 0;
    if (pick(random, 6) == 0) {
        rule.chainList = {pick(random, 2) == 0 ? "INPUT_FIREWALL" : "FORWARD_FIREWALL"};
    }
    rule.ipType = pick(random, 3);
    rule.ipDirect = pick(random, 3) == 0 ? 0 : 1;
    rule.ipGroup = pick(random, 8);
    if (rule.ipGroup > 5) {
        rule.ipGroup = 5;
    }
    const bool ipv6 = rule.ipType == 1 || (rule.ipType == 2 && pick(random, 2) == 0);
    const Texts& addresses = ipv6 ? kAddresses6 : kAddresses4;
    switch (rule.ipGroup) {
        case 0:
        case 1:
            // An address is for one family; of a rule for both, half of the lines are refused.
            if (pick(random, 10) != 0) {
                rule.ipType = ipv6 ? 1 : 0;
            }
            rule.ipList = {oneOf(random, addresses)};
            if (pick(random, 8) == 0) {
                rule.ipList[0] += "," + oneOf(random, addresses);
            }
            if (rule.ipGroup == 1) {
                rule.ipList.push_back(oneOf(random, ipv6 ? kMasks6 : kMasks4));
            }
            break;
        case 3:
            rule.ipList = {"AA", "BB", "CC", "XX"};
            rule.ipList.resize(static_cast<std::size_t>(1 + pick(random, 4)));
            break;
        case 4:
            rule.ipType = ipv6 ? 1 : 0;
            rule.ipList = {oneOf(random, addresses), oneOf(random, addresses)};
            break;
        default:
            break;
    }
    if (rule.ipGroup < 2 && pick(random, 40) == 0) {
        rule.ipList = {oneOf(random, kWrong), "8"};
    }
    rule.portDirect = pick(random, 4) == 0 ? 1 : 0;
    rule.portGroup = pick(random, 5);
    static const int kProtocols[] = {1, 1, 2, 2, 3, 3, 4, 32, 7};
    rule.protocol = kProtocols[pick(random, 9)];
    if (rule.portGroup == 1) {
        const int count = pick(random, 4) == 0 ? pick(random, 12) : pick(random, 3);
        for (int i = 0; i < count; ++i) {
            rule.portList.push_back(pick(random, 40) == 0 ? "90-80" : oneOf(random, kPorts));
        }
    } else {
        static const Texts kServices = {
            "ssh", "web", "vpn_server_pptp", "vpn_server_ipsec", "hidden", "unknown", "from"};
        for (int i = pick(random, 3); i > 0; --i) {
            rule.portList.push_back(oneOf(random, kServices));
        }
    }
    return rule;
}

Bytes randomBytes(Random& random) {
    Bytes bytes;
    for (std::uint8_t& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
    return bytes;
}

Bytes randomAddress(Random& random, bool ipv6) {
    Bytes bytes{};
    if (pick(random, 3) == 0) {
        const Texts& addresses = ipv6 ? kAddresses6 : kAddresses4;
        inet_pton(ipv6 ? AF_INET6 : AF_INET, oneOf(random, addresses).c_str(), bytes.data());
        return bytes;
    }
    bytes = randomBytes(random);
    if (!ipv6) {
        std::fill(bytes.begin() + 4, bytes.end(), std::uint8_t(0));
    }
    return bytes;
}

}  // namespace

int countOf(int shortRun, int longRun) {
#ifdef TARN_SLOW
    shortRun /= 10;
#endif
    return std::getenv("TARN_LONG") != nullptr ? longRun : shortRun;
}

void tellCompared(int profiles, std::int64_t count, const std::string& what) {
    std::cout << "compared: " << profiles << " profiles, " << count << " " << what << '\n';
}

// ---- Countries ----

TestCountries::TestCountries(unsigned seed, int ranges) {
    Random random(seed);
    for (const char* const code : {"AA", "BB", "CC"}) {
        for (const int family : {0, 1}) {
            if (std::string(code) == "CC" && family == 1) {
                continue;  // a country without data for IPv6
            }
            std::vector<Bytes> ends;
            for (int i = 0; i < 2 * ranges; ++i) {
                ends.push_back(randomAddress(random, family == 1));
                if (i % 5 == 0) {  // shorter than what the random profiles' networks have
                    ends.back()[0] = family == 1 ? 0x20 : 10;
                }
            }
            std::sort(ends.begin(), ends.end());
            for (std::size_t i = 0; i + 1 < ends.size(); i += 2) {
                ranges_[{code, family}].emplace_back(ends[i], ends[i + 1]);
            }
        }
    }
    for (const auto& [key, list] : ranges_) {
        std::vector<FW::FWADDRESSINTERVAL> intervals;
        for (const ByteRange& range : list) {
            intervals.push_back({addressOf(range.first), addressOf(range.second)});
            if (key.second == 0) {
                intervals.back().last.high |= 0xffffffff;
                intervals.back().last.low = ~std::uint64_t(0);
            }
        }
        lists_[key] = std::make_shared<FW::FWADDRESSES>(FW::fwAddressesFrom(intervals));
    }
}

std::shared_ptr<const FW::FWADDRESSES> TestCountries::find(const std::string& country,
                                                           FW::FW_FAMILY family) const {
    const auto found = lists_.find({country, family});
    return found == lists_.end() ? nullptr : found->second;
}

std::map<std::string, std::string> TestCountries::files() const {
    std::map<std::string, std::string> files;
    for (const auto& [key, ranges] : ranges_) {
        std::string& content = files[key.first + (key.second == 0 ? ".iv4" : ".iv6")];
        for (const ByteRange& range : ranges) {
            for (const Bytes& end : {range.first, range.second}) {
                for (std::size_t word = 0; word < (key.second == 0 ? 1U : 4U); ++word) {
                    std::uint32_t number = 0;
                    std::memcpy(&number, end.data() + 4 * word, sizeof(number));
                    number = ntohl(number);
                    content.append(reinterpret_cast<const char*>(&number), sizeof(number));
                }
            }
        }
    }
    return files;
}

// ---- Profiles ----

FW::FWPROFILE makeProfile(Random& random, int rules, const Texts& adapters) {
    FW::FWPROFILE profile;
    profile.name = "random";
    for (const std::string& adapter : adapters) {
        if (pick(random, 3) == 0) {
            continue;
        }
        for (int i = pick(random, rules + 1); i > 0; --i) {
            profile.rules[adapter].push_back(makeRule(random));
        }
        if (pick(random, 4) != 0) {
            profile.adapterPolicyMap[adapter] = adapter == "global" || pick(random, 5) == 0
                                                    ? FW::FW_POLICY_NONE
                                                : pick(random, 2) == 0 ? FW::FW_POLICY_ALLOW
                                                                       : FW::FW_POLICY_DENY;
        }
    }
    return profile;
}

// ---- Packets ----

LinePacket makePacket(Random& random, const FamilyLines& lines, const Texts& interfaces) {
    LinePacket packet;
    packet.ipv6 = pick(random, 2) == 0;
    packet.forward = pick(random, 2) == 0;
    const std::vector<Line>& family = lines[packet.ipv6 ? 1 : 0];
    const Line& line = oneOf(random, family);
    const auto near = [&](const auto& edges, auto otherwise) {
        return edges.empty() || pick(random, 6) == 0 ? otherwise : oneOf(random, edges);
    };
    const auto name = [&](const std::string& wanted) {
        return wanted.empty() || wanted.back() == '+' || pick(random, 8) == 0
                   ? oneOf(random, interfaces)
                   : wanted;
    };
    packet.in = name(line.in);
    packet.out = packet.forward ? name(line.out) : "";
    packet.source = near(line.sources, randomAddress(random, packet.ipv6));
    packet.destination = near(line.destinations, randomAddress(random, packet.ipv6));
    static const std::vector<int> kProtocols = {6, 6, 6, 17, 17, 1, 58, 2, 47, 50, 51, 0, 255, 132};
    packet.protocol = near(line.protocols, oneOf(random, kProtocols));
    static const std::vector<int> kPortEdges = {0,   21,  22,   23,   79,   80,    81,
                                                443, 999, 1000, 1024, 8080, 65534, 65535};
    packet.sourcePort = near(line.sourcePorts, oneOf(random, kPortEdges));
    packet.destinationPort = near(line.destinationPorts, oneOf(random, kPortEdges));
    packet.icmpType = near(line.icmpTypes, pick(random, 256));
    static const Texts kStates = {"NEW", "NEW",     "NEW",     "NEW",       "NEW",
                                  "NEW", "INVALID", "RELATED", "UNTRACKED", "ESTABLISHED"};
    packet.state = oneOf(random, kStates);
    return packet;
}

FW::FWADDRESS addressOf(const Bytes& bytes) {
    FW::FWADDRESS address;
    for (std::size_t i = 0; i < 8; ++i) {
        address.high = address.high << 8 | bytes[i];
        address.low = address.low << 8 | bytes[i + 8];
    }
    return address;
}

FW::FWPACKET packetOf(const LinePacket& packet) {
    static const std::map<std::string, FW::FW_STATE> kStates = {
        {"NEW", FW::FW_STATE_NEW},
        {"ESTABLISHED", FW::FW_STATE_ESTABLISHED},
        {"RELATED", FW::FW_STATE_RELATED},
        {"INVALID", FW::FW_STATE_INVALID},
        {"UNTRACKED", FW::FW_STATE_UNTRACKED}};
    FW::FWPACKET same;
    same.chain = packet.forward ? FW::FW_CHAIN_FORWARD : FW::FW_CHAIN_INPUT;
    same.family = packet.ipv6 ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4;
    same.in = packet.in;
    if (packet.forward) {
        same.out = packet.out;
    }
    same.protocol = static_cast<std::uint8_t>(packet.protocol);
    same.source = addressOf(packet.source);
    same.destination = addressOf(packet.destination);
    same.sourcePort = static_cast<std::uint16_t>(packet.sourcePort);
    same.destinationPort = static_cast<std::uint16_t>(packet.destinationPort);
    same.icmpType = static_cast<std::uint8_t>(packet.icmpType);
    same.state = kStates.at(packet.state);
    return same;
}

std::string textOf(const LinePacket& packet) {
    const auto address = [&](const Bytes& bytes) {
        char text[INET6_ADDRSTRLEN] = {};
        inet_ntop(packet.ipv6 ? AF_INET6 : AF_INET, bytes.data(), text, sizeof(text));
        return std::string(text);
    };
    std::ostringstream text;
    text << (packet.forward ? "forward" : "input") << " in " << packet.in << " out " << packet.out
         << " protocol " << packet.protocol << " from " << address(packet.source) << " port "
         << packet.sourcePort << " to " << address(packet.destination) << " port "
         << packet.destinationPort << " type " << packet.icmpType << " " << packet.state;
    return text.str();
}

std::string textOf(const FamilyLines& lines) {
    std::string text;
    for (const std::vector<Line>& family : lines) {
        for (const Line& line : family) {
            text += "\n" + line.adapter + " " + std::to_string(line.position) + ": " + line.text +
                    (line.refused ? "  (refused)" : "");
        }
    }
    return text;
}
