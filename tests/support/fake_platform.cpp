#include "fake_platform.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "tarncore.h"
#include "tarnkm.h"
#include "tarnnetsdk.h"
#include "tarnsdk.h"
#include "tarnserviceconf.h"

namespace {

FakePlatform* g_current = nullptr;

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

void note(const std::string& text) {
    FakePlatform::current().journal.push_back(text);
}

PTLIBCSZLIST listOf(const std::vector<std::string>& texts) {
    if (texts.empty()) {
        return nullptr;
    }
    auto* list = static_cast<PTLIBCSZLIST>(calloc(1, sizeof(TLIBCSZLIST)));
    list->items = static_cast<char**>(calloc(texts.size(), sizeof(char*)));
    list->capacity = static_cast<int>(texts.size());
    for (const std::string& text : texts) {
        list->items[list->nItem++] = strdup(text.c_str());
    }
    return list;
}

void releaseList(PTLIBCSZLIST list) {
    if (list == nullptr) {
        return;
    }
    for (int i = 0; i < list->nItem; ++i) {
        free(list->items[i]);
    }
    free(list->items);
    free(list);
}

std::string itemsOf(const TLIBCSZLIST* list) {
    std::vector<std::string> words;
    for (int i = 0; i < list->nItem; ++i) {
        words.emplace_back(list->items[i]);
    }
    return joined(words);
}

bool listHas(const TLIBCSZLIST* list, const std::string& name) {
    return !name.empty() && std::any_of(list->items, list->items + list->nItem,
                                        [&](const char* item) { return name == item; });
}

}  // namespace

FakePlatform::FakePlatform() {
    if (g_current != nullptr) {
        throw std::logic_error("a second FakePlatform");
    }
    g_current = this;
}

FakePlatform::~FakePlatform() {
    g_current = nullptr;
}

FakePlatform& FakePlatform::current() {
    if (g_current == nullptr) {
        throw std::logic_error("no FakePlatform");
    }
    return *g_current;
}

std::vector<std::string> FakePlatform::journalOf(const std::string& prefix) const {
    std::vector<std::string> found;
    for (const std::string& entry : journal) {
        if (startsWith(entry, prefix)) {
            found.push_back(entry.substr(prefix.size()));
        }
    }
    return found;
}

std::vector<std::string> FakePlatform::executedLines() const {
    std::vector<std::string> lines;
    for (const auto& argv : executed_) {
        lines.push_back(joined(argv));
    }
    return lines;
}

std::string FakePlatform::policyOf(const std::string& chain, const std::string& family) const {
    const std::string tool = family == "v4" ? "/sbin/iptables" : "/sbin/ip6tables";
    std::string policy;
    for (const auto& argv : executed_) {
        if (argv.size() == 4 && argv[0] == tool && argv[1] == "--policy" && argv[2] == chain) {
            policy = argv[3];
        }
    }
    return policy;
}

std::vector<std::string> FakePlatform::logged() const {
    std::vector<std::string> texts;
    for (const LoggedLine& line : log_) {
        texts.push_back(line.text);
    }
    return texts;
}

bool FakePlatform::hasLogged(int priority, const std::string& source,
                             const std::string& text) const {
    return std::any_of(log_.begin(), log_.end(), [&](const LoggedLine& line) {
        return line.priority == priority && line.source == source && line.text == text;
    });
}

void FakePlatform::clearJournal() {
    journal.clear();
    executed_.clear();
}

int FakePlatform::answerExec(const std::vector<std::string>& argv) {
    const std::string line = joined(argv);
    executed_.push_back(argv);
    journal.push_back("exec " + line);
    if (onExec) {
        onExec(line);
    }
    const bool fails = std::any_of(failingExec_.begin(), failingExec_.end(),
                                   [&](const std::string& p) { return startsWith(line, p); });
    return fails ? -1 : execResult;
}

void FakePlatform::recordLog(int priority, const std::string& message) {
    LoggedLine entry;
    entry.priority = priority;
    const auto colon = message.find(':');
    const auto blank = message.find(' ', colon == std::string::npos ? 0 : colon);
    if (colon == std::string::npos || blank == std::string::npos) {
        entry.text = message;
    } else {
        entry.source = message.substr(0, colon);
        entry.line = atoi(message.substr(colon + 1, blank - colon - 1).c_str());
        entry.text = message.substr(blank + 1);
    }
    log_.push_back(entry);
}

extern "C" {

// ---- System log: the C library's entry points, plain and fortified, end up here ----

void vsyslog(int priority, const char* format, va_list args) {
    va_list measured;
    va_copy(measured, args);
    const int length = vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    vsnprintf(&text[0], text.size(), format, args);
    text.pop_back();
    FakePlatform::current().recordLog(priority, text);
}

void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

void __syslog_chk(int priority, int, const char* format, ...) {  // NOLINT: the C library's name
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

// ---- tarncore.h ----

PTLIBCSZLIST TLIBCSzListAlloc(int capacity, int flags) {
    FakePlatform& fake = FakePlatform::current();
    (void)capacity;
    (void)flags;
    if (fake.listAllocFails) {
        fake.errorCode = 0x0200;
        fake.errorFile = "szlist.c";
        fake.errorLine = 31;
        return nullptr;
    }
    ++fake.openLists;
    return static_cast<PTLIBCSZLIST>(calloc(1, sizeof(TLIBCSZLIST)));
}

int TLIBCSzListPush(PTLIBCSZLIST* list, const char* text) {
    if ((*list)->nItem == FakePlatform::current().listPushFailsAt) {
        return -1;
    }
    // Reallocates at every push, to expose a caller that keeps the old pointer.
    auto* moved = static_cast<PTLIBCSZLIST>(calloc(1, sizeof(TLIBCSZLIST)));
    *moved = **list;
    free(*list);
    *list = moved;
    const auto size = static_cast<std::size_t>(moved->nItem) + 1;
    moved->items = static_cast<char**>(realloc(moved->items, size * sizeof(char*)));
    moved->items[moved->nItem++] = strdup(text);
    return 0;
}

const char* TLIBCSzListGet(const TLIBCSZLIST* list, int index) {
    return index >= 0 && index < list->nItem ? list->items[index] : nullptr;
}

void TLIBCSzListFree(PTLIBCSZLIST list) {
    if (list != nullptr) {
        --FakePlatform::current().openLists;
    }
    releaseList(list);
}

int TLIBCExecv(const char* path, const char* const argv[], int flag) {
    std::vector<std::string> words;
    for (const char* const* word = argv; *word != nullptr; ++word) {
        words.emplace_back(*word);
    }
    if (flag != 1 || words.empty() || words[0] != path) {
        throw std::logic_error("TLIBCExecv called in another way than it is meant to be");
    }
    return FakePlatform::current().answerExec(words);
}

FILE* TLIBCPopen(const char* path, const char* mode, ...) {
    FakePlatform& fake = FakePlatform::current();
    std::vector<std::string> words = {path};
    va_list args;
    va_start(args, mode);
    for (const char* word = va_arg(args, const char*); word != nullptr;
         word = va_arg(args, const char*)) {
        words.emplace_back(word);
    }
    va_end(args);
    note("popen " + joined(words));
    if (fake.popenFails) {
        return nullptr;
    }
    const auto set = fake.popenOutput.find(words.back());
    const std::string output = set == fake.popenOutput.end() ? words.back() : set->second;
    FILE* stream = tmpfile();
    fwrite(output.data(), 1, output.size(), stream);
    rewind(stream);
    ++fake.openStreams;
    return stream;
}

int TLIBCPclose(FILE* stream) {
    note("pclose");
    --FakePlatform::current().openStreams;
    return fclose(stream);
}

int TLIBCFileExist(const char* path) {
    const auto& files = FakePlatform::current().keyValues;
    const bool exists = files.count(path) != 0 || access(path, F_OK) == 0;
    return exists ? FakePlatform::current().existResult : 0;
}

int TLIBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int) {
    FakePlatform& fake = FakePlatform::current();
    if (fake.getKeyResult < 0) {
        fake.errorCode = 0x0900;
        fake.errorFile = "keyvalue.c";
        fake.errorLine = 77;
        return fake.getKeyResult;
    }
    const auto file = fake.keyValues.find(path);
    if (file == fake.keyValues.end() || file->second.count(key) == 0) {
        return 0;
    }
    snprintf(value, static_cast<std::size_t>(size), "%s", file->second[key].c_str());
    return 1;
}

int TLIBCFileSetKeyValue(const char* path, const char* key, const char* value, int) {
    FakePlatform& fake = FakePlatform::current();
    note(std::string("set ") + path + " " + key + "=" + value);
    if (fake.setKeyResult < 0) {
        fake.errorCode = 0x0901;
        fake.errorFile = "keyvalue.c";
        fake.errorLine = 99;
        return fake.setKeyResult;
    }
    fake.keyValues[path][key] = value;
    return 1;
}

int TLIBCFileCheckKeyValue(const char* path, const char* key, const char* value, int) {
    auto& files = FakePlatform::current().keyValues;
    return files.count(path) != 0 && files[path].count(key) != 0 && files[path][key] == value;
}

int TLIBCSupportGet(const char* key) {
    return strcmp(key, "support_wireless") == 0 ? FakePlatform::current().supportWireless : 0;
}

int TLIBCFileLockTimeByFile(const char* path, int mode, int seconds, int* fd) {
    FakePlatform& fake = FakePlatform::current();
    note(std::string("lock ") + path + " " + std::to_string(mode) + " " + std::to_string(seconds));
    if (fake.onLock) {
        fake.onLock(path);
    }
    if (fake.lockResult != 1) {
        errno = EAGAIN;
        return fake.lockResult;
    }
    *fd = 1000 + static_cast<int>(fake.heldLocks.size());
    fake.heldLocks.emplace_back(path);
    return 1;
}

int TLIBCFileUnlockByFile(int fd) {
    FakePlatform& fake = FakePlatform::current();
    note("unlock " + std::to_string(fd));
    if (fake.heldLocks.empty() || fd != 999 + static_cast<int>(fake.heldLocks.size())) {
        throw std::logic_error("released a lock that is not held");
    }
    fake.heldLocks.pop_back();
    return fake.unlockResult;
}

void TLIBCErrSetEx(int code, const char* file, int line) {
    FakePlatform& fake = FakePlatform::current();
    char text[32];
    snprintf(text, sizeof(text), "error set 0x%04X", static_cast<unsigned>(code));
    note(text);
    fake.errorCode = code;
    fake.errorFile = file;
    fake.errorLine = line;
}

int TLIBCErrGet(void) {
    return FakePlatform::current().errorCode;
}
const char* TLIBCErrorGetFile(void) {
    return FakePlatform::current().errorFile.c_str();
}
int TLIBCErrorGetLine(void) {
    return FakePlatform::current().errorLine;
}

// ---- tarnsdk.h ----

int TARNFSMkdirP(const char* path, const char*, int, int, int, mode_t mode) {
    note(std::string("mkdir ") + path);
    if (FakePlatform::current().mkdirFails) {
        errno = EROFS;
        return -1;
    }
    std::string parent;
    for (const char* end = strchr(path + 1, '/'); end != nullptr; end = strchr(end + 1, '/')) {
        parent.assign(path, end);
        if (mkdir(parent.c_str(), mode) != 0 && errno != EEXIST) {
            return -1;
        }
    }
    return mkdir(path, mode) == 0 || errno == EEXIST ? 0 : -1;
}

int TLIBPluginSDKInit(const char* category, const char* name, void** handle) {
    FakePlatform& fake = FakePlatform::current();
    note(std::string("hook init ") + category + " " + name);
    if (fake.hookInitResult >= 0) {
        *handle = &fake;
    }
    return fake.hookInitResult;
}

int TLIBPluginSetArg(void*, const char* key, const char* value) {
    note(std::string("hook set ") + key + "=" + value);
    return FakePlatform::current().hookSetResult;
}

int TLIBPluginAction(int action, void*) {
    note("hook action " + std::to_string(action));
    return FakePlatform::current().hookActionResult;
}

int TLIBPluginExit(void*) {
    note("hook exit");
    return 0;
}

// ---- tarnnetsdk.h ----

int TLIBNetGetInterfaceInfo(TLIBNET_INTERFACE* table, int capacity, int selector, int* extra) {
    FakePlatform& fake = FakePlatform::current();
    note("interfaces " + std::to_string(capacity) + " " + std::to_string(selector));
    if (fake.interfacesResult < 0) {
        fake.errorCode = 0x0D01;
        fake.errorFile = "netinfo.c";
        fake.errorLine = 12;
        return fake.interfacesResult;
    }
    *extra = 0;
    int count = 0;
    for (const std::string& name : fake.interfaces) {
        if (count == capacity) {
            break;
        }
        memset(&table[count], 0x7e, sizeof(table[count]));  // nothing but the name may be read
        snprintf(table[count].name, sizeof(table[count].name), "%s", name.c_str());
        ++count;
    }
    return count;
}

int TARNPPPoeIntfGet(char* name, int size) {
    FakePlatform& fake = FakePlatform::current();
    note("pppoe " + std::to_string(size));
    if (fake.pppoeInterface.empty()) {
        return -1;
    }
    snprintf(name, static_cast<std::size_t>(size), "%s", fake.pppoeInterface.c_str());
    return 0;
}

int BlTLIBIsIpAddr(const char* text) {
    in_addr address{};
    if (FakePlatform::current().loopbackIsNoAddress && strcmp(text, "127.0.0.1") == 0) {
        return 0;
    }
    return inet_pton(AF_INET, text, &address);
}

int BlTLIBIsv6IpAddrValid(const char* text) {
    in6_addr address{};
    return inet_pton(AF_INET6, text, &address);
}

// ---- tarnserviceconf.h ----

struct TARNFW_SERVICE_LIST {
    std::map<std::string, std::unique_ptr<TARNFW_SERVICE>> records;
};

int TARNFwServiceEnum(TARNFW_SERVICE_LIST** list) {
    FakePlatform& fake = FakePlatform::current();
    note("services enum");
    if (fake.servicesResult < 1) {
        return fake.servicesResult;
    }
    auto made = std::make_unique<TARNFW_SERVICE_LIST>();
    for (const auto& [name, service] : fake.services) {
        auto record = std::make_unique<TARNFW_SERVICE>();
        memset(record.get(), 0, sizeof(TARNFW_SERVICE));
        snprintf(record->name, sizeof(record->name), "%s", name.c_str());
        snprintf(record->title, sizeof(record->title), "%s", service.title.c_str());
        record->dstProtocol = service.dstProtocol;
        record->dstPorts = listOf(service.dstPorts);
        record->srcProtocol = service.srcProtocol;
        record->srcPorts = listOf(service.srcPorts);
        made->records[name] = std::move(record);
    }
    ++fake.openCatalogues;
    *list = made.release();
    return std::max(1, static_cast<int>(fake.services.size()));
}

const TARNFW_SERVICE* TARNFWServiceFind(const TARNFW_SERVICE_LIST* list, const char* name) {
    const auto found = list->records.find(name);
    return found == list->records.end() ? nullptr : found->second.get();
}

void TARNFwServiceFree(TARNFW_SERVICE_LIST* list) {
    note("services free");
    if (list == nullptr) {
        return;
    }
    --FakePlatform::current().openCatalogues;
    for (const auto& [name, record] : list->records) {
        releaseList(record->dstPorts);
        releaseList(record->srcPorts);
    }
    delete list;
}

// ---- tarnkm.h ----

int TLIBIptablesModInsert(const char* servName, PTLIBCSZLIST modules) {
    FakePlatform& fake = FakePlatform::current();
    note(std::string("insmod ") + servName + ": " + itemsOf(modules));
    return listHas(modules, fake.failModInsertOf) ? -1 : fake.modInsertResult;
}

int TLIBIptablesModRemove(const char* servName, PTLIBCSZLIST modules) {
    FakePlatform& fake = FakePlatform::current();
    note(std::string("rmmod ") + servName + ": " + itemsOf(modules));
    return listHas(modules, fake.failModRemoveOf) ? -1 : fake.modRemoveResult;
}

}  // extern "C"
