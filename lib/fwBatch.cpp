#include "tarnfirewall/fwBatch.h"

#include "fwLog.h"
#include "fwRestoreText.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwBatch";

/// Makes the text of one family, logging a line that cannot be written.
bool textOf(const Json::Value& cmds, const std::string& family, RestoreText& text) {
    RestoreLine fault;
    if (!text.make(cmds.isMember(family) ? cmds[family] : Json::Value(), fault)) {
        FW_LOG_ERR("Adapter %s: no line for iptables-restore: \"%s\"", fault.adapter.c_str(),
                   fault.command.c_str());
        return false;
    }
    return true;
}

}  // namespace

std::string FW_BATCH::restoreText(const Json::Value& cmds, const std::string& family) {
    RestoreText text;
    return textOf(cmds, family, text) ? text.whole() : "";
}

}  // namespace FW
