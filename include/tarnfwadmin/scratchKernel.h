/// A packet filter for trying things: that of a new network namespace, which nothing else is
/// in and which ends with the object.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tarnfirewall/fwIptables.h"

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/packetFilter.h"
#include "tarnfwadmin/translation.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The packet filter of a fresh namespace, with the base filter set up in the families that
/// the machine has.
class ScratchKernel : public PacketFilter {
public:
    /// Throws Error where the system does not allow network namespaces.
    ScratchKernel();
    ~ScratchKernel() override;
    ScratchKernel(const ScratchKernel&) = delete;
    ScratchKernel& operator=(const ScratchKernel&) = delete;

    /// Loads a line as a reload does, in its own process. Empty if the kernel accepted it, else the
    /// tool's own words.
    std::string load(const TracedLine& line) const;

    /// Adds the chains that a command document puts rules into besides the firewall's own, as far
    /// as `machine` has them.
    void addChainsOf(const Json::Value& commands, const PacketFilter& machine) const;

private:
    bool enter() const;
    std::function<bool()> entrance() const override {
        return [this] { return enter(); };
    }
    void setUpBase() const;
    void end();

    pid_t holder_ = -1;  // a process that does nothing but keep the namespace
    Descriptor pidfd_;   // the same, as setns() wants it
    Descriptor hold_;    // a pipe; the process ends when it is closed
};

/// A line that a kernel refused.
struct RefusedLine {
    TracedLine line;
    std::string reason;  ///< the tool's own words
};

/// The lines of a profile that a scratch kernel refuses; those of a family that this machine does
/// not have are left out. Loads all of them at once, and each alone only when that fails. Lines
/// that apply mode "lines" makes although they cannot be used are not among them: see
/// fwRulesToBatchRules(). Throws Error, with the rule, when the profile cannot be translated, and
/// as the constructor of ScratchKernel.
std::vector<RefusedLine> refusedLines(const FW::FWPROFILE& profile,
                                      FW::TARNFW_IPTABLES_RULES& translation);

}  // namespace tarnfw
