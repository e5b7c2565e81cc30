/// Running a program with text on its standard input, which the platform's functions do not offer.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "fwSpawn.h"

namespace FW {

/// The lock that the programs of iptables' legacy variant hold while they change a table, held from
/// construction to destruction. Where this library runs several of them, the lock has to span all:
/// each would wait for the other.
class XtablesLock {
public:
    /// Waits up to 30 s. errno holds why it is not held: EWOULDBLOCK when others had it.
    XtablesLock();
    ~XtablesLock();
    XtablesLock(const XtablesLock&) = delete;
    XtablesLock& operator=(const XtablesLock&) = delete;

    bool held() const { return held_; }

private:
    Descriptor file_;
    bool held_ = false;
};

/// What a run left.
struct ToolResult {
    /// The exit status, as waitForProgram() returns it. Empty where the caller's process ignores
    /// the ends of its children or another part of it has collected this one: the output has to
    /// show it then.
    std::optional<int> status;
    std::string output;
    std::string errors;
};

/// One run of a program of iptables: no shell, a fixed environment, default signals, none of the
/// caller's descriptors. What it prints is kept in memory, so it never waits for a reader, and no
/// thread is needed. Over at the latest with the object: the destructor ends its input and waits.
///
/// The program does not take the lock that those of the legacy variant share: XtablesLock does.
class ToolRun {
public:
    /// Starts a program, `arguments[0]` being its path, that gets `input` as its standard input.
    ToolRun(const std::vector<std::string>& arguments, const std::string& input);

    /// The same for input that comes piece by piece, see feed().
    explicit ToolRun(const std::vector<std::string>& arguments);

    /// How much a program keeps back of what it prints, until it prints more or ends.
    static std::size_t outputBufferBytes();

    ~ToolRun();
    ToolRun(const ToolRun&) = delete;
    ToolRun& operator=(const ToolRun&) = delete;

    /// Hands on a piece of input, without waiting for the program where the system lets the caller
    /// keep that much for it. Does nothing when the program has ended, which its result shows.
    void feed(const std::string& text);

    /// Waits until the program has printed `line`. Returns false when it ends without that, and
    /// after five minutes: the largest rulesets take seconds.
    bool awaitOutput(const std::string& line);

    /// No further input comes.
    void endInput();

    /// Ends the input, waits for the program and returns what it left. When it could not be
    /// started, `errors` says why and `status` is 127. To be called once.
    ToolResult finish();

private:
    void start(const std::vector<std::string>& arguments, int input);
    std::optional<int> wait();

    pid_t pid_ = -1;
    int startError_ = 0;
    Descriptor input_;
    Descriptor output_;
    Descriptor errors_;
};

}  // namespace FW
