/// The library's own files, as more than one source names them.
#pragma once

#include <string>

namespace FW {

/// With the trailing slash: paths below it are made by plain concatenation.
inline constexpr char kFirewallDir[] = "/usr/tarn/etc/firewall.d/";
inline constexpr char kSettingsFile[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";

/// Whether anything exists at `path`, as access() sees it.
bool pathExists(const std::string& path);

}  // namespace FW
