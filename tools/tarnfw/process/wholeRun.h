/// Work that must not end in its middle, such as a reload: the machine is closed meanwhile.
#pragma once

#include <functional>
#include <string>

namespace tarnfw {

/// Runs `change` to its end, in a process and a session of its own: neither Ctrl-C nor a terminal
/// or an SSH connection that is lost reaches it or the programs that it runs, and signals to this
/// process take effect when it is done. Says "`what` ..." on the terminal meanwhile.
/// What is written to standard error by then comes when it is done; the lines of the library's log
/// only when it failed.
/// Returns what `change` returns. Throws Error with the reason where it throws, or where it
/// was killed. What it changes in memory is lost.
bool runWhole(const std::string& what, const std::function<bool()>& change);

}  // namespace tarnfw
