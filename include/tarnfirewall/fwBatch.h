/// Apply mode "batch": a command document applied with one commit a family, not line by line.
#pragma once

#include <json/json.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "tarnfirewall/fwExport.h"

namespace FW {

/// What the programs of iptables say on a kernel without their address family, or without its
/// filter table.
inline constexpr const char* FW_ABSENT_FAMILY_WORDS[] = {
    "Address family not supported", "Protocol not supported", "Operation not supported",
    "Table does not exist"};

/// A batch that is about to be committed. Valid only during the review.
struct FWPENDINGBATCH {
    const Json::Value& commands;  ///< the command document

    /// The filter table of each family that the machine has, "v4" or "v6", as iptables-save
    /// "--counters" writes it; read after the lock of iptables was taken.
    std::map<std::string, std::string_view> saved;
};

/// A caller's part in a batch: called once, when both texts have passed their tests and before
/// anything changes. The batch is committed only if it returns true; what it throws goes on to the
/// caller of the batch. The lock of iptables is held meanwhile, and the programs that commit have
/// read the tables: it must neither run iptables nor change the packet filter.
using FW_BATCH_REVIEW = std::function<bool(const FWPENDINGBATCH&)>;

/// Replaces the content of the firewall chains with the lines of a command document (see
/// TARNFW_IPTABLES_RULES), through iptables-restore and ip6tables-restore. No packet ever passes a
/// part of the rules only, and policies do not change. An object has no state: make one on the
/// stack for each use.
///
/// Each line of the document must append a rule, as the lines of a translation do: "-A" and a
/// chain, optionally after "-t" and a table. Other lines are rejected. The limits of
/// TARNFW::cmdExec() do not apply to a line here; those of iptables-restore do.
class TARNFW_EXPORT FW_BATCH {
public:
    /// The text that iptables-restore ("v4") or ip6tables-restore ("v6") gets for one family of a
    /// command document: grouped by table, "filter" first and in it the flushing of the firewall
    /// chains, then the lines in the order in which TARNFW::fwExec() would run them. Words are
    /// split as by TARNFW::cmdExec() and quoted where the syntax requires it. A document without
    /// the family still flushes.
    /// Returns an empty text, logged, for another family, and for an invalid line: one that does
    /// not append a rule, whose table is not a single word, that contains a line feed, or that is
    /// longer than iptables-restore reads.
    std::string restoreText(const Json::Value& cmds, const std::string& family);

    /// Gives both families the document's rules, or leaves both as they were; without IPv6, or a
    /// filter table for it, IPv4 alone. They differ only if undoing a failed commit fails, which is
    /// logged, or the process ends between the commits. Policies stay, but a rule that a killed
    /// "lines" reload left in FIREWALL_RELOADING goes, and INPUT and FORWARD then become ACCEPT.
    /// Waits up to 30 s for the lock of iptables. Returns false, logged with adapter, line and the
    /// tool's message, when a line is refused, a tool cannot be run, or the lock is kept.
    bool apply(const Json::Value& cmds);

    /// apply(), unless `review` returns false: then nothing changes, and the result is false
    /// without a log line. An empty `review` agrees.
    bool applyReviewed(const Json::Value& cmds, const FW_BATCH_REVIEW& review);
};

}  // namespace FW
