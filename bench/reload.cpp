/// Whole reloads on a real packet filter, beside bare runs of the same commands:
///
///   bench_reload store RULES lines|batch    makes a profile of so many rules the active one
///   bench_reload texts DIRECTORY            its input for iptables-restore, as v4 and v6
///   bench_reload reload                     the library's reload, and nothing else
///   bench_reload run SIDE...                reloads once by each side, and prints "SIDE WALL CPU",
///                                           then its peak size
///
/// The sides are "library"; "lines", the same command lines run by posix_spawn alone; "lines+tool",
/// with a run of the tool that the library asks for every rule's adapter; "restore", both programs
/// fed with the same text; and "apply", the library's transaction without the reading of the
/// profile and its translation. Two more are separate programs: "program", which does nothing
/// but the library's reload, and "tarnfw reload", the command, whose path is in $TARNFW. Times are
/// seconds, of the clock and of all processors.
#include <fcntl.h>
#include <json/json.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tarnfirewall/fwBatch.h"
#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/tarnFW.h"

#include "support/files.h"
#include "support/peak.h"
#include "support/profiles.h"

namespace {

using Words = std::vector<std::string>;

constexpr char kAdapter[] = "eth0";
constexpr char kProfile[] = "p0";

// The texts of the two families, for the programs' standard input.
constexpr char kTextV4[] = "/tmp/bench.v4";
constexpr char kTextV6[] = "/tmp/bench.v6";

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "bench_reload: %s\n", what.c_str());
    std::exit(1);
}

// ---- Commands -----------------------------------------------------------------------------------

void spawn(const Words& words, const char* input) {
    std::vector<char*> argv;
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    (void)posix_spawn_file_actions_init(&actions);
    (void)posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input, O_RDONLY, 0);
    (void)posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    int status = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0) {
        fail("failed: " + words[0] + " " + words.back());
    }
    (void)posix_spawn_file_actions_destroy(&actions);
}

Words wordsOf(const std::string& line) {
    std::istringstream stream(line);
    Words words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

Json::Value activeCommands() {
    Json::Value commands;
    if (!FW::TARNFW().fwIptablesRulesEnum(kProfile, commands, true)) {
        fail("no commands");
    }
    return commands;
}

/// The same lines without a run of the tool for every rule.
Json::Value activeBatchCommands() {
    Json::Value commands;
    if (!FW::TARNFW().fwBatchRulesEnum(kProfile, commands, true, "")) {
        fail("no commands");
    }
    return commands;
}

/// Appends the lines of one family in the order in which a reload runs them.
void appendFamily(const Json::Value& family, const std::string& tool, std::vector<Words>& all) {
    const auto append = [&](const std::string& adapter) {
        for (const Json::Value& line : family[adapter]) {
            all.push_back(wordsOf(tool + " " + line.asString()));
        }
    };
    append("global");
    for (const std::string& adapter : family.getMemberNames()) {
        if (adapter != "global") {
            append(adapter);
        }
    }
}

/// Every command line of a reload: close, flush, rules, open.
std::vector<Words> reloadLines() {
    const Json::Value commands = activeCommands();
    std::vector<Words> all;
    const auto policies = [&](const std::string& policy, const std::string& change) {
        for (const char* const tool : {"/sbin/iptables ", "/sbin/ip6tables "}) {
            for (const char* const chain : {"INPUT ", "FORWARD "}) {
                all.push_back(wordsOf(std::string(tool) + "--policy " + chain + policy));
            }
            all.push_back(wordsOf(tool + change +
                                  " FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED "
                                  "-j ACCEPT"));
        }
    };
    policies("DROP", "-A");
    for (const char* const chain : {"INPUT_FIREWALL", "FORWARD_FIREWALL"}) {
        for (const char* const tool : {"/sbin/iptables -F ", "/sbin/ip6tables -F "}) {
            all.push_back(wordsOf(std::string(tool) + chain));
        }
    }
    appendFamily(commands["v4"], "/sbin/iptables", all);
    appendFamily(commands["v6"], "/sbin/ip6tables", all);
    policies("ACCEPT", "-D");
    return all;
}

/// The questions for the router interface of each rule's adapter.
std::vector<Words> toolLines() {
    FW::FWPROFILE profile;
    if (!FW::TARNFW_JSON_DB().profileGet(kProfile, profile)) {
        fail("no profile");
    }
    const std::size_t rules = profile.rules[kAdapter].size() + 1;  // and the default policy
    return std::vector<Words>(
        rules, {"/usr/tarn/sbin/tarnnetdtool", "--get-ipv6-router-interface", kAdapter});
}

void writeTexts(const std::string& v4, const std::string& v6) {
    const Json::Value commands = activeBatchCommands();
    writeFile(v4, FW::FW_BATCH().restoreText(commands, "v4"));
    writeFile(v6, FW::FW_BATCH().restoreText(commands, "v6"));
}

// ---- Sides --------------------------------------------------------------------------------------

using Work = std::function<void()>;

Work runAll(const std::vector<Words>& lines) {
    return [lines] {
        for (const Words& line : lines) {
            spawn(line, "/dev/null");
        }
    };
}

/// Prepares a side, so that only its work is measured.
Work sideOf(const std::string& name) {
    if (name == "library") {
        return [] {
            if (!FW::TARNFW().fwReload(true)) {
                fail("the reload failed");
            }
        };
    }
    if (name == "program") {
        return [] { spawn({"/proc/self/exe", "reload"}, "/dev/null"); };
    }
    if (name == "tarnfw reload") {
        const char* const tool = std::getenv("TARNFW");
        if (tool == nullptr) {
            fail("TARNFW is not set");
        }
        return [path = std::string(tool)] { spawn({path, "reload"}, "/dev/null"); };
    }
    if (name == "lines") {
        return runAll(reloadLines());
    }
    if (name == "lines+tool") {
        std::vector<Words> lines = reloadLines();
        const std::vector<Words> tool = toolLines();
        lines.insert(lines.end(), tool.begin(), tool.end());
        return runAll(lines);
    }
    if (name == "apply") {
        return [commands = activeBatchCommands()] {
            if (!FW::FW_BATCH().apply(commands)) {
                fail("the transaction failed");
            }
        };
    }
    if (name == "restore") {
        writeTexts(kTextV4, kTextV6);
        return [] {
            spawn({"/sbin/iptables-restore", "--noflush", "--wait", "30"}, kTextV4);
            spawn({"/sbin/ip6tables-restore", "--noflush", "--wait", "30"}, kTextV6);
        };
    }
    fail("no such side: " + name);
}

double processorSeconds() {
    double seconds = 0;
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        (void)getrusage(who, &usage);
        for (const timeval& part : {usage.ru_utime, usage.ru_stime}) {
            seconds += static_cast<double>(part.tv_sec) + 1e-6 * static_cast<double>(part.tv_usec);
        }
    }
    return seconds;
}

double clockSeconds() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

void run(const std::string& side) {
    const Work work = sideOf(side);
    const double clock = clockSeconds();
    const double processor = processorSeconds();
    work();
    std::printf("%s %.6f %.6f\n", side.c_str(), clockSeconds() - clock,
                processorSeconds() - processor);
    (void)std::fflush(stdout);
}

// ---- The profile --------------------------------------------------------------------------------

/// Port 443 is open to everybody, then come the rules, then everything is denied.
void store(int rules, const std::string& mode) {
    FW::FWPROFILE profile = makeProfile(kProfile, RuleKind::Plain, rules);
    FW::FWRULE open;
    open.ipGroup = FW::FW_IP_GROUP_ANY;
    open.portGroup = FW::FW_PORT_GROUP_PORTS;
    open.portList = {"443"};
    std::vector<FW::FWRULE>& list = profile.rules[kAdapter];
    list.insert(list.begin(), open);
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    writeFile(kProfileDir + "1.json", Json::StyledWriter().write(document));
    Json::Value settings;
    settings["status"] = true;
    settings["profile"] = kProfile;
    settings["apply"] = mode;
    writeFile(kSettingsFile, Json::StyledWriter().write(settings));
    letFilesAge();
}

}  // namespace

int main(int argc, char** argv) {
    requireSandbox();
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "store" && argc == 4) {
        store(std::atoi(argv[2]), argv[3]);
    } else if (command == "texts" && argc == 3) {
        writeTexts(argv[2] + std::string("/v4"), argv[2] + std::string("/v6"));
    } else if (command == "reload" && argc == 2) {
        return FW::TARNFW().fwReload(true) ? 0 : 1;
    } else if (command == "run" && argc > 2) {
        for (int i = 2; i < argc; ++i) {
            run(argv[i]);
        }
        tellPeak(stdout);
    } else {
        fail("store RULES lines|batch, texts DIRECTORY, reload, or run SIDE...");
    }
    return 0;
}
