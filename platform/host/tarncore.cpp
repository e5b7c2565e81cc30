#include "tarncore.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fwSpawn.h"
#include "hostCall.h"
#include "hostFile.h"
#include "hostIptables.h"
#include "hostKeyValue.h"

namespace {

constexpr char kSource[] = "tarncore";

}  // namespace

// ---- String lists -------------------------------------------------------------------------------

namespace {

constexpr int kFirstCapacity = 16;

// Makes room for one more text. The list is allocated with malloc, because its record is public.
bool grow(TLIBCSZLIST& list) {
    if (list.nItem < list.capacity) {
        return true;
    }
    if (list.capacity > INT_MAX / 2) {
        return false;
    }
    const int capacity = std::max(list.capacity * 2, kFirstCapacity);
    void* items = reallocarray(list.items, static_cast<std::size_t>(capacity), sizeof(char*));
    if (items == nullptr) {
        return false;
    }
    list.items = static_cast<char**>(items);
    list.capacity = capacity;
    return true;
}

}  // namespace

PTLIBCSZLIST TLIBCSzListAlloc(int capacity, int /*flags*/) {
    if (capacity < 0) {
        HOST_FAIL(host::kErrorBadParameter);
        return nullptr;
    }
    std::unique_ptr<TLIBCSZLIST, decltype(&free)> list(
        static_cast<PTLIBCSZLIST>(calloc(1, sizeof(TLIBCSZLIST))), &free);
    if (list != nullptr && capacity > 0) {
        list->items =
            static_cast<char**>(calloc(static_cast<std::size_t>(capacity), sizeof(char*)));
    }
    if (list == nullptr || (capacity > 0 && list->items == nullptr)) {
        HOST_FAIL(ENOMEM);
        return nullptr;
    }
    list->capacity = capacity;
    return list.release();
}

int TLIBCSzListPush(PTLIBCSZLIST* list, const char* text) {
    if (list == nullptr || *list == nullptr || text == nullptr) {
        return HOST_FAIL(host::kErrorBadParameter);
    }
    // The copy first: the text may be an element of the list.
    std::unique_ptr<char, decltype(&free)> copy(strdup(text), &free);
    if (copy == nullptr || !grow(**list)) {
        return HOST_FAIL(ENOMEM);
    }
    (*list)->items[(*list)->nItem++] = copy.release();
    return 0;
}

const char* TLIBCSzListGet(const TLIBCSZLIST* list, int index) {
    if (list == nullptr || index < 0 || index >= list->nItem) {
        return nullptr;
    }
    return list->items[index];
}

void TLIBCSzListFree(PTLIBCSZLIST list) {
    if (list == nullptr) {
        return;
    }
    for (int i = 0; i < list->nItem; ++i) {
        free(list->items[i]);
    }
    free(list->items);
    free(list);
}

// ---- Programs -----------------------------------------------------------------------------------

namespace {

struct RunningProgram {
    pid_t pid = -1;
    std::string line;  // its command line, for the log
};

// The programs of the streams of TLIBCPopen: a stream has no field for its program.
class StreamTable {
public:
    using Programs = std::map<FILE*, RunningProgram>;

    static StreamTable& instance() {
        static StreamTable table;
        return table;
    }

    // Takes entries allocated before the program was started, when a failure was still harmless.
    void add(Programs& entries) {
        const std::lock_guard<std::mutex> lock(mutex_);
        programs_.merge(entries);
    }

    std::optional<RunningProgram> take(FILE* stream) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto node = programs_.extract(stream);
        return node.empty() ? std::nullopt : std::optional(std::move(node.mapped()));
    }

private:
    std::mutex mutex_;
    Programs programs_;
};

// Starts a program, or logs why not.
bool start(const FW::Program& program, RunningProgram& running) {
    running.line = host::commandLine(program.argv);
    if (const int error = FW::startProgram(program, running.pid)) {
        HOST_LOG_ERR("Cannot run %s: %s", program.path, strerror(error));
        HOST_FAIL(error);
        return false;
    }
    return true;
}

// Waits for a program. A lost status counts as 0, since -1 is for programs that never ran.
int await(const RunningProgram& running) {
    const auto status = FW::waitForProgram(running.pid);
    if (!status) {
        HOST_LOG_WARNING("The exit status of \"%s\" is lost", running.line.c_str());
    }
    return status.value_or(0);
}

// Logs any status but 0, which callers ignore.
int logged(int status, const std::string& line) {
    if (status > 0) {
        HOST_LOG_WARNING("\"%s\" ended with status %d", line.c_str(), status);
    }
    return status;
}

int finish(const RunningProgram& running) {
    return logged(await(running), running.line);
}

// Runs a program to its end. Its status is not logged yet.
int run(const FW::Program& program, RunningProgram& running) {
    return start(program, running) ? await(running) : -1;
}

// The same for one of iptables, which waits for no lock of other programs: see underXtablesLock().
int runUnderXtablesLock(FW::Program program, RunningProgram& running) {
    const host::Descriptor lockFile(memfd_create("lock", MFD_CLOEXEC));
    if (!lockFile) {
        return HOST_FAIL(errno);
    }
    return host::underXtablesLock(program.path, [&](host::OwnLockFile own) {
        const bool isOwn = own == host::OwnLockFile::kYes;
        program.input = isOwn ? lockFile.get() : -1;
        program.environment.clear();
        if (isOwn) {
            program.environment.emplace_back(host::kInputAsLockFile);
        }
        return run(program, running);
    });
}

std::string textOf(int file) {
    std::string text;
    char part[4096];
    if (lseek(file, 0, SEEK_SET) == 0) {
        for (ssize_t size = 0; (size = read(file, part, sizeof part)) > 0;) {
            text.append(part, static_cast<std::size_t>(size));
        }
    }
    return text;
}

/// Writes what a program has said to where the program would have written it. A reader that is gone
/// must not end this process in the middle of a reload.
void passOn(const std::string& text) {
    if (text.empty() || !FW::isInherited(STDERR_FILENO)) {
        return;
    }
    sigset_t brokenPipe;
    sigset_t before;
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &brokenPipe, &before);
    if (write(STDERR_FILENO, text.data(), text.size()) < 0 && errno == EPIPE &&
        sigismember(&before, SIGPIPE) == 0) {
        const timespec atOnce{};
        (void)sigtimedwait(&brokenPipe, nullptr, &atOnce);  // takes the signal that is pending now
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

int execute(FW::Program program) {
    const host::Descriptor complaints(
        host::isIp6tables(program.path) ? memfd_create("complaints", MFD_CLOEXEC) : -1);
    program.errors = complaints.get();
    RunningProgram running;
    const int status = host::takesXtablesLock(program.path) ? runUnderXtablesLock(program, running)
                                                            : run(program, running);
    if (complaints) {
        const std::string complaint = textOf(complaints.get());
        if (status > 0 && host::saysAbsentAgain(complaint)) {
            return status;
        }
        passOn(complaint);
    }
    return logged(status, running.line);
}

FILE* openProgram(const std::vector<const char*>& argv) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        HOST_FAIL(errno);
        return nullptr;
    }
    host::Descriptor readEnd(ends[0]);
    const host::Descriptor writeEnd(ends[1]);
    std::unique_ptr<FILE, decltype(&fclose)> stream(fdopen(readEnd.get(), "r"), &fclose);
    if (stream == nullptr) {
        HOST_FAIL(errno);
        return nullptr;
    }
    (void)readEnd.release();  // the stream owns it now

    StreamTable::Programs entry;
    FW::Program program;
    program.path = argv[0];
    program.argv = argv.data();
    program.output = writeEnd.get();
    if (!start(program, entry[stream.get()])) {
        return nullptr;
    }
    StreamTable::instance().add(entry);
    return stream.release();
}

}  // namespace

int TLIBCExecv(const char* path, const char* const argv[], int /*flag*/) {
    return HOST_GUARDED(-1, [&] {
        if (path == nullptr || argv == nullptr || argv[0] == nullptr) {
            return HOST_FAIL(host::kErrorBadParameter);
        }
        if (host::isAbsentFamily(path)) {
            return 0;
        }
        FW::Program program;
        program.path = path;
        program.argv = argv;
        return execute(program);
    });
}

FILE* TLIBCPopen(const char* path, const char* mode, ...) {
    va_list arguments;
    va_start(arguments, mode);
    FILE* const stream = HOST_GUARDED(static_cast<FILE*>(nullptr), [&]() -> FILE* {
        if (path == nullptr || mode == nullptr || strcmp(mode, "r") != 0) {
            HOST_FAIL(host::kErrorBadParameter);
            return nullptr;
        }
        std::vector<const char*> argv = {path};
        while (argv.back() != nullptr) {
            argv.push_back(va_arg(arguments, const char*));
        }
        return openProgram(argv);
    });
    va_end(arguments);
    return stream;
}

int TLIBCPclose(FILE* stream) {
    return HOST_GUARDED(-1, [&] {
        const auto program = StreamTable::instance().take(stream);
        if (!program) {
            // Not closed either: it belongs to somebody else.
            return HOST_FAIL(host::kErrorBadParameter);
        }
        (void)fclose(stream);  // first, or a program with more to write would never end
        return finish(*program);
    });
}

// ---- Files --------------------------------------------------------------------------------------

namespace {

constexpr char kModelFile[] = "/etc.defaults/tarninfo.conf";

// Reads a key. 1 when it was found, 0 when it is absent, -1 on error.
int getKeyValue(const char* path, const char* key, std::string& value) {
    if (path == nullptr || key == nullptr || !host::KeyValueText::isKey(key)) {
        return HOST_FAIL(host::kErrorBadParameter);
    }
    std::string content;
    if (const int error = host::readKeyValueFile(path, content)) {
        return HOST_FAIL(error);
    }
    auto found = host::KeyValueText(content).get(key);
    if (!found) {
        return 0;
    }
    value = std::move(*found);
    return 1;
}

}  // namespace

int TLIBCFileExist(const char* path) {
    struct stat info = {};
    if (path == nullptr) {
        HOST_FAIL(host::kErrorBadParameter);
        return 0;
    }
    return lstat(path, &info) == 0 ? 1 : 0;  // a link exists even without its target
}

int TLIBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int /*flag*/) {
    return HOST_GUARDED(-1, [&] {
        if (value == nullptr || size <= 0) {
            return HOST_FAIL(host::kErrorBadParameter);
        }
        value[0] = '\0';
        std::string text;
        const int result = getKeyValue(path, key, text);
        if (result <= 0) {
            return result;
        }
        if (text.size() >= static_cast<std::size_t>(size)) {
            // Half a value could be taken for a different one.
            HOST_LOG_ERR("The value of %s in %s is longer than %d bytes", key, path, size - 1);
            return HOST_FAIL(ERANGE);
        }
        memcpy(value, text.c_str(), text.size() + 1);
        return 1;
    });
}

int TLIBCFileSetKeyValue(const char* path, const char* key, const char* value, int /*flag*/) {
    return HOST_GUARDED(-1, [&] {
        if (path == nullptr || key == nullptr || value == nullptr ||
            !host::KeyValueText::isKey(key) || !host::KeyValueText::isValue(value)) {
            return HOST_FAIL(host::kErrorBadParameter);
        }
        const int error = host::writeKeyValueFile(path, key, value);
        return error == 0 ? 0 : HOST_FAIL(error);
    });
}

int TLIBCFileCheckKeyValue(const char* path, const char* key, const char* value, int /*flag*/) {
    return HOST_GUARDED(0, [&] {
        if (value == nullptr) {
            HOST_FAIL(host::kErrorBadParameter);
            return 0;
        }
        std::string text;
        return getKeyValue(path, key, text) == 1 && text == value ? 1 : 0;
    });
}

int TLIBCSupportGet(const char* key) {
    return TLIBCFileCheckKeyValue(kModelFile, key, "yes", 0);
}

// ---- File locks ---------------------------------------------------------------------------------

namespace {

constexpr int kLockExclusive = 1;
constexpr mode_t kLockFileMode = 0600;

// Between two attempts: short at first, since most locks are held for moments only.
constexpr std::chrono::milliseconds kFirstPause(1);
constexpr std::chrono::milliseconds kLongestPause(50);

struct flock wholeFile(short type) {
    struct flock range = {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    return range;
}

// Whether `path` is still the opened file: one that was removed or replaced between opening and
// locking no longer excludes anybody.
bool isStillThere(const char* path, const struct stat& opened) {
    struct stat now = {};
    return lstat(path, &now) == 0 && now.st_dev == opened.st_dev && now.st_ino == opened.st_ino;
}

// Why root must not use what is at the path of a lock; empty when it may. Whoever can open the
// file can hold its lock, so another user's file would let that user block root. A link that
// root owns is refused when it is opened.
std::string lockFault(const struct stat& info) {
    if (!S_ISREG(info.st_mode) && !S_ISLNK(info.st_mode)) {
        return "it is no regular file";
    }
    return info.st_uid == 0 ? "" : "it belongs to user " + std::to_string(info.st_uid);
}

// For root, removes what others may have put at the path of a lock. 0 or an errno code.
int clearLockPath(const char* path) {
    host::Found entry;
    if (geteuid() != 0 || host::lookAt(AT_FDCWD, path, entry) != 0) {
        return 0;  // a bad path is reported when it is opened
    }
    const std::string why = lockFault(entry.info);
    return why.empty() ? 0 : host::setAside(AT_FDCWD, path, entry, path, why);
}

// Opens a lock file, creating it if needed. 0 or an errno code, EEXIST when somebody else has
// created it meanwhile.
int openLockFile(const char* path, host::Descriptor& file, struct stat& info) {
    constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    // In two steps: in a directory like /tmp the kernel may refuse O_CREAT for an existing file
    // even for its rightful users (fs.protected_regular).
    file = host::Descriptor(open(path, kFlags));
    if (!file && errno == ENOENT) {
        file = host::Descriptor(open(path, kFlags | O_CREAT | O_EXCL, kLockFileMode));
    }
    return file && fstat(file.get(), &info) == 0 ? 0 : errno;
}

// Opens a lock file that can be trusted. 0, EAGAIN when it is worth another attempt, or the errno
// code of a failure, which is logged.
int openTrustedLock(const char* path, host::Descriptor& file, struct stat& info) {
    for (int i = 0; i < host::kMostPlanted; ++i) {
        if (const int error = clearLockPath(path)) {
            return error;
        }
        const int error = openLockFile(path, file, info);
        if (error == EEXIST || error == EINTR) {
            continue;
        }
        if (error != 0) {
            HOST_LOG_ERR("Cannot open lock file %s: %s", path, strerror(error));
            return error;
        }
        if (geteuid() == 0 && !lockFault(info).empty()) {
            continue;  // put there after the path was cleared
        }
        if (!S_ISREG(info.st_mode)) {
            HOST_LOG_ERR("Refused lock file %s: it is no regular file", path);
            return EINVAL;
        }
        return 0;
    }
    return EAGAIN;
}

// One attempt to lock `path`. 0, EAGAIN when it is worth another one, or the errno code of a
// failure, which is logged.
int tryLock(const char* path, host::Descriptor& lock) {
    host::Descriptor file;
    struct stat info = {};
    if (const int error = openTrustedLock(path, file, info)) {
        return error;
    }
    // Of the open file rather than of the process: two threads keep each other out as well, and
    // closing another descriptor of the file does not release the lock.
    struct flock range = wholeFile(F_WRLCK);
    if (fcntl(file.get(), F_OFD_SETLK, &range) != 0) {
        const int error = errno;
        if (error == EAGAIN || error == EACCES || error == EINTR) {
            return EAGAIN;
        }
        HOST_LOG_ERR("Cannot lock %s: %s", path, strerror(error));
        return error;
    }
    if (!isStillThere(path, info)) {
        return EAGAIN;
    }
    lock = std::move(file);
    return 0;
}

}  // namespace

int TLIBCFileLockTimeByFile(const char* path, int mode, int seconds, int* fd) {
    return HOST_GUARDED(0, [&] {
        if (path == nullptr || mode != kLockExclusive || fd == nullptr) {
            HOST_FAIL(host::kErrorBadParameter);
            return 0;
        }
        using Clock = std::chrono::steady_clock;
        const auto deadline = Clock::now() + std::chrono::seconds(std::max(seconds, 0));
        Clock::duration pause = kFirstPause;
        for (;;) {
            host::Descriptor lock;
            const int error = tryLock(path, lock);
            if (error == 0) {
                *fd = lock.release();
                return 1;
            }
            const Clock::duration left = deadline - Clock::now();
            if (error != EAGAIN || left <= Clock::duration::zero()) {
                HOST_FAIL(error);
                return 0;
            }
            std::this_thread::sleep_for(std::min(pause, left));
            pause = std::min<Clock::duration>(pause * 2, kLongestPause);
        }
    });
}

int TLIBCFileUnlockByFile(int fd) {
    // Unlocked before it is closed: a process forked meanwhile has the same open file, and would
    // keep the lock.
    struct flock range = wholeFile(F_UNLCK);
    if (fcntl(fd, F_OFD_SETLK, &range) != 0) {
        const int error = errno;
        (void)close(fd);
        HOST_FAIL(error);
        return 0;
    }
    if (close(fd) != 0 && errno != EINTR) {
        HOST_FAIL(errno);
        return 0;
    }
    return 1;
}

// ---- Error state --------------------------------------------------------------------------------

namespace {

struct ErrorState {
    int code = 0;
    char file[256] = "";  // a fixed size: recording must work when memory has run out
    int line = 0;
};

thread_local ErrorState errorState;

}  // namespace

void TLIBCErrSetEx(int code, const char* file, int line) {
    errorState.code = code;
    errorState.line = line;
    // Keeps the end of a long path, which is more useful. `file` may be the recorded text itself.
    const char* const text = file == nullptr ? "" : file;
    const std::size_t length = strlen(text);
    const std::size_t kept = std::min(length, sizeof errorState.file - 1);
    memmove(errorState.file, text + (length - kept), kept);
    errorState.file[kept] = '\0';
}

int TLIBCErrGet() {
    return errorState.code;
}

const char* TLIBCErrorGetFile() {
    return errorState.file;
}

int TLIBCErrorGetLine() {
    return errorState.line;
}
