/// Work that must not be interrupted, such as a reload: the machine is closed meanwhile.
#pragma once

#include <functional>
#include <string>

namespace tarnfw {

/// How detached work ended.
struct DetachedRun {
    bool succeeded = false;  ///< what the work returned
    std::string failure;     ///< why it did not return: it threw, or was killed; else empty
    std::string messages;    ///< what it wrote to standard error; of the log only when it failed
};

/// Runs `work` to its end, in a process and a session of its own: neither Ctrl-C nor a terminal or
/// an SSH connection that is lost reaches it or the programs that it runs, and signals to this
/// process take effect when it is done. What it changes in memory is lost. `meanwhile` runs in this
/// process at the same time; what it throws is thrown when the work is done.
/// Throws Error, kSystem, when the work cannot be started.
DetachedRun runDetached(const std::function<bool()>& work,
                        const std::function<void()>& meanwhile = {});

}  // namespace tarnfw
