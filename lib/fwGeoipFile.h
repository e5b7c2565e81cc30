/// The files of the country database.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

namespace FW {

inline constexpr std::size_t kGeoipRecordBytesV4 = 8;
inline constexpr std::size_t kGeoipRecordBytesV6 = 32;

/// What a file has at least when the translation uses its country. The same for both families, so
/// an ".iv6" file too short for a record still counts.
inline constexpr std::size_t kGeoipUsableBytes = 8;

/// Calls `use` with each record of a country's file and with how many of its bytes are in the file:
/// zeros complete a partial last one. Returns false when the file cannot be opened.
bool geoipRecordsRead(const std::string& country, bool ipv6,
                      const std::function<void(const char* record, std::size_t bytes)>& use);

/// The number of a 32-bit word of a file, which has them in the byte order of the machine.
inline std::uint32_t wordAt(const char* bytes) {
    std::uint32_t word = 0;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}

/// The file of a country.
std::string geoipPath(const std::string& country, bool ipv6);

}  // namespace FW
