#include "tarnfwadmin/baseFilter.h"

#include <stdio.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>

#include <boost/algorithm/string/join.hpp>

#include "tarncore.h"

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

constexpr char kReloadingChain[] = "FIREWALL_RELOADING";

// Other programs change the packet filter as well, at boot most of all.
constexpr char kLockSeconds[] = "30";

bool contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string chainLine(const std::string& chain) {
    return "-N " + chain;
}

/// How the lines of a chain's rules begin.
std::string chainStart(const std::string& chain) {
    return "-A " + chain + " ";
}

std::string jumpLine(const std::pair<std::string, std::string>& jump) {
    return "-A " + jump.first + " -j " + jump.second;
}

/// The position, counted from 1, of a rule among those of its chain; 0 when it is not there.
int positionOf(const std::vector<std::string>& lines, const std::string& chain,
               const std::string& line) {
    int position = 0;
    for (const std::string& candidate : lines) {
        if (candidate.rfind(chainStart(chain), 0) != 0) {
            continue;
        }
        ++position;
        if (candidate == line) {
            return position;
        }
    }
    return 0;
}

struct StreamClose {
    void operator()(FILE* stream) const { (void)TLIBCPclose(stream); }
};

/// The buffer of getline(), freed whatever happens to the lines that are made from it.
struct LineBuffer {
    LineBuffer() = default;
    ~LineBuffer() { std::free(text); }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    char* text = nullptr;
    std::size_t capacity = 0;
};

/// The lines of a stream, without their line feeds.
std::vector<std::string> linesOf(FILE* stream) {
    std::vector<std::string> lines;
    LineBuffer buffer;
    for (;;) {
        const ssize_t length = getline(&buffer.text, &buffer.capacity, stream);
        if (length < 0) {
            break;
        }
        std::string line(buffer.text, static_cast<std::size_t>(length));
        if (line.back() == '\n') {
            line.pop_back();
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

}  // namespace

BaseFilter::BaseFilter(std::string key)
    : key_(std::move(key)), tool_(key_ == "v4" ? "/sbin/iptables" : "/sbin/ip6tables") {}

std::string BaseFilter::title() const {
    return key_ == "v4" ? "IPv4" : "IPv6";
}

BaseParts BaseFilter::missing() const {
    const std::vector<std::string> lines = rules();
    BaseParts parts;
    for (const std::string& chain : wholeBase().chains) {
        if (!contains(lines, chainLine(chain))) {
            parts.chains.push_back(chain);
        }
    }
    for (const auto& jump : wholeBase().jumps) {
        if (!contains(lines, jumpLine(jump))) {
            parts.jumps.push_back(jump);
        }
    }
    return parts;
}

bool BaseFilter::inOrder() const {
    const std::vector<std::string> lines = rules();
    const auto& jumps = wholeBase().jumps;
    return std::all_of(jumps.begin(), jumps.end(), [&](const auto& jump) {
        return positionOf(lines, jump.first, jumpLine({jump.first, kReloadingChain})) <=
               positionOf(lines, jump.first, jumpLine(jump));
    });
}

std::size_t BaseFilter::loadedRules() const {
    const std::vector<std::string> lines = rules();
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return std::any_of(
                FW::FW_FIREWALL_CHAINS.begin(), FW::FW_FIREWALL_CHAINS.end(),
                [&](const std::string& chain) { return line.rfind(chainStart(chain), 0) == 0; });
        }));
}

bool BaseFilter::isClosed() const {
    const std::vector<std::string> lines = rules();
    const bool drops = contains(lines, "-P INPUT DROP") || contains(lines, "-P FORWARD DROP");
    return drops && std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
               return line.rfind(chainStart(kReloadingChain), 0) == 0 &&
                      line.find("ESTABLISHED") != std::string::npos;
           });
}

void BaseFilter::add(const BaseParts& parts) const {
    for (const std::string& chain : parts.chains) {
        run({"-N", chain});
    }
    for (const auto& [chain, target] : parts.jumps) {
        // Ahead of what others filter; a jump to a firewall chain goes behind FIREWALL_RELOADING's,
        // whose absence counts as position 0.
        const int position =
            target == kReloadingChain
                ? 1
                : positionOf(rules(), chain, jumpLine({chain, kReloadingChain})) + 1;
        run({"-I", chain, std::to_string(position), "-j", target});
    }
}

void BaseFilter::remove(const BaseParts& parts) const {
    const std::vector<std::string> lines = rules();
    for (const auto& jump : parts.jumps) {
        if (contains(lines, jumpLine(jump))) {
            run({"-D", jump.first, "-j", jump.second});
        }
    }
    for (const std::string& chain : parts.chains) {
        if (contains(lines, chainLine(chain))) {
            run({"-F", chain});
            run({"-X", chain});
        }
    }
}

/// The filter table's rules as the tool lists them.
std::vector<std::string> BaseFilter::rules() const {
    std::unique_ptr<FILE, StreamClose> stream(TLIBCPopen(tool_.c_str(), "r", "-w", kLockSeconds,
                                                         "-t", "filter", "-S",
                                                         static_cast<const char*>(nullptr)));
    if (stream == nullptr) {
        throw Error(ErrorKind::kSystem, "cannot run " + tool_);
    }
    std::vector<std::string> lines = linesOf(stream.get());
    if (TLIBCPclose(stream.release()) != 0) {
        throw Error(ErrorKind::kSystem, tool_ + " cannot list the filter table");
    }
    return lines;
}

void BaseFilter::run(const std::vector<std::string>& arguments) const {
    std::vector<const char*> argv = {tool_.c_str(), "-w", kLockSeconds, "-t", "filter"};
    std::string line = tool_ + " -w " + kLockSeconds + " -t filter";
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
        line += " " + argument;
    }
    argv.push_back(nullptr);
    if (TLIBCExecv(tool_.c_str(), argv.data(), 1) != 0) {
        throw Error(ErrorKind::kSystem, "this command failed: " + line);
    }
}

const BaseParts& wholeBase() {
    static const BaseParts base = {
        {kReloadingChain, "INPUT_FIREWALL", "FORWARD_FIREWALL"},
        {{"INPUT", kReloadingChain},
         {"INPUT", "INPUT_FIREWALL"},
         {"FORWARD", kReloadingChain},
         {"FORWARD", "FORWARD_FIREWALL"}},
    };
    return base;
}

std::vector<BaseFilter> baseFilters() {
    return {BaseFilter("v4"), BaseFilter("v6")};
}

void requireBase() {
    for (const BaseFilter& filter : baseFilters()) {
        const BaseParts parts = filter.missing();
        if (!parts.empty()) {
            throw Error(ErrorKind::kSystem,
                        "the base packet filter is not set up; \"tarnfw base up\" does that (" +
                            filter.title() + " lacks " + describe(parts) + ")");
        }
    }
}

std::string describe(const BaseParts& parts) {
    std::vector<std::string> jumps;
    for (const auto& [chain, target] : parts.jumps) {
        jumps.push_back(boost::join(std::array{chain, target}, " -> "));
    }
    std::vector<std::string> kinds;
    if (!parts.chains.empty()) {
        kinds.push_back("chains " + boost::join(parts.chains, ", "));
    }
    if (!jumps.empty()) {
        kinds.push_back("jumps " + boost::join(jumps, ", "));
    }
    return kinds.empty() ? "nothing" : boost::join(kinds, "; ");
}

}  // namespace tarnfw
