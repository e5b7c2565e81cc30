/// Compares the meaning of random profiles with what the kernel does to packets:
///
///     meaning_probe SEED COUNT
///
/// Puts each profile into the kernel, sends packets at the edges of its rules through the chains,
/// to this machine and through it, and sees which of them arrive: those of the verdict "drop" must
/// not, all others must. Of these only the accepted ones may arrive where rules of others, after
/// the firewall's chains, drop the rest.
///
/// Needs a network namespace of its own, with the base filter, and makes links there: TUN devices,
/// into which packets are written and from which forwarded ones are read. What is for the machine
/// is read from raw sockets. Routes by the type of service say which packets are which.
///
/// The countries have a few ranges. Where the kernel has no match for countries, a line with one
/// goes into it as a line for each of their ranges.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "tarnfirewall/fwBatch.h"
#include "tarnfirewall/fwEnvironment.h"
#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/tarnFW.h"

#include "tarnfwadmin/descriptor.h"

#include "iptables_lines.h"
#include "random_profile.h"

namespace {

using tarnfw::Descriptor;
using Texts = std::vector<std::string>;
using Packet = std::vector<std::uint8_t>;

constexpr int kPackets = 1500;  // of a profile
constexpr int kAtOnce = 32;     // before what arrived is read

constexpr unsigned kCountrySeed = 9;
constexpr int kCountryRanges = 3;  // of a country: each is a process in apply mode "lines"

/// What a packet ends with: this, and its number.
constexpr std::uint32_t kMark = 0x7a8b9cad;

/// The packets of this length are those whose connections are tracked.
constexpr std::size_t kTrackedBytes = 200;

const Texts kLinks = {"eth0", "eth1", "tun0", "ppp1", "six", "et+", "ppp0", "aaa0"};

/// Types of service, which routes know packets by: for the machine, and out through a link.
constexpr std::uint8_t kForMachine = 0x04;
constexpr std::size_t kLinksOut = 6;
std::uint8_t serviceTypeOut(std::size_t link) {
    return static_cast<std::uint8_t>(0x08 + 4 * link);
}

/// Those that hosts send. ip6tables never matches the authentication header, 51: it is an extension
/// header of IPv6.
const std::set<int> kProtocols[] = {{6, 17, 1, 58, 2, 47, 50, 51, 132},
                                    {6, 17, 1, 58, 2, 47, 50, 132}};

/// Types of ICMP and ICMPv6 for errors that change no route: unreachable, time exceeded, wrong
/// header.
const std::vector<int> kErrorTypes[] = {{3, 11, 12}, {1, 3, 4}};

void run(const std::string& command) {
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error(command);
    }
}

[[noreturn]] void failSystem(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// ---- Packets as bytes ----

void append16(Packet& bytes, unsigned number) {
    bytes.push_back(static_cast<std::uint8_t>(number >> 8));
    bytes.push_back(static_cast<std::uint8_t>(number));
}

void append32(Packet& bytes, std::uint32_t number) {
    append16(bytes, number >> 16);
    append16(bytes, number & 0xffff);
}

std::uint32_t number32At(const std::uint8_t* bytes) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes, sizeof(number));
    return ntohl(number);
}

unsigned checksumOf(const Packet& bytes) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < bytes.size(); i += 2) {
        sum +=
            static_cast<std::uint32_t>(bytes[i] << 8 | (i + 1 < bytes.size() ? bytes[i + 1] : 0));
    }
    while (sum > 0xffff) {
        sum = (sum >> 16) + (sum & 0xffff);
    }
    return ~sum & 0xffff;
}

void setChecksum(Packet& bytes, std::size_t at, unsigned checksum) {
    bytes[at] = static_cast<std::uint8_t>(checksum >> 8);
    bytes[at + 1] = static_cast<std::uint8_t>(checksum);
}

/// Packets that the test can send, besides what a LinePacket has.
struct Sent {
    LinePacket packet;
    bool tracked = false;
    std::uint8_t serviceType = kForMachine;
};

void appendAddress(Packet& bytes, const Bytes& address, bool ipv6) {
    bytes.insert(bytes.end(), address.begin(), address.begin() + (ipv6 ? 16 : 4));
}

/// Whether a packet is an error of ICMP about another one.
bool isError(const LinePacket& packet) {
    const std::vector<int>& types = kErrorTypes[packet.ipv6 ? 1 : 0];
    return packet.protocol == (packet.ipv6 ? 58 : 1) &&
           std::find(types.begin(), types.end(), packet.icmpType) != types.end();
}

/// The type and the code: "port unreachable", or whatever the type begins with.
unsigned errorCodeOf(const LinePacket& packet) {
    const bool isUnreachable = packet.icmpType == (packet.ipv6 ? 1 : 3);
    const unsigned portUnreachable = packet.ipv6 ? 4 : 3;
    return static_cast<unsigned>(packet.icmpType) << 8 | (isUnreachable ? portUnreachable : 0);
}

/// The headers of the packet that an error is about: over UDP, the other way.
Packet causeOf(const LinePacket& error) {
    constexpr unsigned kLength = 8;  // of UDP without data
    Packet bytes;
    if (error.ipv6) {
        append32(bytes, 6U << 28);
        append16(bytes, kLength);
        append16(bytes, 17U << 8 | 64);
    } else {
        append16(bytes, 0x4500);
        append16(bytes, kLength + 20);
        append32(bytes, 0);
        append16(bytes, 64U << 8 | 17);
        append16(bytes, 0);
    }
    appendAddress(bytes, error.destination, error.ipv6);
    appendAddress(bytes, error.source, error.ipv6);
    if (!error.ipv6) {
        setChecksum(bytes, 10, checksumOf(bytes));
    }
    append16(bytes, static_cast<unsigned>(error.destinationPort));
    append16(bytes, static_cast<unsigned>(error.sourcePort));
    append16(bytes, kLength);
    append16(bytes, 0);
    return bytes;
}

/// What follows the header of IP: that of the protocol, zeros, the mark and the number.
Packet payloadOf(const Sent& sent, std::uint32_t number, std::size_t length) {
    const LinePacket& packet = sent.packet;
    Packet bytes;
    std::size_t checksumAt = 0;
    if (sent.tracked && isError(packet)) {
        append16(bytes, errorCodeOf(packet));
        checksumAt = bytes.size();
        append16(bytes, 0);
        append32(bytes, 0);
        const Packet cause = causeOf(packet);
        bytes.insert(bytes.end(), cause.begin(), cause.end());
    } else if (packet.protocol == 6 || packet.protocol == 17) {
        append16(bytes, static_cast<unsigned>(packet.sourcePort));
        append16(bytes, static_cast<unsigned>(packet.destinationPort));
    }
    if (packet.protocol == 6) {
        append32(bytes, 1);
        append32(bytes, 0);
        // A new connection; without any flag the kernel calls it invalid.
        append16(bytes, 0x5000U | (packet.state == "INVALID" ? 0U : 2U));
        append16(bytes, 1024);
        checksumAt = bytes.size();
        append32(bytes, 0);
    } else if (packet.protocol == 17) {
        append16(bytes, static_cast<unsigned>(length));
        checksumAt = bytes.size();
        append16(bytes, 0);
    } else if (packet.protocol == 1 || packet.protocol == 58) {
        append16(bytes, static_cast<unsigned>(packet.icmpType) << 8);
        checksumAt = bytes.size();
        append16(bytes, 0);
    }
    bytes.resize(length - 8);
    append32(bytes, kMark);
    append32(bytes, number);
    if (checksumAt == 0) {
        return bytes;
    }
    Packet summed;
    if (packet.protocol != 1) {
        appendAddress(summed, packet.source, packet.ipv6);
        appendAddress(summed, packet.destination, packet.ipv6);
        append32(summed, static_cast<std::uint32_t>(length));
        append32(summed, static_cast<std::uint32_t>(packet.protocol));
    }
    summed.insert(summed.end(), bytes.begin(), bytes.end());
    const unsigned checksum = checksumOf(summed);
    setChecksum(bytes, checksumAt, packet.protocol == 17 && checksum == 0 ? 0xffff : checksum);
    return bytes;
}

Packet bytesOf(const Sent& sent, std::uint32_t number) {
    const LinePacket& packet = sent.packet;
    const std::size_t header = packet.ipv6 ? 40 : 20;
    const std::size_t length = (sent.tracked ? kTrackedBytes : 80) - header;
    Packet bytes;
    if (packet.ipv6) {
        append32(bytes, 6U << 28 | static_cast<std::uint32_t>(sent.serviceType) << 20);
        append16(bytes, static_cast<unsigned>(length));
        append16(bytes, static_cast<unsigned>(packet.protocol) << 8 | 64);
    } else {
        append16(bytes, 0x4500U | sent.serviceType);
        append16(bytes, static_cast<unsigned>(length + header));
        append32(bytes, 0);
        append16(bytes, 64U << 8 | static_cast<unsigned>(packet.protocol));
        append16(bytes, 0);
    }
    appendAddress(bytes, packet.source, packet.ipv6);
    appendAddress(bytes, packet.destination, packet.ipv6);
    if (!packet.ipv6) {
        setChecksum(bytes, 10, checksumOf(bytes));
    }
    const Packet payload = payloadOf(sent, number, length);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

// ---- The network ----

Descriptor makeLink(const std::string& name) {
    Descriptor device(open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC));
    ifreq request{};
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    if (!device || ioctl(device.get(), TUNSETIFF, &request) != 0) {
        failSystem(name);
    }
    return device;
}

void makeRoutes() {
    for (const std::string& family : {std::string("-4"), std::string("-6")}) {
        const std::string all = family == "-4" ? "0.0.0.0/0" : "::/0";
        const auto route = [&](std::uint8_t type, const std::string& where) {
            const std::string table = std::to_string(100 + type);
            const std::string ip = "ip " + family;
            char hexadecimal[8];
            std::snprintf(hexadecimal, sizeof(hexadecimal), "0x%02x", type);
            run(ip + " rule add pref 10 tos " + hexadecimal + " lookup " + table);
            run(ip + " route add " + where + " table " + table);
        };
        route(kForMachine, "local " + all + " dev lo");
        for (std::size_t link = 0; link < kLinksOut; ++link) {
            route(serviceTypeOut(link), all + " dev " + kLinks[link]);
        }
    }
}

/// The links, and what arrives.
class Network {
public:
    Network() {
        run("sysctl --quiet --write net.ipv4.ip_forward=1 net.ipv4.conf.all.rp_filter=0 "
            "net.ipv4.conf.default.rp_filter=0 net.ipv4.conf.all.accept_local=1 "
            "net.ipv6.conf.all.forwarding=1");
        // Answers would make connections established, and only they are tracked that are to be.
        for (const std::string& tool : {std::string("iptables"), std::string("ip6tables")}) {
            run(tool + " -t raw -A OUTPUT -j DROP");
            run(tool + " -t raw -A PREROUTING -m length ! --length " +
                std::to_string(kTrackedBytes) + " -j CT --notrack");
            // The kernel tracks connections only while a rule asks for states.
            run(tool + " -A OUTPUT -m state --state NEW");
        }
        // The connections are to be known until all lines are in the kernel.
        run("sysctl --quiet --write net.netfilter.nf_conntrack_udp_timeout=600 "
            "net.netfilter.nf_conntrack_udp_timeout_stream=600");
        for (const std::string& name : kLinks) {
            links_.push_back(makeLink(name));
            run("ip link set '" + name + "' up");
        }
        makeRoutes();
        for (const int family : {AF_INET, AF_INET6}) {
            for (const int protocol : kProtocols[family == AF_INET6 ? 1 : 0]) {
                sockets_.emplace_back(
                    socket(family, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol));
                if (!sockets_.back()) {
                    failSystem("a raw socket");
                }
            }
        }
    }

    void send(const Sent& sent, std::uint32_t number) {
        const Packet bytes = bytesOf(sent, number);
        const auto link = std::find(kLinks.begin(), kLinks.end(), sent.packet.in) - kLinks.begin();
        if (write(links_[static_cast<std::size_t>(link)].get(), bytes.data(), bytes.size()) !=
            static_cast<ssize_t>(bytes.size())) {
            failSystem("a packet through " + sent.packet.in);
        }
    }

    /// Adds the numbers of the packets that have arrived.
    void receive(std::set<std::uint32_t>& numbers) {
        for (const std::vector<Descriptor>* const sources : {&links_, &sockets_}) {
            for (const Descriptor& source : *sources) {
                std::uint8_t buffer[2048];
                int errors = 0;  // those that ICMP reports to a socket; packets may follow them
                while (errors <= kAtOnce) {
                    const ssize_t got = read(source.get(), buffer, sizeof(buffer));
                    if (got < 0 && errno == EAGAIN) {
                        break;
                    }
                    if (got < 8) {
                        ++errors;
                        continue;
                    }
                    const std::uint8_t* const end = buffer + got;
                    if (number32At(end - 8) == kMark) {
                        numbers.insert(number32At(end - 4));
                    }
                }
            }
        }
    }

private:
    std::vector<Descriptor> links_;
    std::vector<Descriptor> sockets_;
};

// ---- Packets that a host lets in ----

bool isWithin(const Bytes& address, std::uint8_t first, std::uint8_t mask) {
    return (address[0] & mask) == first;
}

/// Whether the network layer hands packets with this address to the packet filter.
bool isUsual(const Bytes& address, bool ipv6, bool isSource, bool forward) {
    if (!ipv6) {
        return address[0] != 0 && address[0] != 127 && !isWithin(address, 224, 0xf0) &&
               !(address[0] == 255 && address[1] == 255 && address[2] == 255 && address[3] == 255);
    }
    const bool isLocal = address[0] == 0xfe && (address[1] & 0xc0) == 0x80;
    return address[0] != 0 && address[0] != 0xff && !(isLocal && (forward || !isSource));
}

/// Makes packets for a profile.
class PacketMaker {
public:
    PacketMaker(Random& random, const FamilyLines& lines) : random_(random), lines_(lines) {}

    Sent next() {
        for (;;) {
            Sent sent;
            sent.packet = makePacket(random_, lines_, kLinks);
            if (finish(sent)) {
                return sent;
            }
        }
    }

private:
    bool finish(Sent& sent) {
        LinePacket& packet = sent.packet;
        const auto end = kLinks.begin() + kLinksOut;
        const auto out = std::find(kLinks.begin(), end, packet.out);
        if (std::find(kLinks.begin(), kLinks.end(), packet.in) == kLinks.end() ||
            (packet.forward && out == end) ||
            kProtocols[packet.ipv6 ? 1 : 0].count(packet.protocol) == 0 ||
            !isUsual(packet.source, packet.ipv6, true, packet.forward) ||
            !isUsual(packet.destination, packet.ipv6, false, packet.forward)) {
            return false;
        }
        if (packet.forward) {
            sent.serviceType = serviceTypeOut(static_cast<std::size_t>(out - kLinks.begin()));
        }
        if (packet.state == "RELATED" || (packet.state == "INVALID" && pick(random_, 3) == 0)) {
            // About a connection that is known, or about none.
            packet.protocol = packet.ipv6 ? 58 : 1;
            packet.icmpType = oneOf(random_, kErrorTypes[packet.ipv6 ? 1 : 0]);
        }
        const bool hasState = packet.protocol == 17 || packet.protocol == 6;
        sent.tracked = packet.state == "RELATED" ||
                       (packet.state == "INVALID" && isError(packet)) ||
                       (packet.state == "ESTABLISHED" && packet.protocol == 17) ||
                       (packet.state == "INVALID" && packet.protocol == 6) ||
                       (packet.state == "NEW" && hasState && pick(random_, 4) == 0);
        if (!sent.tracked) {
            packet.state = "UNTRACKED";
            return true;
        }
        // The connection of one packet must not be that of another.
        const bool isFirst = packet.source < packet.destination;
        const auto ends = std::pair(std::pair(packet.source, packet.sourcePort),
                                    std::pair(packet.destination, packet.destinationPort));
        return packet.source != packet.destination &&
               connections_.insert(isFirst ? ends : std::pair(ends.second, ends.first)).second;
    }

    using End = std::pair<Bytes, int>;
    Random& random_;
    const FamilyLines& lines_;
    static std::set<std::pair<End, End>> connections_;
};

std::set<std::pair<PacketMaker::End, PacketMaker::End>> PacketMaker::connections_;

/// What makes known the connection that an error is about.
Sent connectionOf(const Sent& error) {
    Sent first = error;
    first.packet.protocol = 17;
    first.packet.state = "NEW";
    return first;
}

/// Its answer, which comes in where it goes out.
Sent answerTo(const Sent& sent) {
    Sent answer = sent;
    std::swap(answer.packet.source, answer.packet.destination);
    std::swap(answer.packet.sourcePort, answer.packet.destinationPort);
    return answer;
}

// ---- Profiles ----

bool hasCountryMatch() {
    static const bool has = std::system(
                                "iptables -t raw -A PREROUTING -m geoip --source-country AA "
                                "2>/dev/null && iptables -t raw -D PREROUTING -m geoip "
                                "--source-country AA") == 0;
    return has;
}

/// The lines for a line with a match for countries: one for each of their ranges.
Texts withRanges(const std::string& line, bool ipv6, const CountryRanges& countries) {
    static const std::regex kMatch("-m geoip --(source|destination)-country ([A-Z,]+)");
    std::smatch match;
    if (!std::regex_search(line, match, kMatch)) {
        return {line};
    }
    Texts lines;
    std::istringstream codes(match[2]);
    for (std::string code; std::getline(codes, code, ',');) {
        for (const ByteRange& range : countries.at({code, ipv6 ? 1 : 0})) {
            const auto text = [&](const Bytes& end) {
                return FW::fwAddressText(addressOf(end),
                                         ipv6 ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4);
            };
            lines.push_back(match.prefix().str() + "-m iprange --" +
                            (match[1] == "source" ? "src" : "dst") + "-range " + text(range.first) +
                            "-" + text(range.second) + match.suffix().str());
        }
    }
    return lines;
}

/// A translation without matches for countries.
Json::Value withRanges(const Json::Value& cmds, const CountryRanges& countries) {
    Json::Value changed = cmds;
    for (const bool ipv6 : {false, true}) {
        Json::Value& family = changed[ipv6 ? "v6" : "v4"];
        for (const std::string& list : family.getMemberNames()) {
            Json::Value lines(Json::arrayValue);
            for (const Json::Value& line : family[list]) {
                for (const std::string& one : withRanges(line.asString(), ipv6, countries)) {
                    lines.append(one);
                }
            }
            family[list] = lines;
        }
    }
    return changed;
}

/// Puts a profile into the kernel. Whether a batch is refused must be a finding.
bool apply(const FW::FWPROFILE& profile, bool batch, const std::vector<FW::FWFINDING>& findings,
           const TestCountries& countries) {
    Json::Value cmds;
    FW::TARNFW firewall;
    const bool translated =
        batch
            ? firewall.fwRulesToBatchRules(true, profile.rules, profile.adapterPolicyMap, cmds, "")
            : firewall.fwRulesToIptablesRules(true, profile.rules, profile.adapterPolicyMap, cmds);
    if (!translated) {
        throw std::runtime_error("the profile cannot be translated");
    }
    if (!hasCountryMatch()) {
        cmds = withRanges(cmds, countries.ranges());
    }
    if (!batch) {
        return firewall.fwClear() && firewall.fwExec(cmds);
    }
    const bool applied = FW::FW_BATCH().apply(cmds);
    if (applied != findings.empty()) {
        throw std::runtime_error(applied ? "a batch was applied in spite of " + findings[0].text
                                         : "a batch without findings was refused");
    }
    return applied;
}

/// One profile in the kernel, with its packets.
class Comparison {
public:
    Comparison(Network& network, Random& random, const FamilyLines& lines,
               const FW::FW_MEANING& meaning)
        : network_(network), meaning_(meaning) {
        PacketMaker maker(random, lines);
        for (int i = 0; i < kPackets; ++i) {
            packets_.push_back(maker.next());
            verdicts_.push_back(verdictOf(packets_.back().packet));
        }
        lines_ = &lines;
    }

    /// While all is open: both directions, so that the kernel knows the connection.
    void establish() {
        for (std::size_t i = 0; i < packets_.size(); ++i) {
            if (packets_[i].packet.state == "ESTABLISHED") {
                sendAll({i});
                network_.send(answerTo(packets_[i]), kPackets);  // a number of no other
            } else if (packets_[i].packet.state == "RELATED") {
                network_.send(connectionOf(packets_[i]), kPackets);
            }
        }
    }

    /// Whether what arrives is what must.
    bool agrees(bool othersDrop) {
        std::vector<std::size_t> all;
        for (std::size_t i = 0; i < packets_.size(); ++i) {
            if (!othersDrop || verdicts_[i] != FW::FW_PACKET_DROP) {
                all.push_back(i);
            }
        }
        const std::set<std::uint32_t> arrived = sendAll(all);
        for (const std::size_t i : all) {
            const bool must = verdicts_[i] == FW::FW_PACKET_ACCEPT ||
                              (verdicts_[i] == FW::FW_PACKET_NEXT && !othersDrop);
            if ((arrived.count(static_cast<std::uint32_t>(i)) != 0) != must) {
                std::cout << (must ? "dropped: " : "let through: ") << textOf(packets_[i].packet)
                          << (othersDrop ? ", where others drop" : "") << "; the lines say "
                          << decideByLines(*lines_, packets_[i].packet).target << textOf(*lines_)
                          << '\n';
                return false;
            }
        }
        return true;
    }

    std::size_t count(FW::FW_PACKET_VERDICT verdict) const {
        return static_cast<std::size_t>(std::count(verdicts_.begin(), verdicts_.end(), verdict));
    }

    std::size_t countErrors(const std::string& state) const {
        return static_cast<std::size_t>(std::count_if(
            packets_.begin(), packets_.end(),
            [&](const Sent& sent) { return sent.packet.state == state && isError(sent.packet); }));
    }

    /// Those about which a rule with countries decides.
    std::size_t countByCountries(const FW::FWPROFILE& profile) const {
        return static_cast<std::size_t>(
            std::count_if(packets_.begin(), packets_.end(), [&](const Sent& sent) {
                const std::size_t decider = meaning_.decide(packetOf(sent.packet)).deciders.at(0);
                const FW::FWPLACE place = meaning_.rule(decider).place;
                return place.origin == FW::FW_ORIGIN_RULE &&
                       profile.rules.at(place.adapter)
                               .at(static_cast<std::size_t>(place.position - 1))
                               .ipGroup == FW::FW_IP_GROUP_COUNTRIES;
            }));
    }

private:
    FW::FW_PACKET_VERDICT verdictOf(const LinePacket& packet) const {
        const FW::FWDECISION decision = meaning_.decide(packetOf(packet));
        return meaning_.rule(decision.deciders.at(0)).verdict;
    }

    /// The numbers of those that arrive.
    std::set<std::uint32_t> sendAll(const std::vector<std::size_t>& numbers) {
        std::set<std::uint32_t> arrived;
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            network_.send(packets_[numbers[i]], static_cast<std::uint32_t>(numbers[i]));
            if (i % kAtOnce == kAtOnce - 1) {
                network_.receive(arrived);
            }
        }
        network_.receive(arrived);
        return arrived;
    }

    Network& network_;
    const FW::FW_MEANING& meaning_;
    const FamilyLines* lines_;
    std::vector<Sent> packets_;
    std::vector<FW::FW_PACKET_VERDICT> verdicts_;
};

void othersDrop(bool drop) {
    for (const std::string& tool : {std::string("iptables"), std::string("ip6tables")}) {
        for (const std::string& chain : {std::string("INPUT"), std::string("FORWARD")}) {
            run(tool + (drop ? " -A " : " -D ") + chain + " -j DROP");
        }
    }
}

struct Counts {
    std::size_t batches = 0;
    std::size_t refused = 0;
    std::size_t packets[3] = {};
    std::size_t byCountries = 0;  // decided about by rules with countries
    std::size_t related = 0;      // errors about connections that are known
    std::size_t unrelated = 0;    // and about none
};

/// Whether the kernel agrees about a profile.
bool agreesOn(unsigned seed, Network& network, const TestCountries& countries, Counts& counts) {
    Random random(seed);
    FW::FWPROFILE profile = makeProfile(
        random, 5,
        {"global", "eth0", "eth1", "vpn", "pppoe", "ppp0", "absent", "et+", "tun0", "six"});
    bool batch = pick(random, 3) != 0;
    FW::FWENVIRONMENT environment;
    if (!FW::fwEnvironmentGet(profile, FW::FW_ADAPTERS_PRESENT, {}, environment)) {
        return false;
    }
    environment.batch = batch;
    FW::FWRESOLVED resolved = FW::fwResolve(profile, environment);
    if (batch && !resolved.findings.empty()) {
        ++counts.refused;
        (void)apply(profile, batch, resolved.findings, countries);
        batch = environment.batch = false;
        resolved = FW::fwResolve(profile, environment);
    }
    counts.batches += batch ? 1 : 0;

    const FamilyLines lines = linesOfProfile(profile, batch, countries.ranges());
    const FW::FW_MEANING meaning(resolved.rules);
    Comparison comparison(network, random, lines, meaning);
    if (!FW::TARNFW().fwClear()) {
        return false;
    }
    comparison.establish();
    if (!apply(profile, batch, {}, countries) || !comparison.agrees(false)) {
        return false;
    }
    othersDrop(true);
    const bool agrees = comparison.agrees(true);
    othersDrop(false);
    for (const FW::FW_PACKET_VERDICT verdict :
         {FW::FW_PACKET_ACCEPT, FW::FW_PACKET_NEXT, FW::FW_PACKET_DROP}) {
        counts.packets[verdict] += comparison.count(verdict);
    }
    counts.byCountries += comparison.countByCountries(profile);
    counts.related += comparison.countErrors("RELATED");
    counts.unrelated += comparison.countErrors("INVALID");
    return agrees;
}

int compare(unsigned seed, int count) {
    Network network;
    const TestCountries countries(kCountrySeed, kCountryRanges);
    for (const auto& [name, content] : countries.files()) {
        std::ofstream("/usr/share/xt_geoip/" + name, std::ios::binary) << content;
    }
    Counts counts;
    for (int i = 0; i < count; ++i) {
        const unsigned own = seed + static_cast<unsigned>(i);
        if (!agreesOn(own, network, countries, counts)) {
            std::cout << "the kernel disagrees about profile " << own << '\n';
            return EXIT_FAILURE;
        }
    }
    std::cout << count << " profiles, " << counts.batches << " in a batch, " << counts.refused
              << " batches refused; packets: " << counts.packets[FW::FW_PACKET_ACCEPT]
              << " accepted, " << counts.packets[FW::FW_PACKET_NEXT] << " let through, "
              << counts.packets[FW::FW_PACKET_DROP] << " dropped; " << counts.byCountries
              << " by rules with countries, " << counts.related << " related, " << counts.unrelated
              << " errors about no connection\n";
    const bool failed = ::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
    const bool isMissing = counts.byCountries == 0 || counts.related == 0 || counts.unrelated == 0;
    if (isMissing) {
        std::cout << "not all kinds of packets were sent\n";
    }
    return failed || isMissing ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    openlog("meaning_probe", LOG_PERROR, LOG_USER);
    (void)setlogmask(LOG_UPTO(LOG_EMERG));  // refused lines are part of the test
    try {
        if (argc == 3) {
            return compare(static_cast<unsigned>(std::stoul(argv[1])), std::stoi(argv[2]));
        }
        std::cerr << "usage: meaning_probe SEED COUNT\n";
    } catch (const std::exception& error) {
        std::cerr << "meaning_probe: " << error.what() << '\n';
    }
    return 2;
}
