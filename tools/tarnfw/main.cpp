/// tarnfw: the firewall from a terminal. Parses the command line, calls the library, prints.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/output.h"
#include "cli/parser.h"
#include "cli/report.h"
#include "cli/usage.h"
#include "commands/commands.h"
#include "process/heldLog.h"

namespace {

/// Wrong usage; the text is that of wrongUsage(), some lines.
class WrongUsage : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

int run(const std::vector<std::string>& words) {
    tarnfw::Command tool("tarnfw",
                         "Manages the host firewall: profiles of rules, stored on disk and applied "
                         "to the kernel's packet filter.");
    tool.version(TARNFW_VERSION);
    tool.footer("To begin, run \"tarnfw base up\", then \"tarnfw enable\".");
    tarnfw::addCommands(tool);
    try {
        if (const auto error = tarnfw::runCommandLine(tool, words)) {
            throw WrongUsage(tarnfw::wrongUsage(tool, *error, words));
        }
    } catch (const tarnfw::CommandEnded& ended) {
        return ended.status();
    }
    return 0;
}

/// The same with "--json": what fails is a document on standard output, with all that was written
/// to standard error before it.
int runWithDocuments(const std::vector<std::string>& words) {
    Json::Value document;
    int status = 0;
    {
        tarnfw::CapturedOutput errors(STDERR_FILENO);
        try {
            return run(words);
        } catch (const WrongUsage& wrong) {
            document = tarnfw::usageDocument(wrong.what(), errors.takeLines());
            status = tarnfw::kExitUsage;
        } catch (const tarnfw::Error& failure) {
            document = tarnfw::errorDocument(failure, errors.takeLines());
            status = tarnfw::exitStatusOf(failure.kind());
        } catch (const std::exception& error) {
            document = tarnfw::errorDocument(error, errors.takeLines());
            status = tarnfw::kExitFailed;
        }
    }
    tarnfw::printJson(document);
    return status;
}

// With these, the programs that the tool runs would load code from another place, or not wait for
// other programs. An ordinary user may have set them, where "sudo" keeps the environment.
// Not those of the loader: it has obeyed them for this program already.
constexpr std::array<const char*, 4> kNotPassedOn = {
    "XTABLES_LIBDIR", "IPTABLES_LIB_DIR", "IP6TABLES_LIB_DIR",  // where iptables finds extensions
    "XTABLES_LOCKFILE",                                         // a lock that nobody else takes
};

void clearEnvironment() {
    for (const char* const variable : kNotPassedOn) {
        (void)unsetenv(variable);
    }
}

/// Opens standard input, output and error if the caller closed them: otherwise a profile's file
/// would get the number, and the output. Writing to a closed output fails.
void openStandardFiles() {
    const std::array<const char*, 3> paths = {"/dev/null", "/dev/full", "/dev/null"};
    for (int fd = 0; fd < static_cast<int>(paths.size()); ++fd) {
        if (fcntl(fd, F_GETFD) == -1) {
            // open() returns the lowest free number, this one.
            (void)open(paths.at(static_cast<std::size_t>(fd)), O_RDWR);
        }
    }
}

/// Whether nobody reads what is written there.
bool isClosedPipe(int fd) {
    pollfd pipe{fd, POLLOUT, 0};
    return poll(&pipe, 1, 0) == 1 && (pipe.revents & POLLERR) != 0;
}

/// The exit status of a command that ended with `status`: an answer that could not be written is a
/// failure.
int statusOfAnswer(int status) {
    const bool isAnswer = status == 0 || status == tarnfw::kExitNotRoot ||
                          status == tarnfw::kExitUnknown || status == tarnfw::kExitBlocked ||
                          status == tarnfw::kExitNotInForce;
    errno = 0;
    std::cout.flush();
    if (std::cout.good() || !isAnswer) {
        return status;
    }
    if (isClosedPipe(STDOUT_FILENO)) {
        return tarnfw::kExitFailed;  // somebody has read enough: "tarnfw services | head -3"
    }
    std::cerr << "tarnfw: cannot write the output"
              << (errno != 0 ? std::string(": ").append(std::strerror(errno)) : "") << '\n';
    return tarnfw::kExitFailed;
}

/// Runs the command and prints the cause when it fails.
int runSaying(int argc, char** argv) {
    try {
        const std::vector<std::string> words(argv + 1, argv + argc);
        if (tarnfw::asksForJson(words)) {
            return statusOfAnswer(runWithDocuments(words));
        }
        tarnfw::holdLog();
        return statusOfAnswer(run(words));
    } catch (const WrongUsage& wrong) {
        std::cerr << wrong.what();
        return tarnfw::kExitUsage;
    } catch (const tarnfw::Error& failure) {
        std::cerr << "tarnfw: " << tarnfw::messageOf(failure) << '\n';
        return tarnfw::exitStatusOf(failure.kind());
    } catch (const std::exception& error) {
        std::cerr << "tarnfw: " << tarnfw::reasonOf(error) << '\n';
    }
    return tarnfw::kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
    openStandardFiles();
    clearEnvironment();
    // Only root may change what the library writes, whatever the caller's mask.
    umask(022);
    // Names in profiles are UTF-8, whatever the terminal's language.
    (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    // The library's log has the reason for a failure: print it, too.
    openlog("tarnfw", LOG_PERROR, LOG_USER);
    setlogmask(LOG_UPTO(LOG_WARNING));
    const int status = runSaying(argc, argv);
    tarnfw::printHeldLog();
    return status;
}
