#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <set>

#include <boost/algorithm/string/predicate.hpp>

#include "kernel/nftRules.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/foreignRules.h"
#include "tarnfwadmin/program.h"

namespace tarnfw {
namespace {

constexpr int kNatSeconds = 5;

constexpr char kNft[] = "/usr/sbin/nft";

// Each is one more run of nft.
constexpr std::size_t kMostNftTables = 20;

ProgramAnswer answerOf(const std::vector<std::string>& words) {
    const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    return runProgram(words, nothing.get(), {}, kNatSeconds);
}

// ---- iptables -----------------------------------------------------------------------------------

/// The table "nat" of a family.
struct NatRules {
    RuleListing rules;
    bool incompatible = false;  ///< it has rules that only nft can list
    std::string failure;        ///< why it cannot be listed
};

/// Whether the legacy variant has the table: its programs would load it by asking for it, and with
/// it the tracking of connections.
bool hasLegacyNat(const std::string& family) {
    std::ifstream names(family == "v4" ? "/proc/net/ip_tables_names"
                                       : "/proc/net/ip6_tables_names");
    for (std::string name; std::getline(names, name);) {
        if (name == "nat") {
            return true;
        }
    }
    return false;
}

NatRules natRules(const std::string& family) {
    NatRules result;
    if (!isNftVariant(family) && !hasLegacyNat(family)) {
        return result;
    }
    try {
        const ProgramAnswer answer = answerOf({programOf(family) + "-save", "-t", "nat"});
        // A kernel without the table says so; its filter table is listed elsewhere.
        if (answer.status == 0) {
            result.rules = RuleListing::from(answer.output);
            result.incompatible = boost::contains(answer.output, "is incompatible");
        }
    } catch (const Error& error) {
        result.failure = error.what();
    }
    return result;
}

// ---- nftables -----------------------------------------------------------------------------------

/// "ip" and "nat": that of iptables, in its variant for nftables.
NftTable tableOfIptables(const std::string& family) {
    return {family == "v4" ? "ip" : "ip6", "nat"};
}

bool hasNft() {
    return access(kNft, X_OK) == 0;
}

/// What "nft" prints; nothing on a kernel without nftables. Throws Error, kSystem, when it fails.
std::string nftOutput(const std::vector<std::string>& arguments) {
    std::vector<std::string> words = {kNft};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const ProgramAnswer answer = answerOf(words);
    if (answer.status != 0 && !boost::contains(answer.errors, "not supported")) {
        throw Error(ErrorKind::kSystem, std::string(kNft) + " fails" + becauseOf(answer));
    }
    return answer.output;
}

/// Adds the tables of nftables but `known`, those that iptables has listed.
void addNftTables(const std::string& chains, const std::set<NftTable>& known, NatTables& all) {
    std::size_t listed = 0;
    for (const NftTable& table : nftNatTables(chains)) {
        if (known.count(table) != 0) {
            continue;
        }
        const std::string name = "table " + table.first + " " + table.second + " of nftables";
        if (++listed > kMostNftTables) {
            all.unknown.push_back(name + " and later ones are not listed");
            return;
        }
        try {
            const std::string text =
                nftOutput({"-t", "-n", "list", "table", table.first, table.second});
            for (const char* const family : {"v4", "v6"}) {
                if (table.first == "inet" || table.first == tableOfIptables(family).first) {
                    all.byFamily[family].push_back(natTableFrom(text, table, family));
                }
            }
        } catch (const Error& error) {
            all.unknown.push_back(name + " cannot be listed: " + error.what());
        }
    }
}

}  // namespace

NatTables natTables() {
    // All at once: most of the time goes into the start of the programs.
    auto v4 = std::async(std::launch::async, natRules, "v4");
    auto v6 = std::async(std::launch::async, natRules, "v6");
    NatTables all;
    std::optional<std::string> chains;
    try {
        if (hasNft()) {
            chains = nftOutput({"list", "chains"});
        }
    } catch (const Error& error) {
        all.unknown.push_back(std::string("the tables of nftables cannot be listed: ") +
                              error.what());
    }
    std::set<NftTable> known;
    for (const char* const family : {"v4", "v6"}) {
        NatRules nat = (family == std::string("v4") ? v4 : v6).get();
        if (!nat.failure.empty()) {
            all.unknown.push_back("the nat table of " + titleOf(family) +
                                  " cannot be listed: " + nat.failure);
        } else if (nat.incompatible && !chains) {
            all.unknown.push_back("the nat table of " + titleOf(family) +
                                  " cannot be listed: it has rules that only nft shows");
        } else if (!nat.incompatible && isNftVariant(family)) {
            known.insert(tableOfIptables(family));
        }
        all.byFamily[family].push_back({std::move(nat.rules), {kNatEntrance}, {}});
    }
    if (chains) {
        addNftTables(*chains, known, all);
    }
    return all;
}

}  // namespace tarnfw
