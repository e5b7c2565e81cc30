/// Both ways of putting rules into the kernel, for the tests that compare them:
///
///     rules_probe lines FILE               fwClear() and fwExec() of a command document
///     rules_probe batch FILE               FW_BATCH::apply() of one; status 1 when it refuses
///     rules_probe closed                   closes the machine as a reload in "lines" does
///     rules_probe reload                   reloads as other programs do, without the tool's checks
///     rules_probe save                     prints the rules of the firewall's chains
///     rules_probe put-back FILE            puts them into the kernel again
///     rules_probe hup                      TARNFwRuleHup(), as a service of the system calls it
///     rules_probe reset                    TARNFwReset(), likewise
///     rules_probe compare PROFILE...       each of these profile files both ways: same listing?
///     rules_probe random SEED COUNT LINK...  the same for random profiles on these links
///     rules_probe kill SEED COUNT A B      kills batches of A and B, in turns, at random moments:
///                                          does each family hold all of A or all of B?
///
/// A FILE "-" is the standard input. Lines of the log go to the standard error as well.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwBatch.h"
#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/tarnfirewall_c.h"

#include "tarnfwadmin/savedRules.h"

namespace {

using Texts = std::vector<std::string>;

Json::Value documentIn(const std::string& path) {
    std::ifstream file(path);
    Json::Value document;
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), path == "-" ? std::cin : file, &document,
                               &errors)) {
        throw std::runtime_error(path + ": " + errors);
    }
    return document;
}

bool applyLines(const Json::Value& cmds) {
    FW::TARNFW firewall;
    return firewall.fwClear() && firewall.fwExec(cmds);
}

bool applyBatch(const Json::Value& cmds) {
    return FW::FW_BATCH().apply(cmds);
}

/// What a command prints; it must succeed.
std::string outputOf(const char* command) {
    FILE* const stream = popen(command, "r");
    if (stream == nullptr) {
        throw std::runtime_error(command);
    }
    std::string output;
    char buffer[4096];
    for (std::size_t count = 0; (count = fread(buffer, 1, sizeof(buffer), stream)) > 0;) {
        output.append(buffer, count);
    }
    if (pclose(stream) != 0) {
        throw std::runtime_error(std::string(command) + " failed");
    }
    return output;
}

std::string listing() {
    return outputOf("/sbin/iptables -S && /sbin/ip6tables -S");
}

/// Puts the profile into the kernel one way and the other. Returns whether the listings agree.
bool agreeOn(const FW::FWPROFILE& profile, const std::string& name) {
    Json::Value cmds;
    if (!FW::TARNFW().fwRulesToIptablesRules(true, profile.rules, profile.adapterPolicyMap, cmds)) {
        throw std::runtime_error(name + " cannot be translated");
    }
    // First the batch, on top of other rules: one that does nothing must not look right.
    const bool applied = applyBatch(cmds);
    const std::string found = listing();
    if (!applyLines(cmds)) {
        throw std::runtime_error(name + " does not run line by line");
    }
    const std::string expected = listing();
    if (applied && found == expected) {
        return true;
    }
    std::cout << name << ": " << (applied ? "the listings differ" : "the batch is refused") << '\n'
              << cmds << "\n--- line by line\n"
              << expected << "--- in a batch\n"
              << found;
    return false;
}

// ---- Random profiles ----

class RandomProfiles {
public:
    RandomProfiles(const std::uint32_t seed, Texts links)
        : generator_(seed), links_(std::move(links)) {}

    FW::FWPROFILE next() {
        FW::FWPROFILE profile;
        profile.name = "random";
        for (const std::string& adapter : adapters()) {
            if (oneIn(2)) {
                profile.adapterPolicyMap[adapter] = policy();
            }
            const int count = below(3);
            for (int i = 0; i < count; ++i) {
                profile.rules[adapter].push_back(rule());
            }
        }
        return profile;
    }

private:
    int below(const int limit) {
        // Not a distribution: those differ between libraries, and the seed must determine
        // everything.
        return static_cast<int>(generator_() % static_cast<std::uint32_t>(limit));
    }
    bool oneIn(const int n) { return below(n) == 0; }
    const std::string& oneOf(const Texts& texts) {
        return texts[static_cast<std::size_t>(below(static_cast<int>(texts.size())))];
    }
    std::string number(const int from, const int to) {
        return std::to_string(from + below(to - from + 1));
    }

    Texts adapters() {
        Texts names = {"global"};
        for (const std::string& link : links_) {
            if (oneIn(2)) {
                names.push_back(link);
            }
        }
        return names;
    }

    FW::FW_POLICY policy() {
        constexpr FW::FW_POLICY kPolicies[] = {FW::FW_POLICY_ALLOW, FW::FW_POLICY_DENY,
                                               FW::FW_POLICY_NONE};
        return kPolicies[below(3)];
    }

    FW::FWRULE rule() {
        FW::FWRULE rule;
        rule.enable = !oneIn(8);
        rule.blLog = oneIn(4);
        rule.policy = policy();
        rule.adapterDirect = 1;
        if (!oneIn(3)) {
            rule.chainList = {oneOf({"INPUT_FIREWALL", "FORWARD_FIREWALL"})};
        }
        rule.ipDirect = below(2);
        addAddresses(rule);
        rule.portDirect = below(2);
        addPorts(rule);
        return rule;
    }

    std::string ipv4() {
        return number(1, 223) + "." + number(0, 255) + "." + number(0, 255) + "." + number(1, 254);
    }
    std::string ipv6() { return "2001:db8:" + number(1, 9999) + "::" + number(1, 9999); }

    void addAddresses(FW::FWRULE& rule) {
        rule.ipType = below(2);
        const bool six = rule.ipType == 1;
        switch (below(4)) {
            case 0:
                rule.ipGroup = 0;
                rule.ipList = {six ? ipv6() : ipv4()};
                break;
            case 1:
                rule.ipGroup = 1;
                rule.ipList = {six ? ipv6() : ipv4(), six ? number(1, 128) : number(1, 32)};
                break;
            case 2:
                rule.ipGroup = 4;
                rule.ipList = six ? Texts{"2001:db8::" + number(1, 999), "2001:db9::1"}
                                  : Texts{"10.0.0." + number(1, 99), "10.0.1.1"};
                break;
            default:
                rule.ipGroup = 5;
                rule.ipType = below(3);
                break;
        }
    }

    void addPorts(FW::FWRULE& rule) {
        constexpr FW::FW_PORT_PROTOCOL kProtocols[] = {FW::FW_PORT_PROTOCOL_TCP,
                                                       FW::FW_PORT_PROTOCOL_UDP};
        switch (below(3)) {
            case 0:
                rule.portGroup = 0;
                rule.portList = {oneOf({"ssh", "http", "https", "dns"})};
                break;
            case 1: {
                rule.portGroup = 1;
                rule.protocol = kProtocols[below(2)];
                const int count = 1 + below(9);
                for (int i = 0; i < count; ++i) {
                    const std::string first = number(1, 30000);
                    rule.portList.push_back(oneIn(4) ? first + "-" + number(30001, 65535) : first);
                }
                break;
            }
            default:
                rule.portGroup = 3;
                break;
        }
    }

    std::mt19937 generator_;
    Texts links_;
};

// ---- Killed batches ----

using Clock = std::chrono::steady_clock;

std::array<std::string, 2> listingsByFamily() {
    return {outputOf("/sbin/iptables -S"), outputOf("/sbin/ip6tables -S")};
}

/// Waits for every process that was started from here, also by one that was killed.
void awaitAll() {
    while (wait(nullptr) > 0 || errno == EINTR) {
    }
}

/// Applies a document in a process of its own, which is killed after `life`.
void applyAndKill(const Json::Value& cmds, const std::chrono::microseconds life) {
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("fork");
    }
    if (child == 0) {
        _exit(applyBatch(cmds) ? 0 : 1);
    }
    std::this_thread::sleep_for(life);
    (void)kill(child, SIGKILL);
    awaitAll();
}

int killBatches(const std::uint32_t seed, const int count,
                const std::array<std::string, 2>& paths) {
    std::cout << "seed " << seed << '\n';
    // What a killed batch has started ends as a child of this process and can be waited for.
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        throw std::runtime_error("prctl");
    }
    std::array<Json::Value, 2> documents;
    std::array<std::array<std::string, 2>, 2> whole;  // by document, by family
    Clock::duration longest{};
    for (const std::size_t i : {0U, 1U}) {
        documents[i] = documentIn(paths[i]);
        const auto begin = Clock::now();
        if (!applyBatch(documents[i])) {
            throw std::runtime_error(paths[i] + " is refused");
        }
        longest = std::max(longest, Clock::now() - begin);
        whole[i] = listingsByFamily();
    }
    std::mt19937 generator(seed);
    const auto span = std::chrono::duration_cast<std::chrono::microseconds>(longest * 5 / 4);
    int changed = 0;
    int between = 0;
    for (int i = 0; i < count; ++i) {
        const std::size_t target = generator() % 2;
        const std::array<std::string, 2> before = listingsByFamily();
        applyAndKill(
            documents[target],
            std::chrono::microseconds(generator() % static_cast<std::uint32_t>(span.count())));
        const std::array<std::string, 2> after = listingsByFamily();
        for (const std::size_t family : {0U, 1U}) {
            if (after[family] != before[family] && after[family] != whole[target][family]) {
                std::cout << "a mixture after kill " << i + 1 << '\n' << after[family];
                return EXIT_FAILURE;
            }
        }
        changed += after == before ? 0 : 1;
        between += (after[0] == before[0]) != (after[1] == before[1]) ? 1 : 0;
    }
    std::cout << count << " kills: " << changed << " after a change, " << between
              << " between the families\n";
    return EXIT_SUCCESS;
}

// ---- Commands ----

int compareFiles(const Texts& paths) {
    int differences = 0;
    for (const std::string& path : paths) {
        FW::FWPROFILE profile;
        FW::TARNFW_JSON_DB().jsonToProfile(documentIn(path), profile);
        differences += agreeOn(profile, path) ? 0 : 1;
    }
    std::cout << paths.size() << " profiles, " << differences << " differences\n";
    return differences == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int compareRandom(const std::uint32_t seed, const int count, const Texts& links) {
    std::cout << "seed " << seed << '\n';
    RandomProfiles profiles(seed, links);
    for (int i = 1; i <= count; ++i) {
        if (!agreeOn(profiles.next(), "profile " + std::to_string(i))) {
            return EXIT_FAILURE;
        }
    }
    std::cout << count << " profiles agree\n";
    return EXIT_SUCCESS;
}

int run(const Texts& words) {
    const std::string command = words.empty() ? "" : words.front();
    if (command == "lines" && words.size() == 2) {
        return applyLines(documentIn(words[1])) ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (command == "batch" && words.size() == 2) {
        return applyBatch(documentIn(words[1])) ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (command == "closed" && words.size() == 1) {
        return FW::TARNFW().fwDefaultDrop() ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (command == "reload" && words.size() == 1) {
        return FW::TARNFW().fwReload(true) ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (command == "save" && words.size() == 1) {
        std::cout << tarnfw::SavedRules::inKernel().document() << '\n';
        return EXIT_SUCCESS;
    }
    if (command == "put-back" && words.size() == 2) {
        tarnfw::SavedRules::from(documentIn(words[1])).putBack();
        return EXIT_SUCCESS;
    }
    if (command == "hup" && words.size() == 1) {
        return TARNFwRuleHup() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (command == "reset" && words.size() == 1) {
        TARNFwReset();
        return EXIT_SUCCESS;
    }
    if (command == "compare" && words.size() > 1) {
        return compareFiles({words.begin() + 1, words.end()});
    }
    if (command == "random" && words.size() > 3) {
        return compareRandom(static_cast<std::uint32_t>(std::stoul(words[1])), std::stoi(words[2]),
                             {words.begin() + 3, words.end()});
    }
    if (command == "kill" && words.size() == 5) {
        return killBatches(static_cast<std::uint32_t>(std::stoul(words[1])), std::stoi(words[2]),
                           {words[3], words[4]});
    }
    std::cerr
        << "usage: rules_probe lines|batch FILE | closed | hup | reset | compare PROFILE... | "
           "random SEED COUNT LINK... | kill SEED COUNT A B\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    openlog("rules_probe", LOG_PERROR, LOG_USER);
    (void)setlogmask(LOG_UPTO(LOG_WARNING));
    try {
        return run({argv + 1, argv + argc});
    } catch (const std::exception& exception) {
        std::cerr << exception.what() << '\n';
        return 2;
    }
}
