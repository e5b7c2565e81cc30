#include "tarnfwadmin/scratchKernel.h"

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <set>
#include <sstream>
#include <utility>

#include "tarnfirewall/fwBatch.h"
#include "tarnfirewall/fwIptables.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/process.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

// The legacy variant's lock serialises programs that change one filter. Nobody else changes that
// of a scratch namespace, and a reload must not wait for it.
constexpr char kLockVariable[] = "XTABLES_LOCKFILE";
constexpr char kLockName[] = "/scratch_kernel.lock";

constexpr std::array kFamilies = {"v4", "v6"};

/// The families whose lines the kernel does not take as one text.
std::vector<std::string> familiesRefused(const ScratchKernel& kernel, const Json::Value& commands) {
    std::vector<std::string> refused;
    for (const char* const family : kFamilies) {
        if (!hasProgram(family)) {
            continue;
        }
        const std::string text = FW::FW_BATCH().restoreText(commands, family);
        if ((text.empty() || kernel.restore(family, text).status != 0) &&
            !kernel.isAbsent(family)) {
            refused.emplace_back(family);
        }
    }
    return refused;
}

}  // namespace

// ---- ScratchKernel ------------------------------------------------------------------------------

ScratchKernel::ScratchKernel() {
    makeDirectory(kRunDir);
    Pipe ready;
    Pipe hold;
    holder_ = startProcess("a process for a network namespace", [&] {
        // Lives until the pipe is closed, at the latest when the tool ends.
        (void)hold.writeEnd.close();
        char byte = 0;
        if (unshare(CLONE_NEWNET) == 0 && write(ready.writeEnd.get(), &byte, 1) == 1) {
            while (read(hold.readEnd.get(), &byte, 1) < 0 && errno == EINTR) {
            }
        }
        return 0;
    });
    hold_ = std::move(hold.writeEnd);
    (void)ready.writeEnd.close();
    // By number: the C library's header for it is not one for C++.
    pidfd_ = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, holder_, 0)));
    char byte = 0;
    if (!pidfd_ || read(ready.readEnd.get(), &byte, 1) != 1) {
        end();
        throw Error(ErrorKind::kSystem,
                    "this system does not allow a network namespace to load rules in");
    }
    try {
        setUpBase();
    } catch (...) {
        end();
        throw;
    }
}

ScratchKernel::~ScratchKernel() {
    end();
}

void ScratchKernel::end() {
    // Either is enough, unless processes that were forked since have the pipe open, too.
    (void)hold_.close();
    (void)kill(holder_, SIGKILL);
    (void)waitStatusOf(holder_);
}

bool ScratchKernel::enter() const {
    return setns(pidfd_.get(), CLONE_NEWNET) == 0 &&
           setenv(kLockVariable, (std::string(kRunDir) + kLockName).c_str(), 1) == 0;
}

void ScratchKernel::setUpBase() const {
    std::string text = "*filter\n";
    for (const std::string& chain : wholeBase().chains) {
        text.append(":").append(chain).append(" - [0:0]\n");
    }
    for (const auto& [chain, target] : wholeBase().jumps) {
        text.append("-A ").append(chain).append(" -j ").append(target).append("\n");
    }
    text += "COMMIT\n";
    for (const char* const family : kFamilies) {
        if (!hasProgram(family)) {
            continue;
        }
        const ProgramAnswer answer = restore(family, text);
        if (answer.status != 0 && !isAbsent(family)) {
            throw Error(ErrorKind::kSystem,
                        "the scratch kernel cannot be set up: " + oneLine(answer.errors));
        }
    }
}

std::string ScratchKernel::load(const TracedLine& line) const {
    std::istringstream text(line.line);
    std::vector<std::string> words;
    for (std::string word; std::getline(text, word, ' ');) {
        if (!word.empty()) {
            words.push_back(word);
        }
    }
    const ProgramAnswer answer = run(line.family, words);
    return answer.status == 0 ? std::string() : oneLine(answer.errors);
}

void ScratchKernel::addChainsOf(const Json::Value& commands, const PacketFilter& machine) const {
    std::set<std::array<std::string, 3>> places;
    for (const char* const family : kFamilies) {
        for (const Json::Value& lines : commands[family]) {
            for (const Json::Value& line : lines) {
                const TableAndChain place = chainOf(line.asString());
                if (!isFirewallChain(place)) {
                    places.insert({family, place.first, place.second});
                }
            }
        }
    }
    for (const auto& [family, table, chain] : places) {
        if (hasProgram(family) && machine.run(family, {"-t", table, "-S", chain}).status == 0) {
            (void)run(family, {"-t", table, "-N", chain});  // fails for a built-in one
        }
    }
}

// ---- Refused lines ------------------------------------------------------------------------------

std::vector<RefusedLine> refusedLines(const FW::FWPROFILE& profile,
                                      FW::TARNFW_IPTABLES_RULES& translation) {
    Json::Value commands;
    (void)translation.fwRulesToBatchRules(true, profile.rules, profile.adapterPolicyMap, commands,
                                          "");  // a failure is one for each rule, below
    const ScratchKernel kernel;
    kernel.addChainsOf(commands, MachineKernel());
    const std::vector<std::string> families = familiesRefused(kernel, commands);
    std::vector<RefusedLine> refused;
    if (families.empty()) {
        return refused;
    }
    for (const TracedLine& line : tracedLines(profile, ApplyMode::kBatch)) {
        if (std::find(families.begin(), families.end(), line.family) == families.end()) {
            continue;
        }
        const std::string reason = kernel.load(line);
        if (!reason.empty()) {
            refused.push_back({line, reason});
        }
    }
    return refused;
}

}  // namespace tarnfw
