#include "tarnserviceconf.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "hostCall.h"
#include "hostFile.h"
#include "serviceCatalogue.h"
#include "tarncore.h"

namespace fs = std::filesystem;

namespace {

constexpr char kSource[] = "tarnserviceconf";

// The packages' files, then the administrator's, which override them. Files of a directory are read
// in byte order; of several services with the same name the last one counts.
constexpr const char* kDirectories[] = {
    "/usr/tarn/etc.defaults/services.d",
    "/usr/tarn/etc/services.d",
};

// A catalogue of ten thousand services has about one and a half.
constexpr off_t kMostFileBytes = 16 * 1024 * 1024;

}  // namespace

/// Records sorted by name, for a binary search; they own their lists.
struct TARNFW_SERVICE_LIST {
    std::vector<TARNFW_SERVICE> records;

    TARNFW_SERVICE_LIST() = default;
    ~TARNFW_SERVICE_LIST() {
        for (const TARNFW_SERVICE& record : records) {
            TLIBCSzListFree(record.dstPorts);
            TLIBCSzListFree(record.srcPorts);
        }
    }
    TARNFW_SERVICE_LIST(const TARNFW_SERVICE_LIST&) = delete;
    TARNFW_SERVICE_LIST& operator=(const TARNFW_SERVICE_LIST&) = delete;
};

namespace {

// Reads the catalogue. All of it is examined even after a failure, so that one run names everything
// that is wrong.
class Reading {
public:
    Reading() {
        for (const char* directory : kDirectories) {
            for (const std::string& path : filesIn(directory)) {
                read(path);
            }
        }
    }

    // Without one of its files the catalogue is not known: services would seem to be gone, and with
    // them the rules that name them.
    bool whole() const { return whole_; }

    const host::Services& services() const { return services_; }

private:
    // The catalogue files of a directory, without hidden ones. None if it is missing.
    std::vector<std::string> filesIn(const char* directory) {
        std::vector<std::string> paths;
        std::error_code error;
        for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
             entry.increment(error)) {
            const std::string name = entry->path().filename();
            if (name.front() != '.' && entry->path().extension() == ".json") {
                paths.push_back(entry->path());
            }
        }
        if (error && error != std::errc::no_such_file_or_directory) {
            HOST_LOG_ERR("%s: not read: %s", directory, error.message().c_str());
            whole_ = false;
        }
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    void read(const std::string& path) {
        std::string content;
        const int error = host::readTrustedFile(path, kMostFileBytes, content);
        if (error == ENOENT) {
            return;  // removed since it was listed
        }
        if (error != 0) {
            if (!host::isRefusal(error)) {
                HOST_LOG_ERR("%s: not read: %s", path.c_str(), strerror(error));
            }
            whole_ = false;
            return;
        }
        const bool valid = host::readServices(content, services_, [&](const std::string& reason) {
            HOST_LOG_ERR("%s: %s", path.c_str(), reason.c_str());
        });
        whole_ = whole_ && valid;
    }

    host::Services services_;
    bool whole_ = true;
};

// Fills a list of a record that its catalogue already owns; NULL for an empty list.
bool fillPorts(PTLIBCSZLIST& list, const std::vector<std::string>& ports) {
    if (ports.empty()) {
        return true;
    }
    list = TLIBCSzListAlloc(static_cast<int>(ports.size()), 0);
    return list != nullptr && std::all_of(ports.begin(), ports.end(), [&](const std::string& port) {
               return TLIBCSzListPush(&list, port.c_str()) >= 0;
           });
}

bool fillRecord(TARNFW_SERVICE& record, const std::string& name, const host::Service& service) {
    name.copy(record.name, sizeof record.name - 1);
    service.title.copy(record.title, sizeof record.title - 1);
    record.dstProtocol = service.dst.protocol;
    record.srcProtocol = service.src.protocol;
    return fillPorts(record.dstPorts, service.dst.ports) &&
           fillPorts(record.srcPorts, service.src.ports);
}

}  // namespace

int TARNFwServiceEnum(TARNFW_SERVICE_LIST** list) {
    return HOST_GUARDED(-1, [&] {
        if (list == nullptr) {
            return HOST_FAIL(host::kErrorBadParameter);
        }
        const Reading reading;
        if (!reading.whole()) {
            return HOST_FAIL(EIO);  // what is wrong has been logged
        }
        const host::Services& services = reading.services();
        if (services.empty()) {
            return 0;
        }
        auto catalogue = std::make_unique<TARNFW_SERVICE_LIST>();
        catalogue->records.reserve(services.size());
        for (const auto& [name, service] : services) {
            catalogue->records.emplace_back();
            if (!fillRecord(catalogue->records.back(), name, service)) {
                HOST_LOG_ERR("Out of memory");
                return HOST_FAIL(ENOMEM);
            }
        }
        *list = catalogue.release();
        return static_cast<int>((*list)->records.size());
    });
}

const TARNFW_SERVICE* TARNFWServiceFind(const TARNFW_SERVICE_LIST* list, const char* name) {
    if (list == nullptr || name == nullptr) {
        return nullptr;
    }
    const std::string_view wanted = name;
    const auto found = std::lower_bound(
        list->records.begin(), list->records.end(), wanted,
        [](const TARNFW_SERVICE& record, std::string_view text) { return record.name < text; });
    return found != list->records.end() && found->name == wanted ? &*found : nullptr;
}

void TARNFwServiceFree(TARNFW_SERVICE_LIST* list) {
    const std::unique_ptr<TARNFW_SERVICE_LIST> owned(list);
}
