/// Protocols and ports as people write them, in the words of rules and in questions about ports.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tarnfwadmin/portEntry.h"

namespace tarnfw {

/// The FW_PORT_PROTOCOL code of "tcp", "udp" or "tcp/udp"; the last also as "both", "tcp,udp" or
/// "tcp+udp", in any order and in capital letters. Nothing for other words.
std::optional<std::int32_t> portProtocolFrom(const std::string& word);

/// The words that portProtocolFrom() suggests: "tcp", "udp", "tcp/udp", "both".
std::vector<std::string> portProtocolWords();

/// A protocol, and the text of its ports, which is not read yet.
struct ProtocolPorts {
    std::int32_t protocol = 0;
    std::string ports;
};

/// "tcp/22", "22/tcp", "tcp 22", "tcp/udp/53", "53/both"; nothing for a text that has no protocol
/// at either end, or nothing beside it.
std::optional<ProtocolPorts> protocolPortsFrom(const std::string& text);

/// The same as portEndsFrom(), but "6000:6010" is read as well, and leading zeros do not count.
std::optional<PortSpan> portEndsWritten(const std::string& text);

}  // namespace tarnfw
