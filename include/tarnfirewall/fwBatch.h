/// Apply mode "batch": a command document put in place by one commit a family, not line by line.
#pragma once

#include <json/json.h>

#include <string>

#include "tarnfirewall/fwExport.h"

namespace FW {

/// Replaces the content of the firewall chains by the lines of a command document (see
/// TARNFW_IPTABLES_RULES), through iptables-restore and ip6tables-restore. No packet meets a part
/// of the rules, and policies are left alone. An object holds nothing: make one on the stack, use
/// it, let it go.
///
/// Each line of the document appends a rule, as those of a translation do: "-A" and a chain, with
/// or without "-t" and a table before it. Other lines are refused. Neither 255 words nor 1024 bytes
/// limit a line here; those of iptables-restore do.
class TARNFW_EXPORT FW_BATCH {
public:
    /// The text that iptables-restore ("v4") or ip6tables-restore ("v6") gets for one family of a
    /// command document: grouped by table, "filter" first and in it the flushing of the firewall
    /// chains, then the lines in the order in which TARNFW::fwExec() would run them. Words are
    /// split as by TARNFW::cmdExec() and quoted where the syntax asks for it. A document without
    /// the family still flushes.
    /// Returns an empty text, logged, for another family, and when a line cannot be written so: it
    /// appends no rule, names a table that is no word, has a line feed, or is longer than
    /// iptables-restore reads.
    std::string restoreText(const Json::Value& cmds, const std::string& family);

    /// Puts a command document in place: both families hold the new rules, or both what they held
    /// before, with its counters. Both are saved and both texts examined before either is
    /// committed, and what a commit that failed may have changed is put back. The families differ
    /// only where that fails too, which is logged, or the caller's process ends between the two
    /// commits. Policies stay, except where a reload line by line was interrupted after it had set its
    /// rule in FIREWALL_RELOADING: that rule goes, and they become ACCEPT in both families.
    /// Returns false, logged with the adapter, the line and the tool's own words, when a line is
    /// refused or a tool cannot be run. Waits up to 30 s for other programs that change the packet
    /// filter under the lock of iptables, such as another call of this.
    bool apply(const Json::Value& cmds);
};

}  // namespace FW
