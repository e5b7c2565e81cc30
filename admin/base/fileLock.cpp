#include "tarnfwadmin/fileLock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include <boost/algorithm/string/predicate.hpp>

#include "tarncore.h"

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

namespace fs = std::filesystem;

using Clock = std::chrono::steady_clock;

constexpr int kExclusive = 1;
constexpr std::chrono::milliseconds kPause(20);  // between two looks at a lock

/// A process that holds a lock.
struct Holder {
    std::string number;
    std::string name;
    bool stopped = false;
};

/// Whether a process has locked the file by an open file that "/proc" lists at `descriptor`.
/// "/proc/locks" does not have the process of a lock that belongs to an open file.
bool hasLocked(const fs::path& process, const std::string& descriptor, const struct stat& file) {
    struct stat opened {};
    if (stat((process / "fd" / descriptor).c_str(), &opened) != 0 || opened.st_dev != file.st_dev ||
        opened.st_ino != file.st_ino) {
        return false;
    }
    std::ifstream lines(process / "fdinfo" / descriptor);
    for (std::string line; std::getline(lines, line);) {
        if (boost::starts_with(line, "lock:")) {
            return true;
        }
    }
    return false;
}

/// What "/proc/NUMBER/stat" says: the name in parentheses, and the state after them.
Holder holderAt(const fs::path& process) {
    Holder holder;
    holder.number = process.filename().string();
    std::ifstream file(process / "stat");
    std::string line;
    (void)std::getline(file, line);
    const std::size_t begin = line.find('(');
    const std::size_t end = line.rfind(") ");
    if (begin != std::string::npos && end != std::string::npos) {
        holder.name = line.substr(begin + 1, end - begin - 1);
        holder.stopped = boost::starts_with(line.substr(end + 2), "T");
    }
    return holder;
}

/// The process that holds a lock of the file. Nothing without rights to look into that process.
std::optional<Holder> holderOf(const std::string& path) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0) {
        return std::nullopt;
    }
    std::error_code ignored;  // processes end meanwhile
    for (const fs::directory_entry& process : fs::directory_iterator("/proc", ignored)) {
        const std::string number = process.path().filename().string();
        if (number.find_first_not_of("0123456789") != std::string::npos ||
            number == std::to_string(getpid())) {
            continue;
        }
        for (const fs::directory_entry& descriptor :
             fs::directory_iterator(process.path() / "fd", ignored)) {
            if (hasLocked(process.path(), descriptor.path().filename().string(), file)) {
                return holderAt(process.path());
            }
        }
    }
    return std::nullopt;
}

}  // namespace

int LockTime::seconds() const {
    return static_cast<int>(std::chrono::ceil<std::chrono::seconds>(left_).count());
}

void LockTime::spend(const std::function<void()>& wait) {
    const auto begin = Clock::now();
    wait();
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
    left_ = std::max(left_ - spent, std::chrono::milliseconds::zero());
}

FileLock::FileLock(const std::string& path, int seconds)
    : held_(TLIBCFileLockTimeByFile(path.c_str(), kExclusive, seconds, &fd_) == 1) {}

FileLock::FileLock(const std::string& path, LockTime& time) {
    time.spend([&] {
        held_ = TLIBCFileLockTimeByFile(path.c_str(), kExclusive, time.seconds(), &fd_) == 1;
    });
}

FileLock::~FileLock() {
    if (held_) {
        (void)TLIBCFileUnlockByFile(fd_);  // fails only for a descriptor that is not open
    }
}

bool isLocked(const std::string& path) {
    const Descriptor file(
        open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    // Finds both sorts of locks that the library uses, of a process and of an open file.
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return file && fcntl(file.get(), F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
}

bool isFlocked(const std::string& path) {
    // Takes it for a moment, shared. "/proc/locks" would not disturb a program that does not wait,
    // but its reader waits for every processor, some 15 ms.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    return file && flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

void awaitUnlocked(const std::string& path, LockTime& time,
                   bool (*isHeld)(const std::string& path)) {
    bool locked = true;
    time.spend([&] {
        const auto end = Clock::now() + time.left();
        while ((locked = isHeld(path)) && Clock::now() < end) {
            std::this_thread::sleep_for(kPause);
        }
    });
    if (locked) {
        throwLocked(path);
    }
}

void throwLocked(const std::string& path) {
    const std::optional<Holder> holder = holderOf(path);
    std::string text = printable(path) + " is locked by another process";
    if (holder) {
        text = printable(path) + " is locked by process " + holder->number + " (" +
               printable(holder->name) + ")" + (holder->stopped ? ", which is stopped" : "");
    }
    throw Error(ErrorKind::kBusy, text);
}

}  // namespace tarnfw
