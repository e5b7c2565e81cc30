/// tarnfw: the firewall from a terminal. Parses the command line, calls the library, prints.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "cli/command.h"
#include "cli/helpFormat.h"
#include "cli/usage.h"
#include "commands/commands.h"

namespace {

int run(int argc, char** argv) {
    CLI::App app(
        "Manages the host firewall: profiles of rules, kept on disk and applied to the "
        "kernel's packet filter.");
    app.name("tarnfw");
    app.formatter(std::make_shared<tarnfw::HelpFormat>());
    app.require_subcommand(1);
    app.set_version_flag("--version", TARNFW_VERSION);
    app.footer("A first start: \"tarnfw base up\", then \"tarnfw enable\".");
    tarnfw::addCommands(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& answered) {  // help, or the version
        return app.exit(answered);
    } catch (const CLI::RuntimeError& ended) {
        return ended.get_exit_code();
    } catch (const CLI::ParseError& error) {
        std::cerr << tarnfw::wrongUsage(app, error, {argv + 1, argv + argc});
        return tarnfw::kExitUsage;
    }
    return 0;
}

/// Opens what a caller has closed of standard input, output and error: a profile's file would
/// otherwise take the number, and get what is printed. Writing to a closed output fails.
void openStandardFiles() {
    const std::array<const char*, 3> paths = {"/dev/null", "/dev/full", "/dev/null"};
    for (int fd = 0; fd < static_cast<int>(paths.size()); ++fd) {
        if (fcntl(fd, F_GETFD) == -1) {
            // The lowest number that is free: this one.
            (void)open(paths.at(static_cast<std::size_t>(fd)), O_RDWR);
        }
    }
}

/// The exit status of a command that ended with `status`: an answer that nobody got is a failure.
int statusOfAnswer(int status) {
    errno = 0;
    std::cout.flush();
    if (std::cout.good() || status != 0) {
        return status;
    }
    std::cerr << "tarnfw: the answer cannot be written"
              << (errno != 0 ? std::string(": ").append(std::strerror(errno)) : "") << '\n';
    return tarnfw::kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
    openStandardFiles();
    // What the library writes is for root to change, whatever the caller's mask.
    umask(022);
    // Names in profiles are UTF-8, whatever the terminal's language.
    (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    // What the library logs is the reason of a failure: shown here as well as in the system log.
    openlog("tarnfw", LOG_PERROR, LOG_USER);
    setlogmask(LOG_UPTO(LOG_WARNING));
    try {
        return statusOfAnswer(run(argc, argv));
    } catch (const tarnfw::Error& failure) {
        std::cerr << "tarnfw: " << failure.what() << '\n';
        return tarnfw::exitStatusOf(failure.kind());
    } catch (const tarnfw::UsageError& failure) {
        std::cerr << "tarnfw: " << failure.what() << '\n';
        return tarnfw::kExitUsage;
    } catch (const std::exception& error) {
        std::cerr << "tarnfw: " << tarnfw::reasonOf(error) << '\n';
    }
    return tarnfw::kExitFailed;
}
