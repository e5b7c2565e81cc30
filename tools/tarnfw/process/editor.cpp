#include "process/editor.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <system_error>

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/process.h"
#include "tarnfwadmin/text.h"

namespace fs = std::filesystem;

namespace tarnfw {
namespace {

// The exit status of a shell for a command that a signal ended, less the signal's number. That for
// a command that it cannot find is kProgramNotRun.
constexpr int kSignalled = 128;

/// Signals that belong to the editor for as long as this exists.
class SignalsIgnored {
public:
    SignalsIgnored() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        for (std::size_t i = 0; i < kSignals.size(); ++i) {
            (void)sigaction(kSignals[i], &ignore, &before_[i]);
        }
    }
    ~SignalsIgnored() { restore(); }
    SignalsIgnored(const SignalsIgnored&) = delete;
    SignalsIgnored& operator=(const SignalsIgnored&) = delete;

    void restore() const {
        for (std::size_t i = 0; i < kSignals.size(); ++i) {
            (void)sigaction(kSignals[i], &before_[i], nullptr);
        }
    }

private:
    static constexpr std::array<int, 2> kSignals = {SIGINT, SIGQUIT};
    std::array<struct sigaction, kSignals.size()> before_{};
};

bool inPath(const std::string& program) {
    const char* const path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "/usr/bin:/bin");
    for (std::string directory; std::getline(directories, directory, ':');) {
        if (access(directory.append("/").append(program).c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

/// The command of the person's editor; empty when there is none.
std::string editorCommand() {
    const std::string chosen = chosenEditor();
    if (!chosen.empty()) {
        return chosen;
    }
    for (const char* const program : {"editor", "vi"}) {
        if (inPath(program)) {
            return program;
        }
    }
    return {};
}

/// The error for the shell's exit status; empty for 0.
std::string failureOf(const std::string& command, int status) {
    const std::string editor = "the editor " + inQuotes(command) + " ";
    if (status == 0) {
        return {};
    }
    if (status == kProgramNotRun) {
        return editor + "cannot be found";
    }
    return status > kSignalled
               ? editor + "was killed by signal " + std::to_string(status - kSignalled)
               : editor + "failed with exit status " + std::to_string(status);
}

}  // namespace

PrivateText::PrivateText(const std::string& name, const std::string& text) {
    std::error_code error;
    directory_ = fs::temp_directory_path(error) / "tarnfw.XXXXXX";
    if (error || mkdtemp(directory_.data()) == nullptr) {
        throw Error(ErrorKind::kSystem,
                    "cannot create a private directory for temporary files: " +
                        (error ? error.message() : std::string(strerror(errno))));
    }
    path_ = directory_ + "/" + name;
    std::ofstream file(path_, std::ios::out | std::ios::binary);
    file << text;
    file.close();
    if (!file) {
        throw Error(ErrorKind::kSystem, "cannot write " + path_);
    }
}

std::string PrivateText::read() const {
    std::ifstream file(path_, std::ios::in | std::ios::binary);
    if (!file) {
        throw Error(ErrorKind::kSystem, "cannot read " + path_);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

void PrivateText::remove() const {
    std::error_code error;
    (void)fs::remove_all(directory_, error);  // nothing depends on it
}

std::string chosenEditor() {
    for (const char* const variable : {"VISUAL", "EDITOR"}) {
        const char* const command = std::getenv(variable);
        if (command != nullptr && *command != '\0') {
            return command;
        }
    }
    return {};
}

std::string runEditor(const std::string& path) {
    const std::string command = editorCommand();
    if (command.empty()) {
        return "there is no editor; set EDITOR to one";
    }
    // Through a shell, because the variables may hold arguments: "code --wait". The trap, which
    // does not reach the editor, keeps the shell waiting for one that does not mind a signal.
    const std::string line = "trap : INT QUIT; " + command + " \"$@\"";
    const SignalsIgnored ignored;
    std::optional<int> status;
    try {
        status = waitStatusOf(startProcess("an editor", [&] {
            ignored.restore();
            return becomeProgram({"/bin/sh", "-c", line, "sh", path});
        }));
    } catch (const Error& error) {
        return error.what();
    }
    if (!status) {
        return "the end of the editor cannot be awaited";
    }
    return failureOf(command,
                     WIFSIGNALED(*status) ? kSignalled + WTERMSIG(*status) : WEXITSTATUS(*status));
}

}  // namespace tarnfw
