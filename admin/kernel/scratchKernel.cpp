#include "tarnfwadmin/scratchKernel.h"

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <sstream>
#include <utility>

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

void ScratchKernel::end() const {
    // Closing the pipe is not enough: processes that were forked since may have it open, too.
    (void)kill(holder_, SIGKILL);
    (void)waitStatusOf(holder_);
}

bool ScratchKernel::enter() const {
    return setns(pidfd_.get(), CLONE_NEWNET) == 0 &&
           setenv(kLockVariable, (std::string(kRunDir) + kLockName).c_str(), 1) == 0;
}

void ScratchKernel::setUpBase() const {
    for (const char* const family : {"v4", "v6"}) {
        const auto required = [&](const std::vector<std::string>& arguments) {
            const ProgramAnswer answer = run(family, arguments);
            if (answer.status != 0) {
                throw Error(ErrorKind::kSystem,
                            "no packet filter in a network namespace: " + oneLine(answer.errors));
            }
        };
        for (const std::string& chain : wholeBase().chains) {
            required({"-N", chain});
        }
        for (const auto& [chain, target] : wholeBase().jumps) {
            required({"-A", chain, "-j", target});
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

}  // namespace tarnfw
