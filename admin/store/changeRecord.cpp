#include "store/changeRecord.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <numeric>
#include <set>
#include <utility>

#include <json/json.h>

#include "tarnfirewall/tarnFW.h"

#include "store/storeJournal.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/storeHistory.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {

// Beside the copies, so that these become an entry by a rename.
const char kHistoryDir[] = "/usr/tarn/etc/firewall.d/.history/";

namespace {

namespace fs = std::filesystem;

constexpr mode_t kPrivateDir = 0700;
constexpr mode_t kPrivateFile = 0600;

// In ".change/" and in an entry. No document has this name, which lacks ".json".
constexpr char kRecord[] = "record";

// Its name in an entry without copies.
constexpr char kRecordAlone[] = "record_alone";

// What is being written under another name.
constexpr char kNewRecord[] = "record.new";

// An entry that is being removed.
constexpr char kGone[] = "gone";

// The members of a record. "present" has all documents that were there before the change, with the
// digests of those that were copied, for whoever finds what a killed command has left.
constexpr char kTime[] = "time";
constexpr char kCommand[] = "command";
constexpr char kDocuments[] = "documents";
constexpr char kBefore[] = "before";
constexpr char kAfter[] = "after";
constexpr char kPresent[] = "present";

// Of all entries together.
constexpr std::uintmax_t kHistoryBytes = 64 * 1024 * 1024;

// Of a command line, which may have any length.
constexpr std::size_t kMostCommandBytes = 1000;

/// The command line of this process: the program's name without its directory, and its arguments.
std::string ownCommandLine() {
    std::string words;
    try {
        words = readText("/proc/self/cmdline");
    } catch (const Error&) {
        return "";
    }
    std::string line;
    for (std::size_t begin = 0; begin < words.size();) {
        const std::size_t end = std::min(words.find('\0', begin), words.size());
        const std::string word = words.substr(begin, end - begin);
        line += begin == 0 ? shellWord(fs::path(word).filename().string()) : " " + shellWord(word);
        begin = end + 1;
    }
    if (line.size() > kMostCommandBytes) {
        line.resize(kMostCommandBytes);
        line += "...";
    }
    return line;
}

std::string nameOf(const std::string& path) {
    return fs::path(path).filename().string();
}

/// FNV-1a: it finds what has changed or was not written, not what somebody has forged.
std::string fnv1a(const std::string& text) {
    std::uint64_t hash = 14695981039346656037U;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
    }
    char digits[17] = {};
    (void)std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(hash));
    return std::to_string(text.size()).append("-").append(digits);
}

/// Whether a text is the document of a test profile, which no entry is about.
bool isTestDocument(const std::string& text) {
    if (text.find(std::string("\"").append(kTestPrefix)) == std::string::npos) {
        return false;  // without reading each document of thousands of rules
    }
    Json::Value document;
    return parseAsStored(text, document) && document.isObject() && document["name"].isString() &&
           document["name"].asString().rfind(kTestPrefix, 0) == 0;
}

Json::Value jsonOf(const std::optional<std::string>& digest) {
    return digest ? Json::Value(*digest) : Json::Value();
}

std::optional<std::string> digestIn(const Json::Value& member) {
    return member.isString() ? std::optional(member.asString()) : std::nullopt;
}

/// The document in ".change/record"; null when there is none.
Json::Value begunRecord() {
    Json::Value document;
    try {
        const auto text = readTextIfAny(std::string(kCopyDir) + kRecord);
        if (!text || !parseAsStored(*text, document) || !document.isObject()) {
            return {};
        }
    } catch (const Error&) {
        return {};
    }
    return document;
}

/// Replaces ".change/record". False, with errno, when that fails.
bool writeRecord(const Json::Value& document) {
    const std::string path = std::string(kCopyDir) + kNewRecord;
    Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kPrivateFile));
    return file && writeText(file.get(), documentText(document)) && file.close() &&
           std::rename(path.c_str(), (std::string(kCopyDir) + kRecord).c_str()) == 0;
}

/// What has changed, without test profiles, and without what undoing never changes, which has the
/// same digests.
std::map<std::string, RecordedDocument> changedDocuments(const DocumentTexts& before,
                                                         const DocumentTexts& now) {
    std::map<std::string, RecordedDocument> changed;
    for (const auto& [path, text] : before) {
        const auto after = now.find(path);
        if ((after == now.end() || after->second != text) && !isTestDocument(text)) {
            changed[path].before = digestOf(path, text);
        }
    }
    for (const auto& [path, text] : now) {
        const auto old = before.find(path);
        if ((old == before.end() || old->second != text) && !isTestDocument(text)) {
            changed[path].after = digestOf(path, text);
        }
    }
    for (auto document = changed.begin(); document != changed.end();) {
        const std::optional<std::string> missing = digestOfMissing(document->first);
        const auto digestOr = [&](const std::optional<std::string>& digest) {
            return digest ? digest : missing;
        };
        const bool same = digestOr(document->second.before) == digestOr(document->second.after);
        document = same ? changed.erase(document) : std::next(document);
    }
    return changed;
}

/// Removes what is no part of an entry.
void removeOtherCopies(const std::map<std::string, RecordedDocument>& changed) {
    std::set<std::string> kept = {kRecord};
    for (const auto& [path, document] : changed) {
        if (document.before) {
            kept.insert(nameOf(path));
        }
    }
    std::error_code ignored;
    std::vector<fs::path> others;
    for (const fs::directory_entry& entry : fs::directory_iterator(kCopyDir)) {
        if (kept.count(entry.path().filename().string()) == 0) {
            others.push_back(entry.path());
        }
    }
    for (const fs::path& path : others) {
        (void)fs::remove_all(path, ignored);
    }
}

/// What the files in a directory take on the disk, in bytes.
std::uintmax_t bytesIn(const std::string& directory) {
    constexpr std::uintmax_t kBlock = 512;  // of st_blocks
    std::uintmax_t bytes = 0;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        struct stat info {};
        if (lstat(entry->path().c_str(), &info) == 0) {
            bytes += static_cast<std::uintmax_t>(info.st_blocks) * kBlock;
        }
    }
    return bytes;
}

/// How many bytes the history may take that has `bytes` now: as many as are free then, so that
/// deleting profiles makes space on a disk that is nearly full.
std::uintmax_t mostBytes(std::uintmax_t bytes) {
    struct statvfs disk {};
    if (statvfs(kHistoryDir, &disk) != 0 || disk.f_blocks == 0) {  // without a limit
        return kHistoryBytes;
    }
    return std::min<std::uintmax_t>(kHistoryBytes, (bytes + disk.f_bfree * disk.f_frsize) / 2);
}

/// Removes an entry's copies. The record gets its other name first, which needs no space: without
/// them, it is never taken for an incomplete entry.
void removeCopiesOf(unsigned long number) {
    const std::string path = entryPath(number);
    fs::rename(path + kRecord, path + kRecordAlone);
    std::error_code ignored;
    std::vector<fs::path> copies;
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
        if (entry.path().filename() != kRecordAlone) {
            copies.push_back(entry.path());
        }
    }
    for (const fs::path& copy : copies) {
        (void)fs::remove(copy, ignored);
    }
}

/// Removes the oldest entries of too many, or of too large ones, and what was left of removing
/// others. False when the last one alone is too large: its record stays, so that what is before it
/// is not taken for the last change.
bool prune() {
    std::error_code ignored;
    const std::string gone = std::string(kHistoryDir) + kGone;
    (void)fs::remove_all(gone, ignored);
    const std::vector<unsigned long> numbers = entryNumbers();
    std::vector<std::uintmax_t> bytes;  // of each entry
    bytes.reserve(numbers.size());
    for (const unsigned long number : numbers) {
        bytes.push_back(bytesIn(entryPath(number)));
    }
    const std::uintmax_t most =
        mostBytes(std::accumulate(bytes.begin(), bytes.end(), std::uintmax_t{0}));
    const bool fits = bytes.empty() || bytes.front() <= most;
    if (!fits) {
        removeCopiesOf(numbers.front());
        bytes.front() = 0;
    }
    std::uintmax_t upTo = 0;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        upTo += bytes[i];
        if (i < kHistoryLength && upTo <= most) {
            continue;
        }
        // Under another name first: it is an entry as a whole, or none.
        fs::rename(entryPath(numbers[i]), gone, ignored);
        (void)fs::remove_all(gone, ignored);
    }
    return fits;
}

/// The entry of the change. Throws Error or a file system's error.
void makeEntry(const std::map<std::string, RecordedDocument>& changed) {
    Json::Value document = begunRecord();
    document[kDocuments] = Json::Value(Json::objectValue);
    for (const auto& [path, digests] : changed) {
        Json::Value& member = document[kDocuments][nameOf(path)];
        member[kBefore] = jsonOf(digests.before);
        member[kAfter] = jsonOf(digests.after);
    }
    removeOtherCopies(changed);
    if (!writeRecord(document)) {
        throw Error(ErrorKind::kSystem, std::strerror(errno));
    }
    if (mkdir(kHistoryDir, kPrivateDir) != 0 && errno != EEXIST) {
        throw Error(ErrorKind::kSystem, std::strerror(errno));
    }
    const std::vector<unsigned long> numbers = entryNumbers();
    fs::rename(kCopyDir, entryPath(numbers.empty() ? 1 : numbers.front() + 1));
    if (!prune()) {
        throw Error(ErrorKind::kSystem, "it is too large, or the disk is nearly full");
    }
}

/// What the documents of a killed change held before it. False when the change had not begun, or
/// its copies are not whole: they are not flushed, so a power failure may have left the record
/// alone.
bool readCopies(DocumentTexts& before, const DocumentTexts& now) {
    const Json::Value begun = begunRecord();
    if (!begun[kPresent].isObject()) {
        return false;
    }
    for (const std::string& name : begun[kPresent].getMemberNames()) {
        const std::string path = kProfileDir + name;
        const auto digest = digestIn(begun[kPresent][name]);
        const auto present = now.find(path);
        if (const auto copy = digest ? readTextIfAny(copyOf(path)) : std::nullopt) {
            before[path] = *copy;
        } else if (present != now.end()) {
            before[path] = present->second;  // not copied, or not kept: it has not changed
        }
        const auto text = before.find(path);
        if (digest && (text == before.end() || digestOf(path, text->second) != *digest)) {
            return false;
        }
    }
    return true;
}

std::string keep(const std::map<std::string, RecordedDocument>& changed) {
    if (changed.empty()) {
        dropCopies();
        return "";
    }
    try {
        makeEntry(changed);
        return "";
    } catch (const std::exception& error) {
        dropCopies();
        return std::string("\"tarnfw undo\" cannot undo this change: it could not be kept in ") +
               kHistoryDir + ": " + error.what();
    }
}

}  // namespace

std::string digestOf(const std::string& path, const std::string& text) {
    Json::Value settings;
    if (path != kSettingsFile || !parseAsStored(text, settings) || !settings.isObject()) {
        return fnv1a(text);
    }
    settings.removeMember("status");
    return fnv1a(documentText(settings));
}

std::optional<std::string> digestOfMissing(const std::string& path) {
    if (path != kSettingsFile) {
        return std::nullopt;
    }
    Json::Value defaults;
    FW::TARNFW().initJconfig(defaults);
    return digestOf(path, defaults.toStyledString());
}

std::vector<unsigned long> entryNumbers() {
    std::vector<unsigned long> numbers;
    std::error_code error;
    for (fs::directory_iterator entry(kHistoryDir, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        constexpr std::size_t kMostDigits = 15;
        if (name.size() <= kMostDigits &&
            std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; })) {
            numbers.push_back(std::stoul(name));
        }
    }
    if (error == std::errc::permission_denied) {
        throw Error(ErrorKind::kNoRights, std::string("cannot read ") + kHistoryDir + ": " +
                                              error.message() +
                                              "; changes are kept for root alone");
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot read ") + kHistoryDir + ": " + error.message());
    }
    std::sort(numbers.begin(), numbers.end(), std::greater<>());
    return numbers;
}

std::string entryPath(unsigned long number) {
    return std::string(kHistoryDir).append(std::to_string(number)).append("/");
}

std::optional<ChangeRecord> readRecord(unsigned long number) {
    ChangeRecord record;
    Json::Value document;
    try {
        auto text = readTextIfAny(entryPath(number) + kRecord);
        if (!text) {
            text = readTextIfAny(entryPath(number) + kRecordAlone);
            record.hasCopies = false;
        }
        if (!text || !parseAsStored(*text, document) || !document.isObject() ||
            !document[kDocuments].isObject()) {
            return std::nullopt;
        }
        for (const std::string& name : document[kDocuments].getMemberNames()) {
            const Json::Value& member = document[kDocuments][name];
            if (!member.isObject() || name.find('/') != std::string::npos) {
                return std::nullopt;
            }
            const std::string path = kProfileDir + name;
            RecordedDocument& recorded = record.documents[path];
            recorded = {digestIn(member[kBefore]), digestIn(member[kAfter])};
            if (recorded.before && record.hasCopies) {
                const auto copy = readTextIfAny(entryPath(number) + name);
                if (!copy || digestOf(path, *copy) != *recorded.before) {
                    return std::nullopt;
                }
            }
        }
    } catch (const Error&) {
        return std::nullopt;
    }
    record.time = document[kTime].isIntegral() ? document[kTime].asInt64() : 0;
    record.command = document[kCommand].isString() ? document[kCommand].asString() : "";
    return record;
}

bool beginRecord(const DocumentTexts& copied, const std::vector<std::string>& paths) {
    Json::Value document;
    document[kTime] = static_cast<Json::Int64>(std::time(nullptr));
    document[kCommand] = ownCommandLine();
    Json::Value& present = document[kPresent] = Json::Value(Json::objectValue);
    for (const std::string& path : paths) {
        const auto text = copied.find(path);
        present[nameOf(path)] =
            text == copied.end() ? Json::Value() : Json::Value(digestOf(path, text->second));
    }
    return writeRecord(document);
}

std::string keepRecord(const DocumentTexts& before, const DocumentTexts& now) {
    return hasCopies() ? keep(changedDocuments(before, now)) : "";
}

std::string keepRecordOfKilled(const DocumentTexts& now) {
    DocumentTexts before;
    try {
        if (!readCopies(before, now)) {
            dropCopies();
            return "";
        }
    } catch (const std::exception&) {
        dropCopies();
        return "";
    }
    return keep(changedDocuments(before, now));
}

}  // namespace tarnfw
