/// The text form of the service catalogue.
///
/// A document is one service or an array of them:
///     {"name": "dns", "title": "DNS server", "dst": {"protocol": "tcp/udp", "ports": ["53"]}}
/// `name` has 1 to 255 bytes. `title`, at most 255 bytes, may be missing or empty: the firewall
/// then does not use the service. `dst` and `src` are the ports at either end and may be missing.
/// `protocol` is "tcp", "udp", "tcp/udp", "icmp", "igmp" or the code of one, 1, 2, 3, 4 or 32.
/// `ports` holds texts or numbers, "80" or "6000-6010". ICMP and IGMP need none; their list then
/// gets the entry "0", because a side without entries would be ignored. Other members are
/// ignored, and comments are allowed.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace host {

struct ServiceSide {
    int protocol = 0;                ///< 0: the service does not use this side
    std::vector<std::string> ports;  ///< decimal, without leading zeros
};

struct Service {
    std::string title;
    ServiceSide dst;
    ServiceSide src;
};

/// By name.
using Services = std::map<std::string, Service>;

/// Reads a document into `services`, replacing earlier services with the same name. Returns whether
/// all of it is valid. `report` gets a printable line for each invalid entry, or one for an invalid
/// document; other services are unaffected.
bool readServices(const std::string& document, Services& services,
                  const std::function<void(const std::string&)>& report);

}  // namespace host
