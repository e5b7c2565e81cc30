/// Command documents as single transactions, instead of line by line.
#pragma once

#include <json/json.h>

#include <string>

#include "tarnfirewall/fwExport.h"

namespace FW {

/// Command documents (see TARNFW_IPTABLES_RULES) as texts for iptables-restore and
/// ip6tables-restore, which replace the content of the firewall chains at once. An object holds
/// nothing: make one on the stack, use it, let it go.
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
    /// Returns an empty text, logged, when a line cannot be written so: it appends no rule, names a
    /// table that is no word, has a line feed, or is longer than iptables-restore reads.
    std::string restoreText(const Json::Value& cmds, const std::string& family);
};

}  // namespace FW
