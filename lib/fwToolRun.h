/// Runs a program with text on its standard input, which the platform's functions cannot do.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "fwSpawn.h"

namespace FW {

/// The result of a run.
struct ToolResult {
    /// The exit status, as waitForProgram() returns it. Empty if the caller's process ignores
    /// SIGCHLD or another part of it has collected this child: then only the output shows the
    /// result.
    std::optional<int> status;
    std::string output;
    std::string errors;
};

/// One run of a program of iptables: no shell, a fixed environment, default signals, none of the
/// caller's descriptors. Its output is kept in memory, so it never waits for a reader, and no
/// thread is needed. The destructor ends its input and waits for it.
///
/// The program does not take the lock of the legacy variant; use XtablesLock.
class ToolRun {
public:
    /// Starts the program `arguments[0]` with `input` as its standard input.
    ToolRun(const std::vector<std::string>& arguments, const std::string& input);

    /// The same, with input that is passed piece by piece, see feed().
    explicit ToolRun(const std::vector<std::string>& arguments);

    /// How much output a program buffers before it writes it.
    static std::size_t outputBufferBytes();

    ~ToolRun();
    ToolRun(const ToolRun&) = delete;
    ToolRun& operator=(const ToolRun&) = delete;

    /// Whether there is no such program.
    bool isMissing() const;

    /// Sends a piece of input. Does not wait for the program if the system lets the caller buffer
    /// that much. Does nothing when the program has ended, which its result shows. If sending
    /// fails, kills the program, which must not take the part that it got for the whole; finish()
    /// then says why.
    void feed(const std::string& text);

    /// Waits until the program has printed `line`. Returns false when it ends or waits for further
    /// input without that, when it was killed, and after five minutes: the largest rulesets take
    /// seconds.
    bool awaitOutput(const std::string& line);

    /// Ends the input.
    void endInput();

    /// Ends the input, waits for the program and returns its result. If it could not be started,
    /// `errors` has the reason and `status` is 127. Call it once.
    ToolResult finish();

private:
    void start(const std::vector<std::string>& arguments, int input);
    std::optional<int> wait();
    void kill();
    bool waitsForInput() const;

    pid_t pid_ = -1;
    int startError_ = 0;
    int feedError_ = 0;
    bool wasKilled_ = false;
    Descriptor input_;
    Descriptor output_;
    Descriptor errors_;
};

}  // namespace FW
