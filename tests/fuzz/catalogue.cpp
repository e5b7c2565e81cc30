// Files of the service catalogue: what is read are services with names, protocols and decimal
// ports, and a file that is not valid is reported.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "serviceCatalogue.h"

#include "property.h"

namespace {

constexpr std::size_t kMostBytes = 255;  // of a name and of a title
constexpr unsigned long kLastPort = 65535;

/// Whether it is a port or a range of ports: digits, no leading zeros, in order.
bool isPort(const std::string& text) {
    const std::size_t dash = text.find('-');
    const std::string first = text.substr(0, dash);
    const std::string last = dash == std::string::npos ? first : text.substr(dash + 1);
    for (const std::string& number : {first, last}) {
        if (number.empty() || number.size() > 5 || (number.size() > 1 && number[0] == '0') ||
            !std::all_of(number.begin(), number.end(),
                         [](char c) { return c >= '0' && c <= '9'; }) ||
            std::stoul(number) > kLastPort) {
            return false;
        }
    }
    return std::stoul(first) <= std::stoul(last);
}

void checkSide(const host::ServiceSide& side) {
    const int protocol = side.protocol;
    require(protocol == 0 || protocol == 1 || protocol == 2 || protocol == 3 || protocol == 4 ||
                protocol == 32,
            "a protocol that there is", std::to_string(protocol));
    for (const std::string& port : side.ports) {
        require(isPort(port), "decimal ports", port);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string document(reinterpret_cast<const char*>(data), size);
    host::Services services;
    std::size_t reports = 0;
    const bool valid = host::readServices(document, services, [&](const std::string& line) {
        ++reports;
        require(!line.empty() && line.find('\n') == std::string::npos, "a report is one line",
                line);
    });
    require(valid == (reports == 0), "all that is not valid is reported");
    for (const auto& [name, service] : services) {
        require(!name.empty() && name.size() <= kMostBytes, "a name of a length that fits", name);
        require(name.find('\0') == std::string::npos, "no NUL in a name", name);
        require(service.title.size() <= kMostBytes, "a title of a length that fits", name);
        checkSide(service.dst);
        checkSide(service.src);
    }
    return 0;
}
