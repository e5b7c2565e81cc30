#include "fwRouterInterface.h"

#include <stdio.h>
#include <stdlib.h>

#include <memory>

#include "tarncore.h"

#include "fwLog.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwIptables";

constexpr char kRouterInterfaceTool[] = "/usr/tarn/sbin/tarnnetdtool";
constexpr char kRouterInterfaceOption[] = "--get-ipv6-router-interface";

struct StreamClose {
    void operator()(FILE* stream) const { (void)TLIBCPclose(stream); }
};

struct MemoryFree {
    void operator()(char* memory) const { std::free(memory); }
};

/// Reads one line. Returns false when there is nothing in it.
bool readLine(FILE* stream, std::string& line) {
    char* buffer = nullptr;
    std::size_t capacity = 0;
    const ssize_t length = getline(&buffer, &capacity, stream);
    const std::unique_ptr<char, MemoryFree> owned(buffer);
    if (length < 0) {
        return false;
    }
    line.assign(buffer, static_cast<std::size_t>(length));
    // The platform's tool prints the bare name. One that ends its line means no other interface,
    // and a line feed in a name would end the rule's line early.
    if (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    return !line.empty();
}

}  // namespace

std::string routerInterface(const std::string& interface) {
    const std::unique_ptr<FILE, StreamClose> stream(
        TLIBCPopen(kRouterInterfaceTool, "r", kRouterInterfaceOption, interface.c_str(),
                   static_cast<const char*>(nullptr)));
    if (!stream) {
        FW_LOG_ERR("Failed to exec tarnnetdtool with TLIBCPopen().");
        return interface;
    }
    std::string line;
    if (!readLine(stream.get(), line)) {
        FW_LOG_ERR("Failed to getline after TLIBCPopen().");
        return interface;
    }
    return line;
}

}  // namespace FW
