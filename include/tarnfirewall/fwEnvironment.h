/// What the meaning of a profile depends on besides the profile, asked from the platform.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/fwTypes.h"

namespace FW {

/// Which adapters of a profile count.
enum FW_ADAPTERS : std::uint8_t {
    FW_ADAPTERS_PRESENT = 0,  ///< those with an interface now: what a reload puts into the kernel
    FW_ADAPTERS_ALL = 1       ///< all, as if there were an interface for each
};

/// Fills an environment for a profile, which may be any: it is not asked which one is active, nor
/// whether the firewall is enabled. Asks for
/// - the machine's interfaces and the PPPoE one;
/// - for each adapter of the profile that has an interface now, also when its rules are off, the
///   interface that routes IPv6 for it, which runs "/usr/tarn/sbin/tarnnetdtool" once. When that
///   cannot be run or prints nothing, it is logged with LOG_ERR, and there is no tunnel. Other
///   adapters have none, also with FW_ADAPTERS_ALL;
/// - the services that its rules name, from the service catalogue, and those of `services`;
/// - the addresses of the countries that its rules name, also those that are off, in both families,
///   from "/usr/share/xt_geoip/";
/// - the apply mode, from the settings, without their lock; "lines" where they cannot be read.
/// Everything is read here: the environment does not ask for anything later. Established
/// connections are accepted in it, from every address, as after a reload.
/// Returns false, logged, when the interfaces cannot be listed, or the catalogue cannot be read
/// while there is a service to look up; `environment` is untouched then.
TARNFW_EXPORT bool fwEnvironmentGet(const FWPROFILE& profile, FW_ADAPTERS adapters,
                                    const std::vector<std::string>& services,
                                    FWENVIRONMENT& environment);

/// The addresses of a country in a family, from "/usr/share/xt_geoip/"; null without a file for it,
/// which is not logged. A record at the end that is not complete is left out.
TARNFW_EXPORT std::shared_ptr<const FWADDRESSES> fwCountryAddresses(const std::string& country,
                                                                    FW_FAMILY family);

}  // namespace FW
