/// What "base up" added to the kernel and what it found there: "base down" removes the one and puts
/// the other back. A reboot empties the kernel, and /run with the file.
#pragma once

#include <map>
#include <string>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/baseFilter.h"

namespace TARNFW_EXPORT_ALL tarnfw {

inline constexpr char kBaseRecordFile[] = "/run/tarn/base_filter.json";

/// The record of one family.
struct FamilyBaseRecord {
    BaseParts added;

    /// "ACCEPT" or "DROP", of INPUT and FORWARD, before the firewall; empty when not known.
    std::map<std::string, std::string> policies;

    /// Adds those of `parts` that are not in it.
    void add(const BaseParts& parts);

    bool operator==(const FamilyBaseRecord& other) const {
        return added.chains == other.added.chains && added.jumps == other.added.jumps &&
               policies == other.policies;
    }
};

/// The record by family: "v4", "v6".
using BaseRecord = std::map<std::string, FamilyBaseRecord>;

/// Empty only where there is no file. Throws Error, kSystem, for one that cannot be read or is
/// damaged: whoever replaced it would leave the chains of "base up" for good.
BaseRecord loadBaseRecord();

/// Replaces the file, readable by root alone. Throws Error, kSystem.
void storeBaseRecord(const BaseRecord& record);

}  // namespace tarnfw
