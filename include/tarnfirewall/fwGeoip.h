/// The GeoIP country database in "/usr/share/xt_geoip/".
#pragma once

#include <json/json.h>
#include <netinet/in.h>

#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

namespace FW {

/// Reads the files that the kernel's geoip match reads: for each country "CC.iv4", records of two
/// 32-bit numbers (first and last address), and "CC.iv6", records of two 16-byte addresses, all in
/// native byte order, four 32-bit words to an IPv6 address. An object has no state.
class TARNFW_EXPORT FW_GEOIP {
public:
    /// Writes an address, in native byte order, as "10.0.0.1". Returns as snprintf.
    int Ipv4ToString(unsigned int addr, char* buffer, int size);

    /// Writes an address, four words in native byte order, as eight groups of four hexadecimal
    /// digits, never shortened. Returns as snprintf.
    int Ipv6ToString(in6_addr* addr, char* buffer, int size);

    /// Sets "ip_begin" and "ip_end" of a range.
    void ParseV4(unsigned int begin, unsigned int end, Json::Value& range);
    void ParseV6(in6_addr* begin, in6_addr* end, Json::Value& range);

    /// Appends one {"ip_begin", "ip_end"} for each record of a country's file to `ranges`;
    /// `scratch` holds the last one afterwards. A partial last record is completed with zero bytes.
    /// Returns 0, or -1, logged, when the file cannot be opened. A read error ends the reading.
    int geoipFileRead(const std::string& country, Json::Value& scratch, Json::Value& ranges,
                      bool ipv6);

    /// Appends the ranges of a country to `ranges`; pass an empty value.
    /// Returns false, logged, when its file cannot be opened.
    bool countryIPGet(const std::string& country, const bool& ipv6, Json::Value& ranges);

    /// Appends those of `countries` to `usable` that have a file of at least 8 bytes for the
    /// family. Returns whether `usable` holds any then; false, logged, without `countries`.
    bool geoipSanctify(const std::vector<std::string>& countries, const bool& ipv6,
                       std::vector<std::string>& usable);

    /// Appends the first two characters of each file name with ".iv4" in it, in directory order.
    /// Returns false, logged, when the directory cannot be opened.
    bool countryEnum(std::vector<std::string>& countries);
};

}  // namespace FW
