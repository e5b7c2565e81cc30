/// tarnfw: the firewall from a terminal. Parses the command line, calls the library, prints.
#include <sys/stat.h>
#include <syslog.h>

#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>
#include <boost/interprocess/exceptions.hpp>

#include "commands.h"

namespace {

int run(int argc, char** argv) {
    CLI::App app(
        "Manages the host firewall: profiles of rules, kept on disk and applied to the "
        "kernel's packet filter.");
    app.name("tarnfw");
    app.require_subcommand(1);
    app.set_version_flag("--version", TARNFW_VERSION);
    app.footer("A first start: \"tarnfw base up\", then \"tarnfw enable\".");
    tarnfw::addControlCommands(app);
    tarnfw::addPreviewCommand(app);
    tarnfw::addProfileCommands(app);
    tarnfw::addBaseCommands(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version);
    } catch (const CLI::ParseError& wrongUsage) {
        (void)app.exit(wrongUsage);
        return tarnfw::kExitUsage;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // What the library writes is for root to change, whatever the caller's mask.
    umask(022);
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
