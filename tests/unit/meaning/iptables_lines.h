/// iptables lines evaluated one by one for one packet, as a reader of the manual would do it.
/// Shares no code with the library: it is what the library's answers are compared with.
#pragma once

#include <json/json.h>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwTypes.h"

/// An address in network byte order; of IPv4 the first four bytes.
using Bytes = std::array<std::uint8_t, 16>;
using ByteRange = std::pair<Bytes, Bytes>;

/// Ranges by country and family (0 IPv4, 1 IPv6).
using CountryRanges = std::map<std::pair<std::string, int>, std::vector<ByteRange>>;

struct LinePacket {
    bool forward = false;
    bool ipv6 = false;
    std::string in = "eth0";
    std::string out;  ///< empty unless `forward`
    int protocol = 6;
    Bytes source{};
    Bytes destination{};
    int sourcePort = 0;
    int destinationPort = 0;
    int icmpType = 0;
    std::string state = "NEW";
};

/// One line, and values at and beside the edges of what it matches.
struct Line {
    std::string text;
    std::string adapter;  ///< whose rule it comes from; empty for fixed lines
    int position = 0;     ///< of the rule, from 1; 0 for a default policy
    bool refused = false;
    std::string chain;
    std::string target;
    std::vector<std::function<bool(const LinePacket&)>> matches;

    std::vector<Bytes> sources;
    std::vector<Bytes> destinations;
    std::vector<int> sourcePorts;
    std::vector<int> destinationPorts;
    std::vector<int> protocols;
    std::vector<int> icmpTypes;
    std::string in;
    std::string out;
};

struct LineVerdict {
    std::string target = "RETURN";  ///< "ACCEPT", "RETURN" or "DROP"
    bool logged = false;
    const Line* decider = nullptr;  ///< null when no line matched
};

/// The lines of both families (0 IPv4, 1 IPv6) in the order in which they are run.
using FamilyLines = std::array<std::vector<Line>, 2>;

/// Translates a profile with the library, each rule on its own so that every line has its place.
/// Fails the test when the lines are not those of the profile as a whole.
FamilyLines linesOfProfile(const FW::FWPROFILE& profile, bool batch,
                           const CountryRanges& countries);

/// The first line that matches decides.
LineVerdict decideByLines(const FamilyLines& lines, const LinePacket& packet);
