#include "tarnfirewall/fwGeoip.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "fwGeoipFile.h"
#include "fwLog.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwGeoip";

constexpr char kDatabaseDir[] = "/usr/share/xt_geoip/";
constexpr std::size_t kChunkBytes = 4096;  // a multiple of both record sizes
constexpr std::size_t kTextBytes = 64;
constexpr std::size_t kPathBytes = 1024;

struct FileClose {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};

struct DirectoryClose {
    void operator()(DIR* directory) const { (void)closedir(directory); }
};

in6_addr addressAt(const char* bytes) {
    in6_addr address;
    std::memcpy(&address, bytes, sizeof(address));
    return address;
}

/// Byte `index` of a word, 0 the most significant.
unsigned byteOf(std::uint32_t word, unsigned index) {
    return (word >> (24 - 8 * index)) & 0xff;
}

}  // namespace

std::string geoipPath(const std::string& country, bool ipv6) {
    return kDatabaseDir + country + (ipv6 ? ".iv6" : ".iv4");
}

bool geoipRecordsRead(const std::string& country, bool ipv6,
                      const std::function<void(const char* record, std::size_t bytes)>& use) {
    const std::unique_ptr<std::FILE, FileClose> file(
        std::fopen(geoipPath(country, ipv6).c_str(), "rbe"));
    if (!file) {
        return false;
    }
    char chunk[kChunkBytes];
    for (;;) {
        // Zeroed each time, because zeros complete a partial last record.
        std::memset(chunk, 0, sizeof(chunk));
        const std::size_t length = std::fread(chunk, 1, sizeof(chunk), file.get());
        if (length < 1) {
            return true;
        }
        const std::size_t step = ipv6 ? kGeoipRecordBytesV6 : kGeoipRecordBytesV4;
        for (std::size_t offset = 0; offset < length; offset += step) {
            use(chunk + offset, std::min(step, length - offset));
        }
    }
}

int FW_GEOIP::Ipv4ToString(unsigned int addr, char* buffer, int size) {
    return std::snprintf(buffer, static_cast<std::size_t>(size), "%u.%u.%u.%u", byteOf(addr, 0),
                         byteOf(addr, 1), byteOf(addr, 2), byteOf(addr, 3));
}

int FW_GEOIP::Ipv6ToString(in6_addr* addr, char* buffer, int size) {
    const std::uint32_t* const w = addr->s6_addr32;
    return std::snprintf(buffer, static_cast<std::size_t>(size),
                         "%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x:%02x%02x",
                         byteOf(w[0], 0), byteOf(w[0], 1), byteOf(w[0], 2), byteOf(w[0], 3),
                         byteOf(w[1], 0), byteOf(w[1], 1), byteOf(w[1], 2), byteOf(w[1], 3),
                         byteOf(w[2], 0), byteOf(w[2], 1), byteOf(w[2], 2), byteOf(w[2], 3),
                         byteOf(w[3], 0), byteOf(w[3], 1), byteOf(w[3], 2), byteOf(w[3], 3));
}

void FW_GEOIP::ParseV4(unsigned int begin, unsigned int end, Json::Value& range) {
    char text[kTextBytes] = {};
    (void)Ipv4ToString(begin, text, sizeof(text));
    range["ip_begin"] = text;
    (void)Ipv4ToString(end, text, sizeof(text));
    range["ip_end"] = text;
}

void FW_GEOIP::ParseV6(in6_addr* begin, in6_addr* end, Json::Value& range) {
    char text[kTextBytes] = {};
    (void)Ipv6ToString(begin, text, sizeof(text));
    range["ip_begin"] = text;
    (void)Ipv6ToString(end, text, sizeof(text));
    range["ip_end"] = text;
}

int FW_GEOIP::geoipFileRead(const std::string& country, Json::Value& scratch, Json::Value& ranges,
                            bool ipv6) {
    const bool read = geoipRecordsRead(country, ipv6, [&](const char* record, std::size_t) {
        scratch.clear();
        if (ipv6) {
            in6_addr first = addressAt(record);
            in6_addr last = addressAt(record + sizeof(in6_addr));
            ParseV6(&first, &last, scratch);
        } else {
            ParseV4(wordAt(record), wordAt(record + sizeof(std::uint32_t)), scratch);
        }
        ranges.append(scratch);
    });
    if (!read) {
        FW_LOG_ERR("Failed to open file %s\n", geoipPath(country, ipv6).c_str());
        return -1;
    }
    return 0;
}

bool FW_GEOIP::countryIPGet(const std::string& country, const bool& ipv6, Json::Value& ranges) {
    Json::Value scratch;
    if (geoipFileRead(country, scratch, ranges, ipv6) < 0) {
        FW_LOG_ERR("Failed to read geoip database");
        return false;
    }
    return true;
}

bool FW_GEOIP::geoipSanctify(const std::vector<std::string>& countries, const bool& ipv6,
                             std::vector<std::string>& usable) {
    if (countries.empty()) {
        FW_LOG_ERR("There are no country");
        return false;
    }
    for (const std::string& country : countries) {
        char path[kPathBytes];
        std::snprintf(path, sizeof(path), "%s%s.%s", kDatabaseDir, country.c_str(),
                      ipv6 ? "iv6" : "iv4");
        struct stat status {};
        if (stat(path, &status) == 0 && status.st_size >= off_t(kGeoipUsableBytes)) {
            usable.push_back(country);
        }
    }
    return !usable.empty();
}

bool FW_GEOIP::countryEnum(std::vector<std::string>& countries) {
    const std::unique_ptr<DIR, DirectoryClose> directory(opendir(kDatabaseDir));
    if (!directory) {
        FW_LOG_ERR("Failed to opendir %s", kDatabaseDir);
        return false;
    }
    while (const dirent* const entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name.find(".iv4") != std::string::npos) {
            countries.push_back(name.substr(0, 2));
        }
    }
    return true;
}

}  // namespace FW
