/// A packet filter for trying things: that of a new network namespace, which nothing else is
/// in and which ends with the object.
#pragma once

#include <sys/types.h>

#include <string>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/packetFilter.h"
#include "tarnfwadmin/translation.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The packet filter of a fresh namespace, with the base filter set up in both families.
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

private:
    bool enter() const override;
    void setUpBase() const;
    void end() const;

    pid_t holder_ = -1;  // a process that does nothing but keep the namespace
    Descriptor pidfd_;   // the same, as setns() wants it
    Descriptor hold_;    // a pipe; the process ends when it is closed
};

}  // namespace tarnfw
