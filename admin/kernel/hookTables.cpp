#include <fcntl.h>
#include <linux/netfilter.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <utility>

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include "kernel/nftChains.h"
#include "kernel/nftRules.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/foreignRules.h"
#include "tarnfwadmin/program.h"

namespace tarnfw {
namespace {

constexpr int kSeconds = 5;

constexpr const char* kFamilies[] = {"v4", "v6"};

// Of iptables.
constexpr char kFilter[] = "filter";
constexpr const char* kTables[] = {"raw", "mangle", "nat", kFilter, "security"};

constexpr char kNft[] = "/usr/sbin/nft";

// Each is one more run of nft.
constexpr std::size_t kMostNftTables = 20;

using Names = std::set<std::string>;

ProgramAnswer answerOf(const std::vector<std::string>& words) {
    const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    return runProgram(words, nothing.get(), {}, kSeconds);
}

bool isProgram(const std::string& path) {
    return access(path.c_str(), X_OK) == 0;
}

// ---- iptables -----------------------------------------------------------------------------------

/// The tables of a family in one of the two parts of the kernel that variants of iptables use. Both
/// are in force at once, whichever the firewall's is.
struct Part {
    std::string family;
    bool nft = false;
    Names tables;  ///< those to list

    bool isOwn() const { return nft == isNftVariant(family); }

    /// "iptables-legacy".
    std::string variant() const {
        return (family == "v4" ? "iptables" : "ip6tables") + std::string(nft ? "-nft" : "-legacy");
    }

    std::string program() const {
        return programOf(family) + (isOwn() ? "" : nft ? "-nft" : "-legacy") + "-save";
    }

    /// What to write before the rules of a table.
    std::string prefixOf(const std::string& table) const {
        return isOwn() ? (table == "nat" ? "" : "-t " + table + " ")
                       : variant() + " -t " + table + " ";
    }
};

/// What was found of it.
struct PartListing {
    std::map<std::string, RuleListing> tables;
    Names unread;         ///< tables with rules that only nft can list
    std::string failure;  ///< why the others cannot be listed
};

/// The tables that the legacy variant has: its programs would load another one by asking for it,
/// and with "nat" the tracking of connections.
Names legacyTables(const std::string& family) {
    std::ifstream file(family == "v4" ? "/proc/net/ip_tables_names" : "/proc/net/ip6_tables_names");
    Names names;
    for (std::string name; std::getline(file, name);) {
        names.insert(name);
    }
    return names;
}

/// Reads what the saving program writes of several tables.
PartListing tablesIn(const std::string& text, const Names& wanted) {
    PartListing listing;
    std::istringstream lines(text);
    std::string table;
    std::string rules;
    for (std::string line; std::getline(lines, line);) {
        if (boost::starts_with(line, "*")) {
            table = line.substr(1);
            rules.clear();
        } else if (line == "COMMIT" && wanted.count(table) != 0) {
            listing.tables[table] = RuleListing::fromSaved(rules);
        } else if (boost::contains(line, "is incompatible")) {
            for (const std::string& name : wanted) {  // # Table `nat' is incompatible, use 'nft'
                if (boost::contains(line, "`" + name + "'")) {
                    listing.unread.insert(name);
                }
            }
        } else {
            rules += line + "\n";
        }
    }
    return listing;
}

PartListing listingOf(const Part& part) {
    PartListing listing;
    if (part.tables.empty()) {
        return listing;
    }
    const std::string what = "the rules in " + boost::join(part.tables, ", ") + " of " +
                             part.variant() + " are not known: ";
    if (!isProgram(part.program())) {
        listing.failure = what + "there is no " + part.program();
        return listing;
    }
    try {
        std::vector<std::string> words = {part.program()};
        if (part.tables.size() == 1) {
            words.insert(words.end(), {"-t", *part.tables.begin()});
        }
        const ProgramAnswer answer = answerOf(words);
        if (answer.status == 0) {
            return tablesIn(answer.output, part.tables);
        }
        listing.failure = what + part.program() + " fails" + becauseOf(answer);
    } catch (const Error& error) {
        listing.failure = what + error.what();
    }
    return listing;
}

// ---- nftables -----------------------------------------------------------------------------------

/// The family of iptables' tables in its variant for nftables.
std::string nftFamilyOf(const std::string& family) {
    return family == "v4" ? "ip" : "ip6";
}

/// Whether incoming packets meet a chain.
bool isForIncoming(const NftBaseChain& chain) {
    if (chain.table.first == "netdev") {
        return chain.hook == NF_NETDEV_INGRESS;
    }
    return chain.hook == NF_INET_PRE_ROUTING || chain.hook == NF_INET_LOCAL_IN ||
           chain.hook == NF_INET_FORWARD || chain.hook == NF_INET_INGRESS;
}

/// The tables that have such chains, but the firewall's.
std::vector<NftTable> tablesToList(const std::vector<NftBaseChain>& chains) {
    std::vector<NftTable> tables;
    for (const NftBaseChain& chain : chains) {
        const bool own = std::any_of(std::begin(kFamilies), std::end(kFamilies), [&](auto family) {
            return isNftVariant(family) && chain.table == NftTable(nftFamilyOf(family), kFilter);
        });
        if (!own && isForIncoming(chain) &&
            std::find(tables.begin(), tables.end(), chain.table) == tables.end()) {
            tables.push_back(chain.table);
        }
    }
    return tables;
}

/// What nft prints of a table. Throws Error, kSystem.
std::string listedByNft(const NftTable& table) {
    if (!isProgram(kNft)) {
        throw Error(ErrorKind::kSystem, std::string("there is no ") + kNft);
    }
    const ProgramAnswer answer =
        answerOf({kNft, "-t", "-n", "list", "table", table.first, table.second});
    if (answer.status != 0) {
        throw Error(ErrorKind::kSystem, std::string(kNft) + " fails" + becauseOf(answer));
    }
    return answer.output;
}

/// Adds the tables of nftables but `known`, those that iptables has listed.
void addNftTables(const std::vector<NftTable>& tables, const std::set<NftTable>& known,
                  HookTables& all) {
    std::size_t listed = 0;
    for (const NftTable& table : tables) {
        if (known.count(table) != 0) {
            continue;
        }
        const std::string name = "table " + table.first + " " + table.second + " of nftables";
        if (++listed > kMostNftTables) {
            all.unknown.push_back(name + " and later ones are not listed");
            return;
        }
        try {
            const std::string text = listedByNft(table);
            for (const char* const family : kFamilies) {
                if (table.first == "inet" || table.first == "netdev" ||
                    table.first == nftFamilyOf(family)) {
                    all.byFamily[family].push_back(hookTableFrom(text, table, family));
                }
            }
        } catch (const Error& error) {
            all.unknown.push_back(name + " cannot be listed: " + error.what());
        }
    }
}

/// The parts that have tables to list: of both families, in each variant.
std::vector<Part> partsToList(const std::vector<NftTable>& nft) {
    std::vector<Part> parts;
    for (const char* const family : kFamilies) {
        Part legacy{family, false, legacyTables(family)};
        if (legacy.isOwn()) {
            legacy.tables.erase(kFilter);
        }
        parts.push_back(std::move(legacy));
        Part other{family, true, {}};
        for (const char* const name : kTables) {
            const NftTable table(nftFamilyOf(family), name);
            if (std::find(nft.begin(), nft.end(), table) != nft.end()) {
                other.tables.insert(name);
            }
        }
        parts.push_back(std::move(other));
    }
    return parts;
}

}  // namespace

HookTables hookTables() {
    HookTables all;
    std::vector<NftTable> nft;
    try {
        nft = tablesToList(nftBaseChains());
    } catch (const Error& error) {
        all.unknown.emplace_back(error.what());
    }
    // All at once: most of the time goes into the start of the programs.
    const std::vector<Part> parts = partsToList(nft);
    std::vector<std::future<PartListing>> running;
    running.reserve(parts.size());
    for (const Part& part : parts) {
        running.push_back(std::async(std::launch::async, listingOf, part));
    }
    const std::vector<HookTable::Entrance> entrances = {
        {kNatEntrance, Hook::kPrerouting}, {"INPUT", Hook::kInput}, {"FORWARD", Hook::kForward}};
    std::set<NftTable> known;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        PartListing listing = running[i].get();
        for (auto& [table, rules] : listing.tables) {
            if (parts[i].nft && listing.unread.count(table) == 0) {
                known.insert({nftFamilyOf(parts[i].family), table});
            }
            all.byFamily[parts[i].family].push_back(
                {std::move(rules), entrances, {}, parts[i].prefixOf(table)});
        }
        if (listing.failure.empty() || (parts[i].nft && isProgram(kNft))) {
            continue;  // what a program for nftables cannot list is left to nft
        }
        all.unknown.push_back(listing.failure);
        for (const std::string& table : parts[i].tables) {
            if (parts[i].nft) {
                known.insert({nftFamilyOf(parts[i].family), table});
            }
        }
    }
    addNftTables(nft, known, all);
    return all;
}

}  // namespace tarnfw
