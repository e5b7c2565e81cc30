#include "report/interfaceGroups.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <map>
#include <optional>
#include <set>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

using Rules = std::vector<FW::FWRESOLVEDRULE>;
using Texts = std::vector<std::string>;

/// Every name and beginning of names that the rules and the adapters have.
Texts entriesOf(const Rules& rules, const FW::FWENVIRONMENT& environment) {
    std::set<std::string> entries;
    const auto add = [&entries](const FW::FWINTERFACES& interfaces) {
        entries.insert(interfaces.names.begin(), interfaces.names.end());
        entries.insert(interfaces.except.begin(), interfaces.except.end());
    };
    for (const FW::FWRESOLVEDRULE& rule : rules) {
        for (const auto& interfaces : {rule.packets.in, rule.packets.out}) {
            if (interfaces != nullptr) {
                add(*interfaces);
            }
        }
    }
    for (const auto& [adapter, interfaces] : environment.adapters) {
        add(interfaces);
    }
    entries.insert("+");
    entries.erase("");  // no interface has this name
    return {entries.begin(), entries.end()};
}

/// A name that fits an entry and no longer one; nothing when there is none among those tried.
std::optional<std::string> exampleOf(const std::string& entry, const Texts& entries) {
    if (entry.back() != '+') {
        return entry;
    }
    const std::string beginning = entry.substr(0, entry.size() - 1);
    FW::FWINTERFACES ofEntry{{entry}, {}};
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(ofEntry.except),
                 [&entry](const std::string& other) { return other != entry; });
    // As many as there are entries cannot all be names of others.
    for (std::size_t i = 0; i <= entries.size(); ++i) {
        const std::string name = (beginning.empty() ? "other" : beginning) + std::to_string(i);
        if (isAmong(ofEntry, name)) {
            return name;
        }
    }
    return std::nullopt;
}

std::vector<bool> membersOf(const Rules& rules, const std::string& name) {
    std::vector<bool> members;
    members.reserve(rules.size() * 2);
    std::map<const FW::FWINTERFACES*, bool> known;
    for (const FW::FWRESOLVEDRULE& rule : rules) {
        for (const auto& interfaces : {rule.packets.in, rule.packets.out}) {
            const auto found = known.find(interfaces.get());
            const bool is = found != known.end()
                                ? found->second
                                : interfaces == nullptr || isAmong(*interfaces, name);
            known[interfaces.get()] = is;
            members.push_back(is);
        }
    }
    return members;
}

}  // namespace

std::vector<InterfaceGroup> interfaceGroupsOf(const Meaning& meaning, const Rules& rules) {
    const Texts entries = entriesOf(rules, meaning.environment());
    std::vector<InterfaceGroup> groups;
    for (const std::string& entry : entries) {
        const std::optional<std::string> name = exampleOf(entry, entries);
        if (!name || *name == "lo") {
            continue;
        }
        const std::vector<bool> members = membersOf(rules, *name);
        auto group = std::find_if(groups.begin(), groups.end(),
                                  [&](const auto& one) { return one.members == members; });
        if (group == groups.end()) {
            groups.push_back({{}, {}, false, members});
            group = std::prev(groups.end());
        }
        group->isOther = group->isOther || entry == "+";
        group->examples.push_back(*name);
        for (const std::string& adapter : adaptersOf(meaning.profile())) {
            const auto known = meaning.environment().adapters.find(adapter);
            if (adapter != FW::FW_ADAPTER_GLOBAL && known != meaning.environment().adapters.end() &&
                isAmong(known->second, *name)) {
                group->adapters.push_back(adapter);
            }
        }
    }
    for (InterfaceGroup& group : groups) {
        std::sort(group.adapters.begin(), group.adapters.end());
        group.adapters.erase(std::unique(group.adapters.begin(), group.adapters.end()),
                             group.adapters.end());
    }
    std::stable_sort(groups.begin(), groups.end(), [](const auto& a, const auto& b) {
        return a.isOther != b.isOther ? b.isOther : a.adapters < b.adapters;
    });
    return groups;
}

}  // namespace tarnfw
