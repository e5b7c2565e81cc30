#include "rules/portWords.h"

#include <algorithm>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include "tarnfirewall/fwTypes.h"

namespace tarnfw {
namespace {

struct ProtocolWord {
    const char* word;
    std::int32_t protocol;
    bool suggested;
};

// Those of both protocols come first: "tcp/udp/53" begins with "tcp/" as well.
constexpr ProtocolWord kWords[] = {
    {"tcp/udp", FW::FW_PORT_PROTOCOL_TCP_UDP, true},
    {"udp/tcp", FW::FW_PORT_PROTOCOL_TCP_UDP, false},
    {"tcp,udp", FW::FW_PORT_PROTOCOL_TCP_UDP, false},
    {"udp,tcp", FW::FW_PORT_PROTOCOL_TCP_UDP, false},
    {"tcp+udp", FW::FW_PORT_PROTOCOL_TCP_UDP, false},
    {"udp+tcp", FW::FW_PORT_PROTOCOL_TCP_UDP, false},
    {"both", FW::FW_PORT_PROTOCOL_TCP_UDP, true},
    {"tcp", FW::FW_PORT_PROTOCOL_TCP, true},
    {"udp", FW::FW_PORT_PROTOCOL_UDP, true},
};

/// "0022-0080" becomes "22-80": iptables takes leading zeros for octal.
std::string withoutLeadingZeros(const std::string& entry) {
    std::string text;
    for (std::size_t i = 0; i < entry.size(); ++i) {
        const bool leads = text.empty() || text.back() == '-';
        const bool isLast = i + 1 == entry.size() || entry[i + 1] == '-';
        if (entry[i] != '0' || !leads || isLast) {
            text += entry[i];
        }
    }
    return text;
}

}  // namespace

std::optional<std::int32_t> portProtocolFrom(const std::string& word) {
    for (const ProtocolWord& known : kWords) {
        if (boost::iequals(word, known.word)) {
            return known.protocol;
        }
    }
    return std::nullopt;
}

std::vector<std::string> portProtocolWords() {
    std::vector<std::string> words;
    for (const ProtocolWord& known : kWords) {
        if (known.suggested) {
            words.emplace_back(known.word);
        }
    }
    return words;
}

std::optional<ProtocolPorts> protocolPortsFrom(const std::string& text) {
    if (portProtocolFrom(text)) {
        return std::nullopt;
    }
    for (const ProtocolWord& known : kWords) {
        const std::string word = known.word;
        if (text.size() < word.size() + 2) {
            continue;
        }
        for (const char between : {'/', ' '}) {
            if (boost::istarts_with(text, word + between)) {
                return ProtocolPorts{known.protocol, text.substr(word.size() + 1)};
            }
            if (boost::iends_with(text, between + word)) {
                return ProtocolPorts{known.protocol, text.substr(0, text.size() - word.size() - 1)};
            }
        }
    }
    return std::nullopt;
}

std::optional<PortSpan> portEndsWritten(const std::string& text) {
    std::string entry = text;
    std::replace(entry.begin(), entry.end(), ':', '-');
    return portEndsFrom(withoutLeadingZeros(entry));
}

}  // namespace tarnfw
