#include "fake_restore.h"

#include <dlfcn.h>
#include <spawn.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "library_test.h"

namespace fs = std::filesystem;

namespace {

const std::string kDirectory = "/tmp/fake_restore/";

FakeRestore* g_current = nullptr;

// Reads line by line, apparently without reading ahead.
constexpr char kScript[] = R"sh(#!/bin/sh
cd /tmp/fake_restore || exit 99
tool=${0##*/}
echo "$tool $*" >>started
case $tool in ip6*) family=v6 ;; *) family=v4 ;; esac
case $tool in
*-save)
    [ ! -e "$family not saved" ] || { cat "$family not saved" >&2; exit 3; }
    cat "$family saved"
    exit 0
    ;;
esac
case " $* " in
*' --counters '*) run="$family put back" ;;
*' --test '*) run="$family test" ;;
*) run="$family commit" ;;
esac
echo "$*" >"$run.arguments"
: >"$run.text"
refused=
[ ! -e "$run.refuse" ] || IFS= read -r refused <"$run.refuse"
while IFS= read -r line; do
    case $line in
    '#'*) printf '%s\n' "$line"; continue ;;
    esac
    printf '%s\n' "$line" >>"$run.text"
    if [ -n "$refused" ] && [ "$line" = "$refused" ]; then
        cat "$run.errors" >&2
        echo "$run" >>ended
        status=$(cat "$run.status")
        [ "$status" = killed ] || exit "$status"
        kill -KILL $$
    fi
    last=$line
done
echo "$run" >>ended
if [ "$last" != COMMIT ]; then
    echo "$tool: COMMIT expected at line 99" >&2
    exit 1
fi
: >"$run.whole"
)sh";

std::vector<std::string> linesOf(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool isToolOfIptables(const std::string& path) {
    const std::string name = fs::path(path).filename();
    return path == "/sbin/" + name &&
           (name.compare(0, 8, "iptables") == 0 || name.compare(0, 9, "ip6tables") == 0);
}

}  // namespace

FakeRestore::FakeRestore() {
    if (g_current != nullptr) {
        throw std::logic_error("a second FakeRestore");
    }
    g_current = this;
    fs::remove_all(kDirectory);
    for (const std::string tool : {"iptables", "ip6tables"}) {
        for (const std::string kind : {"-save", "-restore"}) {
            const std::string path = kDirectory + tool + kind;
            writeFile(path, kScript);
            (void)chmod(path.c_str(), 0755);
        }
    }
    for (const std::string family : {"v4", "v6"}) {
        setSaved(family, "*filter\n:INPUT ACCEPT [0:0]\n:FORWARD ACCEPT [0:0]\nCOMMIT\n");
    }
}

FakeRestore::~FakeRestore() {
    g_current = nullptr;
    fs::remove_all(kDirectory);
}

std::vector<FakeRestore::Run> FakeRestore::runs() const {
    std::vector<Run> found;
    for (const std::string& name : linesOf(kDirectory + "ended")) {
        Run run;
        run.name = name;
        run.arguments = readFile(kDirectory + name + ".arguments");
        run.text = readFile(kDirectory + name + ".text");
        run.whole = fileExists(kDirectory + name + ".whole");
        found.push_back(run);
    }
    return found;
}

std::vector<std::string> FakeRestore::committed() const {
    std::vector<std::string> names;
    for (const Run& run : runs()) {
        if (run.whole && run.name.find("test") == std::string::npos) {
            names.push_back(run.name);
        }
    }
    return names;
}

std::vector<std::string> FakeRestore::started() const {
    std::vector<std::string> lines = linesOf(kDirectory + "started");
    std::sort(lines.begin(), lines.end());
    return lines;
}

void FakeRestore::setSaved(const std::string& family, const std::string& output) {
    writeFile(kDirectory + family + " saved", output);
}

void FakeRestore::failToSave(const std::string& family, const std::string& errors) {
    writeFile(kDirectory + family + " not saved", errors);
}

void FakeRestore::refuse(const std::string& run, const std::string& line, const std::string& errors,
                         int status) {
    writeFile(kDirectory + run + ".refuse", line + "\n");
    writeFile(kDirectory + run + ".errors", errors);
    writeFile(kDirectory + run + ".status", std::to_string(status));
}

void FakeRestore::kill(const std::string& run, const std::string& line) {
    refuse(run, line, "");
    writeFile(kDirectory + run + ".status", "killed");
}

void FakeRestore::remove(const std::string& path) {
    fs::remove(kDirectory + fs::path(path).filename().string());
}

extern "C" {

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const arguments[],
                char* const environment[]) {
    using Function = int(pid_t*, const char*, const posix_spawn_file_actions_t*,
                         const posix_spawnattr_t*, char* const[], char* const[]);
    std::string program = path;
    if (g_current != nullptr && isToolOfIptables(program)) {
        program = kDirectory + fs::path(program).filename().string();
    }
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "posix_spawn"))(
        pid, program.c_str(), actions, attributes, arguments, environment);
}

}  // extern "C"
