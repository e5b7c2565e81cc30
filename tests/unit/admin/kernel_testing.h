/// A kernel that is played by stand-ins for iptables, for tests of what reads and changes rules.
#pragma once

#include <sys/mount.h>
#include <sys/stat.h>

#include <initializer_list>
#include <string>

#include "store_testing.h"

namespace tarnfw {

/// What the kernel has: the answer of the stand-ins to a listing, for both families.
inline constexpr char kListing[] = "/tmp/listing";

// The base filter, as it is listed.
inline constexpr char kChains[] =
    "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n"
    "-N FIREWALL_RELOADING\n-N FORWARD_FIREWALL\n-N INPUT_FIREWALL\n";
inline constexpr char kJumps[] =
    "-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j INPUT_FIREWALL\n"
    "-A FORWARD -j FIREWALL_RELOADING\n-A FORWARD -j FORWARD_FIREWALL\n";

/// StoreTest with a kernel that has the base filter and no rules.
class KernelTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        kernelHas(std::string(kChains) + kJumps);
    }

    static void kernelHas(const std::string& listing) { writeFile(kListing, listing); }

    /// Puts a script in the place of programs in /sbin, in the mounts of this case, so it ends with
    /// the case.
    static void playPrograms(const std::string& script, std::initializer_list<const char*> names) {
        const std::string program = "/tmp/iptables";
        writeFile(program, script);
        ASSERT_EQ(chmod(program.c_str(), 0755), 0);
        for (const char* const name : names) {
            const std::string path = std::string("/sbin/") + name;
            ASSERT_EQ(mount(program.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0) << path;
        }
    }
};

}  // namespace tarnfw
