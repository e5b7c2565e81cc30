#include "tarnfwadmin/packetFilter.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <future>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

#include <boost/algorithm/string/predicate.hpp>

#include "tarnfirewall/fwBatch.h"

#include "fwXtablesLock.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

// Other programs change the packet filter as well, at boot most of all.
constexpr char kLockSeconds[] = "30";

constexpr mode_t kXtablesLockMode = 0600;  // as iptables makes it

// Where that variant looks for its lock, and a file that nobody else locks: the program's input.
constexpr char kOwnLock[] = "XTABLES_LOCKFILE=/proc/self/fd/0";

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

namespace {

/// Cuts the first line off a text.
std::string_view takeLine(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

/// Cuts the first word off a line.
std::string_view takeWord(std::string_view& line) {
    const std::string_view word = line.substr(0, line.find(' '));
    line.remove_prefix(std::min(word.size() + 1, line.size()));
    return word;
}

/// Collects the rules of a listing. Those of a chain follow each other, and may be thousands.
class RuleSink {
public:
    explicit RuleSink(RuleListing& listing) : listing_(listing) {}

    void add(std::string_view chain, std::string_view rule) {
        if (rules_ == nullptr || chain != chain_) {
            rules_ = &listing_.chains[std::string(chain)];
            chain_ = chain;
        }
        rules_->emplace_back(rule);
    }

private:
    RuleListing& listing_;
    std::string_view chain_;
    std::vector<std::string>* rules_ = nullptr;
};

}  // namespace

RuleListing RuleListing::from(const std::string& text) {
    RuleListing listing;
    RuleSink rules(listing);
    std::string_view lines = text;
    while (!lines.empty()) {
        const std::string_view line = takeLine(lines);
        std::string_view words = line;
        const std::string_view kind = takeWord(words);
        const std::string_view chain = takeWord(words);
        if (kind == "-A") {
            rules.add(chain, line);
        } else if (kind == "-P" || kind == "-N") {
            listing.chains[std::string(chain)];
            if (kind == "-P") {
                listing.policies[std::string(chain)] = takeWord(words);
            }
        }
    }
    return listing;
}

RuleListing RuleListing::fromSaved(const std::string& text) {
    RuleListing listing;
    RuleSink rules(listing);
    std::string_view lines = text;
    while (!lines.empty()) {
        std::string_view line = takeLine(lines);
        if (boost::starts_with(line, "[")) {
            (void)takeWord(line);  // the rule's counters
        }
        std::string_view words = line;
        const std::string_view first = takeWord(words);
        const std::string_view second = takeWord(words);
        if (first == "-A") {
            rules.add(second, line);
        } else if (first.size() > 1 && first[0] == ':') {
            const std::string chain(first.substr(1));
            listing.chains[chain];
            if (second != "-") {
                listing.policies[chain] = second;
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
                                const std::vector<std::string>& arguments, Others others) const {
    const Descriptor nothing = memoryFile("nothing");  // a file, for kOwnLock
    return runTool(programOf(family), arguments, nothing.get(), others);
}

ProgramAnswer PacketFilter::restore(const std::string& family, const std::string& text,
                                    Others others) const {
    // A file without a name: the tool may stop reading, and nobody has to wait for it to go on.
    const Descriptor input = memoryFile("rules");
    if (!writeText(input.get(), text) || lseek(input.get(), 0, SEEK_SET) != 0) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot keep the rules: ") + std::strerror(errno));
    }
    return runTool(programOf(family) + "-restore", {"--noflush"}, input.get(), others);
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
                                                     const std::string& table,
                                                     Others others) const {
    if (!hasProgram(family)) {
        return std::nullopt;
    }
    const ProgramAnswer answer = run(family, {"-t", table, "-S"}, others);
    if (answer.status == 0) {
        return RuleListing::from(answer.output);
    }
    if (family != kOptionalFamily || !saysAbsent(answer)) {
        throw Error(ErrorKind::kSystem,
                    programOf(family) + " cannot list the " + table + " table" + becauseOf(answer));
    }
    return std::nullopt;
}

std::map<std::string, RuleListing> PacketFilter::listFilters(Others others) const {
    // Most of the time goes into the start of the programs.
    std::future<std::optional<RuleListing>> second =
        std::async(std::launch::async, [&] { return listPresent("v6", "filter", others); });
    std::map<std::string, RuleListing> listings;
    const auto keep = [&](const char* family, std::optional<RuleListing> listing) {
        if (listing) {
            listings.emplace(family, std::move(*listing));
        }
    };
    keep("v4", listPresent("v4", "filter", others));
    keep("v6", second.get());
    return listings;
}

std::optional<std::map<std::string, RuleListing>> PacketFilter::listChains(
    const std::map<std::string, ChainGroups>& families) const {
    const auto listGroup = [&](const std::string& family, const std::vector<std::string>& group) {
        // "-S" takes one chain; the restoring tool takes many such commands.
        std::string text = "*filter\n";
        for (const std::string& chain : group) {
            text += "-S " + chain + "\n";
        }
        const ProgramAnswer answer = restore(family, text + "COMMIT\n", Others::kIgnored);
        return answer.status == 0 ? std::optional(RuleListing::from(answer.output)) : std::nullopt;
    };
    using Group = std::future<std::optional<RuleListing>>;
    std::vector<std::pair<std::string, Group>> running;
    for (const auto& [family, groups] : families) {
        for (const std::vector<std::string>& group : groups) {
            running.emplace_back(family, std::async(std::launch::async, listGroup, family, group));
        }
    }
    std::map<std::string, RuleListing> listings;
    bool all = true;
    for (auto& [family, group] : running) {
        try {
            std::optional<RuleListing> listing = group.get();
            all = all && listing;
            if (listing) {
                listings[family].policies.merge(listing->policies);
                listings[family].chains.merge(listing->chains);
            }
        } catch (const Error&) {
            all = false;
        }
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
                                    const std::vector<std::string>& arguments, int input,
                                    Others others) const {
    std::vector<std::string> words = {program, "-w", kLockSeconds};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return runProgram(words, input, entrance(), 0, others == Others::kAwaited ? "" : kOwnLock);
}

void awaitXtablesLock(LockTime& time) {
    if (!isNftVariant("v4")) {
        awaitUnlocked(FW::kXtablesLockPath, time, isFlocked);
    }
}

bool canOpenXtablesLock() {
    return static_cast<bool>(
        Descriptor(open(FW::kXtablesLockPath, O_RDONLY | O_CREAT | O_CLOEXEC, kXtablesLockMode)));
}

bool isNftVariant(const std::string& family) {
    std::error_code ignored;
    const auto file = std::filesystem::canonical(programOf(family), ignored);
    return file.filename().string().find("nft") != std::string::npos;
}

bool hasProgram(const std::string& family) {
    // Any other failure is none to look for it: running it then says what is wrong.
    return family != kOptionalFamily || access(programOf(family).c_str(), X_OK) == 0 ||
           (errno != ENOENT && errno != EACCES);
}

std::string programOf(const std::string& family) {
    return family == "v4" ? "/sbin/iptables" : "/sbin/ip6tables";
}

std::string titleOf(const std::string& family) {
    return family == "v4" ? "IPv4" : "IPv6";
}

}  // namespace tarnfw
