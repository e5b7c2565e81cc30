#include "tarnkm.h"

#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "fwFileLock.h"
#include "hostCall.h"
#include "hostFile.h"
#include "kmodKernel.h"
#include "moduleLedger.h"
#include "tarncore.h"
#include "tarnsdk.h"

namespace {

constexpr char kSource[] = "tarnkm";

// Below /run, which a restart empties, as it does the list of loaded modules.
constexpr char kDirectory[] = "/run/tarn";
constexpr mode_t kDirectoryMode = 0755;
constexpr char kLedgerFile[] = "/run/tarn/iptables_modules.json";
constexpr mode_t kLedgerMode = 0600;
constexpr off_t kMostLedgerBytes = 1024 * 1024;
constexpr char kLockFile[] = "/run/tarn/iptables_modules.lock";
constexpr int kLockSeconds = 30;

// The stored ledger, with the text it was read from. An invalid file counts as empty: modules that
// it may have named just stay in the kernel.
host::ModuleLedger readLedger(std::string& text) {
    const int error = host::readTrustedFile(kLedgerFile, kMostLedgerBytes, text);
    if (error == ENOENT) {
        return {};
    }
    if (error != 0) {
        HOST_LOG_ERR("%s: not read, taken as empty: %s", kLedgerFile, strerror(error));
        return {};
    }
    std::optional<host::ModuleLedger> ledger = host::parseLedger(text);
    if (!ledger) {
        HOST_LOG_ERR("%s: damaged, taken as empty", kLedgerFile);
        return {};
    }
    return *std::move(ledger);
}

using Operation = int (*)(const host::ModuleKernel&, const std::string&,
                          const std::vector<std::string>&, host::ModuleLedger&);

// Runs insertModules or removeModules on the stored ledger. 0, or negative with the error state
// set.
int withLedger(const char* servName, const TLIBCSZLIST* modules, Operation operation) {
    if (servName == nullptr || servName[0] == '\0' || modules == nullptr) {
        return HOST_FAIL(host::kErrorBadParameter);
    }
    std::vector<std::string> names;
    for (int i = 0; i < modules->nItem; ++i) {
        const char* name = TLIBCSzListGet(modules, i);
        names.emplace_back(name != nullptr ? name : "");
    }
    if (TARNFSMkdirP(kDirectory, nullptr, 1, 0, 0, kDirectoryMode) < 0) {
        const int error = errno;
        HOST_LOG_ERR("%s: not made: %s", kDirectory, strerror(error));
        return HOST_FAIL(error);
    }
    const FW::FileLock lock(kLockFile, kLockSeconds,
                            [] { HOST_LOG_ERR("%s: not unlocked", kLockFile); });
    if (!lock.held()) {
        HOST_LOG_ERR("%s: no lock within %d s", kLockFile, kLockSeconds);
        return HOST_FAIL(EAGAIN);
    }
    std::string before;
    host::ModuleLedger ledger = readLedger(before);
    int error = operation(host::runningKernel(), servName, names, ledger);
    const std::string after = host::ledgerText(ledger);
    if (after != before && !(before.empty() && ledger.empty())) {
        host::FileOwner owner;
        owner.mode = kLedgerMode;
        const int writeError = host::replaceFile(kLedgerFile, after, owner);
        if (writeError != 0) {
            HOST_LOG_ERR("%s: not written: %s", kLedgerFile, strerror(writeError));
            error = error != 0 ? error : writeError;
        }
    }
    return error == 0 ? 0 : HOST_FAIL(error);
}

}  // namespace

int TLIBIptablesModInsert(const char* servName, PTLIBCSZLIST modules) {
    return HOST_GUARDED(-1, [&] { return withLedger(servName, modules, host::insertModules); });
}

int TLIBIptablesModRemove(const char* servName, PTLIBCSZLIST modules) {
    return HOST_GUARDED(-1, [&] { return withLedger(servName, modules, host::removeModules); });
}
