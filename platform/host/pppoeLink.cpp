#include "pppoeLink.h"

#include <sys/xattr.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace host {

namespace {

// The name of PPPoE's sockets in the kernel's list of protocols.
constexpr char kPppoeProtocol[] = "PPPOE";

// Lines such as "000002A1       00:53:00:AA:BB:CC     eth1" below a line of headings.
std::size_t countSessions(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    std::size_t count = 0;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        unsigned session = 0;
        std::string address;
        std::string device;
        if (words >> std::hex >> session >> address >> device &&
            std::count(address.begin(), address.end(), ':') == 5) {
            ++count;
        }
    }
    return count;
}

// Whether `a` is preferred to `b` when they are otherwise equal.
bool preferred(const NetLink* a, const NetLink* b) {
    return a->up != b->up ? a->up : a->index < b->index;
}

std::optional<std::string> bestOf(const std::vector<const NetLink*>& links) {
    const auto best = std::min_element(links.begin(), links.end(), preferred);
    if (best == links.end()) {
        return std::nullopt;
    }
    return (*best)->name;
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

std::optional<std::string> pppoeLink(const std::string& sessions, const std::vector<NetLink>& links,
                                     const std::map<std::string, PppTransport>& transports) {
    const std::size_t sessionCount = countSessions(sessions);
    if (sessionCount == 0) {
        return std::nullopt;
    }
    std::vector<const NetLink*> known;
    std::vector<const NetLink*> possible;
    for (const NetLink& link : links) {
        if (!link.pointToPoint) {
            continue;
        }
        const auto entry = transports.find(link.name);
        const PppTransport transport =
            entry == transports.end() ? PppTransport::Unknown : entry->second;
        if (transport == PppTransport::Pppoe) {
            known.push_back(&link);
        } else if (transport == PppTransport::Unknown) {
            possible.push_back(&link);
        }
    }
    if (!known.empty()) {
        return bestOf(known);
    }
    if (possible.size() > sessionCount) {
        return std::nullopt;  // some of them are not PPPoE, and it is unknown which
    }
    return bestOf(possible);
}

PppTransport pppTransport(const std::string& name) {
    int pid = 0;
    if (!(std::ifstream("/run/" + name + ".pid") >> pid) || pid <= 0) {
        return PppTransport::Unknown;
    }
    // A killed pppd leaves its file, and another process may get its id.
    if (contentOf("/proc/" + std::to_string(pid) + "/comm") != "pppd\n") {
        return PppTransport::Unknown;
    }
    return transportOfProcess(pid);
}

std::optional<bool> holdsSocketOf(int pid, const std::string& protocol) {
    const std::string directory = "/proc/" + std::to_string(pid) + "/fd";
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        char name[32] = {};
        if (getxattr(entry->path().c_str(), "system.sockprotoname", name, sizeof name - 1) > 0 &&
            protocol == name) {
            return true;
        }
    }
    if (error) {
        return std::nullopt;
    }
    return false;
}

PppTransport transportOfProcess(int pid) {
    const std::optional<bool> holds = holdsSocketOf(pid, kPppoeProtocol);
    if (holds) {
        return *holds ? PppTransport::Pppoe : PppTransport::Other;
    }
    return namesPppoePlugin(contentOf("/proc/" + std::to_string(pid) + "/cmdline"))
               ? PppTransport::Pppoe
               : PppTransport::Unknown;
}

bool namesPppoePlugin(const std::string& commandLine) {
    std::istringstream arguments(commandLine);
    std::string previous;
    std::string argument;
    while (std::getline(arguments, argument, '\0')) {
        // "rp-pppoe.so", "pppoe.so", with or without a directory.
        if (previous == "plugin" && argument.find("pppoe") != std::string::npos) {
            return true;
        }
        previous = argument;
    }
    return false;
}

}  // namespace host
