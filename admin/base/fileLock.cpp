#include "tarnfwadmin/fileLock.h"

#include "tarncore.h"

namespace tarnfw {
namespace {

constexpr int kExclusive = 1;

}  // namespace

FileLock::FileLock(const std::string& path, int seconds)
    : held_(TLIBCFileLockTimeByFile(path.c_str(), kExclusive, seconds, &fd_) == 1) {}

FileLock::~FileLock() {
    if (held_) {
        (void)TLIBCFileUnlockByFile(fd_);  // fails only for a descriptor that is not open
    }
}

}  // namespace tarnfw
