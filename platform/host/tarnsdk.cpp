#include "tarnsdk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fwSpawn.h"
#include "hostCall.h"
#include "hostFile.h"

namespace {

constexpr char kSource[] = "tarnsdk";

// The components of a path, without the empty ones between and after its slashes.
std::vector<std::string> componentsOf(const std::string& path) {
    std::vector<std::string> components;
    for (std::size_t start = 0; start < path.size();) {
        const auto end = std::min(path.find('/', start), path.size());
        if (end > start) {
            components.push_back(path.substr(start, end - start));
        }
        start = end + 1;
    }
    return components;
}

}  // namespace

// ---- Directories --------------------------------------------------------------------------------

namespace {

struct NewDirectory {
    uid_t uid = 0;
    gid_t gid = 0;
    mode_t mode = 0;
};

// Opens the directory `name` below `parent`; follows links, such as /var/lock.
host::Descriptor openExisting(int parent, const std::string& name) {
    return host::Descriptor(openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// Sets the owner and mode of a new directory. 0 or an errno code.
int adopt(const host::Descriptor& directory, const NewDirectory& wanted) {
    if (fchown(directory.get(), wanted.uid, wanted.gid) != 0) {
        // Only root can change an owner; otherwise the directory stays the caller's.
        if (errno != EPERM || geteuid() == 0) {
            return errno;
        }
    }
    // After the owner, since a change of owner may clear bits of the mode.
    return fchmod(directory.get(), wanted.mode) == 0 ? 0 : errno;
}

// Creates the directory `name` below `parent` and opens it. 0 or an errno code. If its owner and
// mode cannot be set, it is removed again, or a later call would take it for complete.
int makeAndOpen(int parent, const std::string& name, const NewDirectory& wanted,
                host::Descriptor& directory) {
    if (mkdirat(parent, name.c_str(), S_IRWXU) != 0) {  // closed until it has its owner
        return errno;
    }
    host::Descriptor made(
        openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const int error = made ? adopt(made, wanted) : errno;
    if (error != 0) {
        (void)unlinkat(parent, name.c_str(), AT_REMOVEDIR);
        return error;
    }
    directory = std::move(made);
    return 0;
}

// Why root must not work in a directory; empty when it may. Whoever owns it, or may write it
// without the sticky bit, can replace everything below. Root's group counts as root.
std::string directoryFault(const struct stat& info, const NewDirectory& wanted) {
    if (info.st_uid != 0 && info.st_uid != wanted.uid) {
        return "it belongs to user " + std::to_string(info.st_uid);
    }
    const bool foreignGroup = info.st_gid != 0 && info.st_gid != wanted.gid;
    const mode_t foreign = foreignGroup ? S_IWGRP | S_IWOTH : S_IWOTH;
    if ((info.st_mode & S_ISVTX) == 0 && (info.st_mode & foreign) != 0) {
        return "group or others may write it";
    }
    return "";
}

// A component of a path.
struct Component {
    int parent = -1;
    std::string name;
    std::string path;  // up to this one, for the log
    bool last = false;
};

// Refuses a component: the last one is set aside, so that it can be created again; the ones before
// it may contain other things. 0 or an errno code, logged.
int refuse(const Component& component, const host::Found& entry, const std::string& why) {
    if (component.last) {
        return host::setAside(component.parent, component.name, entry, component.path, why);
    }
    HOST_LOG_ERR("Refused directory %s: %s", component.path.c_str(), why.c_str());
    return EPERM;
}

// Opens the directory of a component. 0 or an errno code; ENOENT, too, when it was set aside.
int openTrusted(const Component& component, const NewDirectory& wanted,
                host::Descriptor& directory) {
    host::Found entry;
    if (const int error = host::lookAt(component.parent, component.name, entry)) {
        return error;
    }
    const bool root = geteuid() == 0;
    if (root && !S_ISDIR(entry.info.st_mode) && entry.info.st_uid != 0) {
        const std::string why = "it belongs to user " + std::to_string(entry.info.st_uid);
        const int error = refuse(component, entry, why);
        return error == 0 ? ENOENT : error;
    }
    directory = openExisting(component.parent, component.name);
    struct stat info = {};
    if (!directory || fstat(directory.get(), &info) != 0) {
        return errno;
    }
    const std::string why = root ? directoryFault(info, wanted) : "";
    if (why.empty()) {
        return 0;
    }
    if (S_ISLNK(entry.info.st_mode)) {  // the link is root's; removing it would not help
        HOST_LOG_ERR("Refused directory %s: %s", component.path.c_str(), why.c_str());
        return EPERM;
    }
    const int error = refuse(component, entry, why);
    return error == 0 ? ENOENT : error;
}

// Opens the directory of a component, creating it if needed. 0 or an errno code: EEXIST for a
// dangling link.
int openOrMake(const Component& component, const NewDirectory& wanted,
               host::Descriptor& directory) {
    // Somebody else may create it first, or put something else there.
    for (int i = 0; i < host::kMostPlanted; ++i) {
        int error = openTrusted(component, wanted, directory);
        if (error == ENOENT) {
            error = makeAndOpen(component.parent, component.name, wanted, directory);
        }
        if (error != EEXIST) {
            return error;
        }
    }
    return EEXIST;
}

int makeDirectories(const std::string& path, const NewDirectory& wanted) {
    const bool absolute = path[0] == '/';
    host::Descriptor current = openExisting(AT_FDCWD, absolute ? "/" : ".");
    if (!current) {
        return errno;
    }
    const std::vector<std::string> names = componentsOf(path);
    Component component;
    for (std::size_t i = 0; i < names.size(); ++i) {
        component.parent = current.get();
        component.name = names[i];
        component.path += i > 0 || absolute ? "/" : "";
        component.path += names[i];
        component.last = i + 1 == names.size();
        host::Descriptor next;
        if (const int error = openOrMake(component, wanted, next)) {
            return error;
        }
        current = std::move(next);
    }
    return 0;
}

}  // namespace

int TARNFSMkdirP(const char* path, const char* base, int /*flag*/, int uid, int gid, mode_t mode) {
    return HOST_GUARDED(-1, [&] {
        if (path == nullptr || base != nullptr || uid < 0 || gid < 0) {
            return HOST_FAIL(host::kErrorBadParameter);
        }
        if (path[0] == '\0') {
            return HOST_FAIL(ENOENT);
        }
        const NewDirectory wanted = {static_cast<uid_t>(uid), static_cast<gid_t>(gid), mode};
        const int error = makeDirectories(path, wanted);
        return error == 0 ? 0 : HOST_FAIL(error);
    });
}

// ---- Hooks --------------------------------------------------------------------------------------

namespace {

constexpr char kHookRoot[] = "/usr/tarn/libexec/hooks";

constexpr int kActionBefore = 4;
constexpr int kActionAfter = 5;

// What a handle points to.
struct HookContext {
    std::string name;
    std::map<std::string, std::string> arguments;
};

enum class Verdict { kTrusted, kAbsent, kRefused, kFailed };

// A hook name is a path below kHookRoot that never leaves it.
bool isHookName(const std::string& name) {
    std::string rejoined;
    for (const std::string& component : componentsOf(name)) {
        if (component == "." || component == "..") {
            return false;
        }
        rejoined += rejoined.empty() ? "" : "/";
        rejoined += component;
    }
    return !name.empty() && rejoined == name;
}

// The names that a shell accepts, except those of the fixed environment.
bool isArgumentName(const std::string& key) {
    const auto isNamePart = [](unsigned char c) { return c == '_' || std::isalnum(c) != 0; };
    if (key.empty() || std::isdigit(static_cast<unsigned char>(key[0])) != 0 ||
        !std::all_of(key.begin(), key.end(), isNamePart)) {
        return false;
    }
    return std::none_of(std::begin(FW::kFixedEnvironment), std::end(FW::kFixedEnvironment),
                        [&](const std::string& variable) { return variable.find(key + '=') == 0; });
}

// Hooks run as root, so only root may be able to change them.
Verdict checkOwner(const std::string& path, const struct stat& info) {
    if (info.st_uid != 0) {
        HOST_LOG_ERR("Refused hook %s: it belongs to user %u", path.c_str(), info.st_uid);
        return Verdict::kRefused;
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        HOST_LOG_ERR("Refused hook %s: group or others may write it (mode %04o)", path.c_str(),
                     info.st_mode & 07777U);
        return Verdict::kRefused;
    }
    return Verdict::kTrusted;
}

// Opens one entry of a directory; does not follow links.
Verdict openEntry(int parent, const std::string& name, const std::string& path, int flags,
                  host::Descriptor& entry, struct stat& info) {
    entry = host::Descriptor(openat(parent, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
    if (!entry && errno == ENOENT) {
        return Verdict::kAbsent;
    }
    if (!entry && (errno == ENOTDIR || errno == ELOOP)) {
        HOST_LOG_ERR("Refused hook %s: it is a link or no directory", path.c_str());
        return Verdict::kRefused;
    }
    if (!entry || fstat(entry.get(), &info) != 0) {
        HOST_LOG_ERR("Cannot open hook %s: %s", path.c_str(), strerror(errno));
        HOST_FAIL(errno);
        return Verdict::kFailed;
    }
    return Verdict::kTrusted;
}

// Opens the directory of a hook. Every directory from kHookRoot on is checked like the hooks:
// whoever may rename a directory may replace what is in it.
Verdict openHookDirectory(const std::string& hookName, host::Descriptor& directory) {
    std::vector<std::string> components = {kHookRoot};
    for (std::string& component : componentsOf(hookName)) {
        components.push_back(std::move(component));
    }
    int parent = AT_FDCWD;
    std::string path;
    for (const std::string& component : components) {
        path += path.empty() ? "" : "/";
        path += component;
        host::Descriptor next;
        struct stat info = {};
        Verdict verdict = openEntry(parent, component, path, O_RDONLY | O_DIRECTORY, next, info);
        if (verdict == Verdict::kTrusted) {
            verdict = checkOwner(path, info);
        }
        if (verdict != Verdict::kTrusted) {
            return verdict;
        }
        directory = std::move(next);
        parent = directory.get();
    }
    return Verdict::kTrusted;
}

struct CloseDirectory {
    void operator()(DIR* stream) const { (void)closedir(stream); }
};

// The names in a directory that may be hooks, in byte order. Nothing, logged, on failure.
std::optional<std::vector<std::string>> hookFiles(const host::Descriptor& directory) {
    // A descriptor of its own, which the stream closes.
    host::Descriptor own(fcntl(directory.get(), F_DUPFD_CLOEXEC, 0));
    const std::unique_ptr<DIR, CloseDirectory> stream(own ? fdopendir(own.get()) : nullptr);
    if (stream != nullptr) {
        (void)own.release();
        std::vector<std::string> names;
        errno = 0;
        while (const dirent* entry = readdir(stream.get())) {
            const std::string name = entry->d_name;
            if (name.front() != '.' && name.back() != '~') {
                names.push_back(name);
            }
            errno = 0;
        }
        if (errno == 0) {
            std::sort(names.begin(), names.end());
            return names;
        }
    }
    HOST_LOG_ERR("Cannot list the hooks: %s", strerror(errno));
    HOST_FAIL(errno);
    return std::nullopt;
}

// Opens a hook for running. kAbsent is anything that is not a hook: a directory, which has the
// hooks of a longer name, or a file that nobody may execute.
Verdict openHook(int directory, const std::string& name, const std::string& path,
                 host::Descriptor& file) {
    struct stat info = {};
    const Verdict verdict = openEntry(directory, name, path, O_PATH, file, info);
    if (verdict != Verdict::kTrusted) {
        return verdict;
    }
    if (S_ISDIR(info.st_mode)) {
        return Verdict::kAbsent;
    }
    if (!S_ISREG(info.st_mode)) {
        HOST_LOG_ERR("Refused hook %s: it is no regular file", path.c_str());
        return Verdict::kRefused;
    }
    if ((info.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0) {
        return Verdict::kAbsent;
    }
    return checkOwner(path, info);
}

// Runs an opened hook. False when it could not run or failed, which is logged.
bool runHook(const host::Descriptor& file, const std::string& path, const char* when,
             const HookContext& context) {
    const char* const argv[] = {path.c_str(), when, nullptr};
    FW::Program program;
    program.path = path.c_str();
    program.argv = argv;
    program.file = file.get();  // the file that was checked, whatever has its name now
    for (const auto& [key, value] : context.arguments) {
        std::string& variable = program.environment.emplace_back(key);
        variable.append("=").append(value);
    }
    pid_t pid = -1;
    if (const int error = FW::startProgram(program, pid)) {
        HOST_LOG_ERR("Cannot run hook %s: %s", path.c_str(), strerror(error));
        HOST_FAIL(error);
        return false;
    }
    const auto status = FW::waitForProgram(pid);
    if (!status) {
        HOST_LOG_WARNING("The exit status of hook \"%s %s\" is lost", path.c_str(), when);
        return true;
    }
    if (*status != 0) {
        HOST_LOG_ERR("Hook \"%s %s\" ended with status %d", path.c_str(), when, *status);
        HOST_FAIL(ECANCELED);
    }
    return *status == 0;
}

// Runs all hooks of a context. A refused one is ignored; a failing one does not prevent the others
// from running.
bool runHooks(const HookContext& context, const char* when) {
    host::Descriptor directory;
    const Verdict verdict = openHookDirectory(context.name, directory);
    if (verdict != Verdict::kTrusted) {
        return verdict != Verdict::kFailed;
    }
    const auto names = hookFiles(directory);
    if (!names) {
        return false;
    }
    bool ok = true;
    for (const std::string& name : *names) {
        std::string path = kHookRoot;
        path.append("/").append(context.name).append("/").append(name);
        host::Descriptor file;
        const Verdict hook = openHook(directory.get(), name, path, file);
        if (hook == Verdict::kFailed ||
            (hook == Verdict::kTrusted && !runHook(file, path, when, context))) {
            ok = false;
        }
    }
    return ok;
}

}  // namespace

int TLIBPluginSDKInit(const char* category, const char* name, void** handle) {
    return HOST_GUARDED(-1, [&] {
        if (category == nullptr || category[0] == '\0' || name == nullptr || handle == nullptr ||
            !isHookName(name)) {
            return HOST_FAIL(host::kErrorBadParameter);
        }
        auto context = std::make_unique<HookContext>();
        context->name = name;
        *handle = context.release();
        return 0;
    });
}

int TLIBPluginSetArg(void* handle, const char* key, const char* value) {
    return HOST_GUARDED(-1, [&] {
        if (handle == nullptr || key == nullptr || value == nullptr || !isArgumentName(key)) {
            return HOST_FAIL(host::kErrorBadParameter);
        }
        static_cast<HookContext*>(handle)->arguments[key] = value;
        return 0;
    });
}

int TLIBPluginAction(int action, void* handle) {
    return HOST_GUARDED(-1, [&] {
        if (handle == nullptr || (action != kActionBefore && action != kActionAfter)) {
            return HOST_FAIL(host::kErrorBadParameter);
        }
        const char* const when = action == kActionBefore ? "pre" : "post";
        return runHooks(*static_cast<const HookContext*>(handle), when) ? 0 : -1;
    });
}

int TLIBPluginExit(void* handle) {
    const std::unique_ptr<HookContext> context(static_cast<HookContext*>(handle));
    return 0;
}
