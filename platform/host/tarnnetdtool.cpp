/// tarnnetdtool: answers questions about the network for programs that read one word.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "ipv6Router.h"
#include "netLinks.h"

namespace {

constexpr int kUsageStatus = 2;
constexpr char kRouterOption[] = "--get-ipv6-router-interface";

constexpr char kUsage[] =
    "usage: tarnnetdtool --get-ipv6-router-interface IFACE\n"
    "       tarnnetdtool --help\n";

constexpr char kHelp[] =
    "\n"
    "--get-ipv6-router-interface IFACE\n"
    "    Prints the 6in4 (sit) tunnel that is up and runs over IFACE, bound to it or\n"
    "    starting at one of its IPv4 addresses. Without one, prints IFACE. The name is\n"
    "    printed bare, without a line end.\n";

std::string routerOf(const std::string& interface) {
    std::vector<host::NetLink> links;
    std::vector<host::NetAddress> addresses;
    int result = host::readLinks(links);
    if (result == 0) {
        result = host::readAddresses(addresses);
    }
    if (result < 0) {
        std::fprintf(stderr, "tarnnetdtool: cannot list the network links: %s\n",
                     std::strerror(-result));
        return interface;  // a caller that asks for its link's router can still use its link
    }
    return host::ipv6RouterInterface(interface, links, addresses);
}

// Flushed here, where a full disk or a closed pipe can still be reported.
int printed(const std::string& text) {
    return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
            return printed(std::string(kUsage) + kHelp);
        }
        if (argc == 3 && std::strcmp(argv[1], kRouterOption) == 0 && argv[2][0] != '\0') {
            return printed(routerOf(argv[2]));
        }
    } catch (const std::exception& exception) {
        std::fprintf(stderr, "tarnnetdtool: %s\n", exception.what());
        return 1;
    }
    std::fputs(kUsage, stderr);
    return kUsageStatus;
}
