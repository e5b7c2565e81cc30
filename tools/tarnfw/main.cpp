/// tarnfw: the firewall from a terminal. Parses the command line, calls the library, prints.
#include <sys/stat.h>
#include <syslog.h>

#include <clocale>
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>
#include <boost/interprocess/exceptions.hpp>

#include "command.h"
#include "commands.h"
#include "usage.h"

namespace {

int run(int argc, char** argv) {
    CLI::App app(
        "Manages the host firewall: profiles of rules, kept on disk and applied to the "
        "kernel's packet filter.");
    app.name("tarnfw");
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
        std::cerr << tarnfw::wrongUsage(app, error);
        return tarnfw::kExitUsage;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // What the library writes is for root to change, whatever the caller's mask.
    umask(022);
    // Names in profiles are UTF-8, whatever the terminal's language.
    (void)std::setlocale(LC_CTYPE, "C.UTF-8");
    // What the library logs is the reason of a failure: shown here as well as in the system log.
    openlog("tarnfw", LOG_PERROR, LOG_USER);
    setlogmask(LOG_UPTO(LOG_WARNING));
    try {
        return run(argc, argv);
    } catch (const tarnfw::CommandFailed& failure) {
        std::cerr << "tarnfw: " << failure.what() << '\n';
        return failure.status();
    } catch (const boost::interprocess::interprocess_exception& error) {
        std::cerr << "tarnfw: a lock file below /var/lock/firewall cannot be opened: "
                  << error.what() << '\n';
    } catch (const std::exception& error) {
        std::cerr << "tarnfw: " << error.what() << '\n';
    }
    return tarnfw::kExitFailed;
}
