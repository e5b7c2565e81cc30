/// What a command says with "--json": the document of one that changes something, and errors.
#pragma once

#include <sys/types.h>

#include <exception>
#include <functional>
#include <string>
#include <vector>

#include <json/json.h>

#include "cli/commandLine.h"
#include "cli/parser.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {

/// Collects what this process and the programs that it runs write to standard output or standard
/// error, from construction to destruction. What nobody has taken is written there at the end.
class CapturedOutput {
public:
    /// `fd` is STDOUT_FILENO or STDERR_FILENO. Throws Error, kSystem.
    explicit CapturedOutput(int fd);
    ~CapturedOutput();
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    /// The lines so far, printable and without "tarnfw: " before them.
    std::vector<std::string> takeLines();

    /// Writes to where the output would have gone.
    void writeThrough(const std::string& text) const;

private:
    std::string take();

    int fd_;
    Descriptor before_;
    Descriptor file_;
    off_t taken_ = 0;  // bytes
};

/// The result of a command that changes something. Without "--json" it prints nothing: the command
/// says what it does as text, on standard output and, by warn(), on standard error. With "--json"
/// these lines are the members "messages" and "warnings" of one document.
class Report {
public:
    /// What is stored has changed.
    void setChanged(bool changed = true) { changed_ = changed; }
    /// Rules were put in force in the kernel.
    void setApplied(bool applied = true) { applied_ = applied; }
    bool isApplied() const { return applied_; }
    /// The profile that the command is about, where it is one.
    void setProfile(const std::string& name) { profile_ = name; }
    /// A further member of the document.
    Json::Value& operator[](const char* member) { return members_[member]; }

    bool isJson() const { return json_; }

    /// With "--json", prints the document as it is now, with the lines so far: for a command that
    /// goes on until somebody else ends it. The lines after it are those of the last document.
    void printNow();

private:
    friend void runReporting(Command& command, Report& report, std::function<void()> action);

    Json::Value document(const std::vector<std::string>& messages,
                         const std::vector<std::string>& warnings) const;

    bool json_ = false;
    CapturedOutput* output_ = nullptr;  // while the command runs
    CapturedOutput* errors_ = nullptr;
    bool changed_ = false;
    bool applied_ = false;
    Json::Value profile_;
    Json::Value members_{Json::objectValue};
};

/// What a command does that changes something; adds "--json" to it. `action` owns the report.
void runReporting(Command& command, Report& report, std::function<void()> action);

/// Whether "--json" is among the words after the tool's name: errors are then documents, too.
bool asksForJson(const std::vector<std::string>& words);

/// The document of an error; `warnings` were said before it.
Json::Value errorDocument(const Error& error, const std::vector<std::string>& warnings);
Json::Value errorDocument(const std::exception& error, const std::vector<std::string>& warnings);

/// The document of wrong usage; `text` is that of wrongUsage().
Json::Value usageDocument(const std::string& text, const std::vector<std::string>& warnings);

}  // namespace tarnfw
