// A country's file: as many ranges as it has records, in texts that are addresses of the family.
// The first byte of an input says which family.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwGeoip.h"

#include "property.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/machine.h"

namespace {

constexpr char kGeoipDir[] = "/usr/share/xt_geoip/";
constexpr std::size_t kLeast = 8;  // bytes of a file that is used
constexpr std::size_t kRecordV4 = 8;
constexpr std::size_t kRecordV6 = 32;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    std::filesystem::create_directories(kGeoipDir);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const bool ipv6 = data[0] % 2 != 0;
    const std::string content(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::string path = std::string(kGeoipDir) + (ipv6 ? "DE.iv6" : "DE.iv4");
    std::ofstream(path, std::ios::trunc) << content;

    FW::FW_GEOIP database;
    Json::Value ranges(Json::arrayValue);
    require(database.countryIPGet("DE", ipv6, ranges), "a file that is there can be read");
    const std::size_t record = ipv6 ? kRecordV6 : kRecordV4;
    require(ranges.size() == (content.size() + record - 1) / record, "a range for each record",
            std::to_string(ranges.size()));
    for (const Json::Value& range : ranges) {
        const auto read =
            tarnfw::rangeFrom(range["ip_begin"].asString(), range["ip_end"].asString());
        const auto first = tarnfw::addressFrom(range["ip_begin"].asString());
        const auto last = tarnfw::addressFrom(range["ip_end"].asString());
        require(first && last, "ends that are addresses", range.toStyledString());
        require(first->isIpv6() == ipv6 && last->isIpv6() == ipv6, "of the family",
                range.toStyledString());
        require(read.has_value() == (*first <= *last), "a range where its ends are in order",
                range.toStyledString());
    }
    std::vector<std::string> usable;
    (void)database.geoipSanctify({"DE", "US"}, ipv6, usable);
    require(usable.size() == (content.size() >= kLeast ? 1U : 0U), "usable from one record on");
    require(tarnfw::readCountryRanges("DE", ipv6).size() <= ranges.size(), "no range is invented");
    std::filesystem::remove(path);
    return 0;
}
