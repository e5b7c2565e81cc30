/// A packet filter to try things in: that of a network namespace of its own, which nothing else is
/// in and which ends with the object.
#pragma once

#include <string>
#include <vector>

#include "tarnfwadmin/translation.h"

namespace tarnfw {

/// How a program ended, and what it said.
struct ProgramAnswer {
    int status = 0;
    std::string output;
    std::string errors;
};

/// The packet filter of a network, through iptables and ip6tables.
class PacketFilter {
public:
    virtual ~PacketFilter() = default;

    /// Runs the tool of a family ("v4", "v6"). Throws Error when that cannot be done.
    ProgramAnswer run(const std::string& family, const std::vector<std::string>& arguments) const;

    /// Hands a text to the restoring tool of a family, which adds to what is there.
    ProgramAnswer restore(const std::string& family, const std::string& text) const;

protected:
    PacketFilter() = default;

private:
    ProgramAnswer runProgram(const std::string& program, const std::vector<std::string>& arguments,
                             int input) const;

    /// Called between fork and exec; false when the program must not run.
    virtual bool enter() const = 0;
};

/// That of this machine.
class MachineKernel : public PacketFilter {
private:
    bool enter() const override { return true; }
};

/// That of a fresh namespace, with the base filter set up in both families.
class ScratchKernel : public PacketFilter {
public:
    /// Throws Error where the system does not allow network namespaces.
    ScratchKernel();
    ~ScratchKernel() override;
    ScratchKernel(const ScratchKernel&) = delete;
    ScratchKernel& operator=(const ScratchKernel&) = delete;

    /// Loads a line as a reload does, one process a line. Empty when the kernel took it, else the
    /// tool's own words.
    std::string load(const TracedLine& line) const;

private:
    bool enter() const override;
    void setUpBase() const;
    void end() const;

    int holder_ = -1;  // a process that does nothing but keep the namespace
    int pidfd_ = -1;   // the same, as setns() wants it
    int hold_ = -1;    // a pipe; the process ends when it is closed
};

}  // namespace tarnfw
