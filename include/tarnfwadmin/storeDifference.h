/// What differs between two states of the store, in words.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// One difference. The texts may change, and are not made printable.
struct StoreDifference {
    enum class Kind { kAdded, kRemoved, kChanged };

    Kind kind = Kind::kChanged;
    std::string profile;       ///< the profile that differs; empty: the settings, or another file
    std::string adapter;       ///< of a rule or a default policy; else empty
    std::size_t position = 0;  ///< of a rule, from 1: of a removed one that before, else that after
    std::string text;          ///< "rule 3 of eth0: allow tcp 22 from anywhere"

    /// The text with its sign and its profile: "home: + rule 3 of eth0: allow tcp 22 from
    /// anywhere". Removed is "-", changed is "~".
    std::string line() const;
};

/// A setting that has another value; the values are texts, "-" for none.
struct SettingDifference {
    std::string setting;
    std::string before;
    std::string after;
};

/// The differing members of two settings documents, sorted.
std::vector<SettingDifference> settingDifferences(const Json::Value& before,
                                                  const Json::Value& after);

/// The differences of the rules and default policies of two profiles, by adapter. A rule that was
/// moved or changed is removed and added.
std::vector<StoreDifference> profileDifferences(const FW::FWPROFILE& before,
                                                const FW::FWPROFILE& after);

/// All differences between the documents of two states, given as their texts by path: settings
/// first, then profiles by name. A profile that only one of them has is one difference, whatever
/// its rules; so is a document that is not a profile.
std::vector<StoreDifference> storeDifferences(const std::map<std::string, std::string>& before,
                                              const std::map<std::string, std::string>& after);

}  // namespace tarnfw
