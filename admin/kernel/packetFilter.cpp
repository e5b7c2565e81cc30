#include "tarnfwadmin/packetFilter.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <iterator>
#include <memory>
#include <sstream>
#include <utility>

#include "tarnfirewall/fwBatch.h"

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

// Other programs change the packet filter as well, at boot most of all.
constexpr char kLockSeconds[] = "30";

// The lock of the legacy variant.
constexpr char kXtablesLock[] = "/run/xtables.lock";

// A machine may have no IPv6.
constexpr char kOptionalFamily[] = "v6";

bool saysAbsent(const ProgramAnswer& answer) {
    return answer.status != 0 &&
           std::any_of(
               std::begin(FW::FW_ABSENT_FAMILY_WORDS), std::end(FW::FW_ABSENT_FAMILY_WORDS),
               [&](const char* words) { return answer.errors.find(words) != std::string::npos; });
}

}  // namespace

// ---- Listing ------------------------------------------------------------------------------------

RuleListing RuleListing::from(const std::string& text) {
    RuleListing listing;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string kind;
        std::string chain;
        std::string policy;
        words >> kind >> chain >> policy;
        if (kind == "-P") {
            listing.policies[chain] = policy;
            listing.chains[chain];
        } else if (kind == "-N") {
            listing.chains[chain];
        } else if (kind == "-A") {
            listing.chains[chain].push_back(line);
        }
    }
    return listing;
}

RuleListing RuleListing::fromSaved(const std::string& text) {
    RuleListing listing;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string first;
        std::string second;
        words >> first >> second;
        if (first == "-A") {
            listing.chains[second].push_back(line);
        } else if (first.size() > 1 && first[0] == ':') {
            listing.chains[first.substr(1)];
            if (second != "-") {
                listing.policies[first.substr(1)] = second;
            }
        }
    }
    return listing;
}

const std::vector<std::string>& RuleListing::rulesOf(const std::string& chain) const {
    static const std::vector<std::string> none;
    const auto found = chains.find(chain);
    return found == chains.end() ? none : found->second;
}

std::size_t RuleListing::positionOf(const std::string& chain, const std::string& rule) const {
    const std::vector<std::string>& rules = rulesOf(chain);
    const auto found = std::find(rules.begin(), rules.end(), rule);
    return found == rules.end() ? 0 : static_cast<std::size_t>(found - rules.begin()) + 1;
}

bool RuleListing::hasPolicy(const std::string& chain, const std::string& policy) const {
    const auto found = policies.find(chain);
    return found != policies.end() && found->second == policy;
}

// ---- PacketFilter -------------------------------------------------------------------------------

ProgramAnswer PacketFilter::run(const std::string& family,
                                const std::vector<std::string>& arguments) const {
    const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    return runTool(programOf(family), arguments, nothing.get());
}

ProgramAnswer PacketFilter::restore(const std::string& family, const std::string& text) const {
    // A file without a name: the tool may stop reading, and nobody has to wait for it to go on.
    const Descriptor input = memoryFile("rules");
    if (!writeText(input.get(), text) || lseek(input.get(), 0, SEEK_SET) != 0) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot keep the rules: ") + std::strerror(errno));
    }
    return runTool(programOf(family) + "-restore", {"--noflush"}, input.get());
}

RuleListing PacketFilter::list(const std::string& family, const std::string& table,
                               const std::string& chain) const {
    std::vector<std::string> arguments = {"-t", table, "-S"};
    if (!chain.empty()) {
        arguments.push_back(chain);
    }
    const ProgramAnswer answer = run(family, arguments);
    if (answer.status != 0) {
        throw Error(ErrorKind::kSystem,
                    programOf(family) + " cannot list the " + table + " table" + becauseOf(answer));
    }
    return RuleListing::from(answer.output);
}

std::optional<RuleListing> PacketFilter::listPresent(const std::string& family,
                                                     const std::string& table) const {
    if (!hasProgram(family)) {
        return std::nullopt;
    }
    const ProgramAnswer answer = run(family, {"-t", table, "-S"});
    if (answer.status == 0) {
        return RuleListing::from(answer.output);
    }
    if (family != kOptionalFamily || !saysAbsent(answer)) {
        throw Error(ErrorKind::kSystem,
                    programOf(family) + " cannot list the " + table + " table" + becauseOf(answer));
    }
    return std::nullopt;
}

std::map<std::string, RuleListing> PacketFilter::listFilters() const {
    // Most of the time goes into the start of the programs.
    std::future<std::optional<RuleListing>> second =
        std::async(std::launch::async, [this] { return listPresent("v6", "filter"); });
    std::map<std::string, RuleListing> listings;
    const auto keep = [&](const char* family, std::optional<RuleListing> listing) {
        if (listing) {
            listings.emplace(family, std::move(*listing));
        }
    };
    keep("v4", listPresent("v4", "filter"));
    keep("v6", second.get());
    return listings;
}

std::optional<std::map<std::string, RuleListing>> PacketFilter::listChains(
    const std::vector<std::string>& chains) const {
    // "-S" takes one chain; the restoring tool takes many such commands, and reads the table once.
    std::string text = "*filter\n";
    for (const std::string& chain : chains) {
        text += "-S " + chain + "\n";
    }
    text += "COMMIT\n";
    const auto answerOf = [&](const char* family) {
        return hasProgram(family) ? std::optional(restore(family, text)) : std::nullopt;
    };
    std::future<std::optional<ProgramAnswer>> second =
        std::async(std::launch::async, answerOf, kOptionalFamily);
    std::map<std::string, RuleListing> listings;
    bool all = true;
    const auto keep = [&](const char* family, const std::optional<ProgramAnswer>& answer) {
        if (answer && answer->status == 0) {
            listings.emplace(family, RuleListing::from(answer->output));
        } else if (answer && (family != std::string(kOptionalFamily) || !saysAbsent(*answer))) {
            all = false;
        }
    };
    try {
        keep("v4", answerOf("v4"));
        keep(kOptionalFamily, second.get());
    } catch (const Error&) {
        return std::nullopt;
    }
    return all ? std::optional(std::move(listings)) : std::nullopt;
}

bool PacketFilter::isAbsent(const std::string& family) const {
    if (!hasProgram(family)) {
        return true;
    }
    // One chain: the whole table may have thousands of rules.
    return family == kOptionalFamily && saysAbsent(run(family, {"-S", "INPUT"}));
}

std::vector<std::string> PacketFilter::families() const {
    std::vector<std::string> present = {"v4"};
    if (!isAbsent(kOptionalFamily)) {
        present.emplace_back(kOptionalFamily);
    }
    return present;
}

ProgramAnswer PacketFilter::runTool(const std::string& program,
                                    const std::vector<std::string>& arguments, int input) const {
    std::vector<std::string> words = {program, "-w", kLockSeconds};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return runProgram(words, input, [this] { return enter(); });
}

void awaitXtablesLock(LockTime& time) {
    // Both variants are one program under many names: "xtables-nft-multi", which takes no lock.
    const std::unique_ptr<char, decltype(&free)> file(realpath(programOf("v4").c_str(), nullptr),
                                                      &free);
    if (file && std::string(file.get()).find("nft") == std::string::npos) {
        awaitUnlocked(kXtablesLock, time, isFlocked);
    }
}

bool hasProgram(const std::string& family) {
    return family != kOptionalFamily || access(programOf(family).c_str(), X_OK) == 0;
}

std::string programOf(const std::string& family) {
    return family == "v4" ? "/sbin/iptables" : "/sbin/ip6tables";
}

std::string titleOf(const std::string& family) {
    return family == "v4" ? "IPv4" : "IPv6";
}

}  // namespace tarnfw
