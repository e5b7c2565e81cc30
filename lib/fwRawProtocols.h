/// IP protocols that services need besides their ports.
#pragma once

#include <cstdint>
#include <string>

namespace FW {

struct RawProtocols {
    const char* service;
    std::int32_t numbers[4];  // 0 ends the list early
};

inline constexpr RawProtocols kRawProtocols[] = {
    {"vpn_server_pptp", {47}},       // GRE
    {"vpn_server_ipsec", {50, 51}},  // ESP and AH
};

/// Calls `use` with the number of each protocol that a service needs.
template <typename Use>
void forEachRawProtocol(const std::string& service, Use use) {
    for (const RawProtocols& entry : kRawProtocols) {
        if (service != entry.service) {
            continue;
        }
        for (const std::int32_t number : entry.numbers) {
            if (number == 0) {
                break;
            }
            use(number);
        }
    }
}

}  // namespace FW
