/// A platform for unit tests: implements every function of platform/*.h with results from members
/// that a test sets, and records the calls, in order. Also captures lines for the system log.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// One captured line of the system log, in parts: "fwDB:12 The profile home already exist".
struct LoggedLine {
    int priority = 0;
    std::string source;  ///< "fwDB"
    int line = 0;        ///< 12
    std::string text;    ///< "The profile home already exist"
};

/// A record of the fake service catalogue.
struct FakeService {
    std::string title;  ///< empty: unusable for the firewall
    int dstProtocol = 0;
    std::vector<std::string> dstPorts;
    int srcProtocol = 0;
    std::vector<std::string> srcPorts;
};

/// Exactly one exists at a time, and the platform functions use it. Files and directories are real,
/// except that key/value files are kept in memory.
class FakePlatform {
public:
    FakePlatform();
    ~FakePlatform();
    FakePlatform(const FakePlatform&) = delete;
    FakePlatform& operator=(const FakePlatform&) = delete;
    static FakePlatform& current();

    // ---- All calls, in order ----

    /// One text for each call that changes something or runs something:
    ///   "exec /sbin/iptables -F X"   "popen PATH ARG..."          "pclose"
    ///   "mkdir PATH"                 "set PATH KEY=VALUE"
    ///   "lock PATH MODE SECONDS"     "unlock FD"
    ///   "insmod SERVICE: a.ko b.ko"  "rmmod SERVICE: b.ko a.ko"
    ///   "hook init CATEGORY NAME"    "hook set KEY=VALUE"   "hook action 4"   "hook exit"
    ///   "services enum"              "services free"
    ///   "interfaces CAPACITY SELECTOR"                      "pppoe SIZE"
    ///   "error set 0x0D00"
    std::vector<std::string> journal;

    /// The journal's texts that begin with `prefix`, without the prefix.
    std::vector<std::string> journalOf(const std::string& prefix) const;

    // ---- Programs ----

    /// Argument vectors of TLIBCExecv, in order, including failed ones.
    std::vector<std::vector<std::string>> executed() const { return executed_; }

    /// The same as lines, the arguments joined by blanks.
    std::vector<std::string> executedLines() const;

    /// From now on TLIBCExecv returns -1 for command lines that begin with `prefix`.
    void failExec(const std::string& prefix) { failingExec_.push_back(prefix); }

    /// Called with each command line before it returns; may throw.
    std::function<void(const std::string&)> onExec;

    /// The policy that the executed lines left for a chain, in IPv4 ("v4") or IPv6 ("v6").
    std::string policyOf(const std::string& chain, const std::string& family = "v4") const;

    int execResult = 0;  ///< the result for lines that do not fail

    /// Output of TLIBCPopen by the last argument (the interface); the argument itself when not set.
    std::map<std::string, std::string> popenOutput;
    bool popenFails = false;
    int openStreams = 0;  ///< opened and not yet closed

    // ---- Key/value files, features ----

    std::map<std::string, std::map<std::string, std::string>> keyValues;  ///< path -> key -> value
    int existResult = 1;      ///< the answer of TLIBCFileExist for what exists
    int getKeyResult = 1;     ///< below 0: every read fails with it
    int setKeyResult = 0;     ///< below 0: every write fails with it
    int supportWireless = 0;  ///< TLIBCSupportGet("support_wireless")

    // ---- Directories, locks ----

    bool mkdirFails = false;                         ///< TARNFSMkdirP answers -1 with errno EROFS
    int lockResult = 1;                              ///< not 1: no lock, errno is EAGAIN
    int unlockResult = 1;                            ///< 0: releasing fails
    std::vector<std::string> heldLocks;              ///< paths
    std::function<void(const std::string&)> onLock;  ///< called with the path, before the answer

    // ---- String lists ----

    bool listAllocFails = false;
    int listPushFailsAt = -1;  ///< the push onto a list of this length fails
    int openLists = 0;         ///< allocated and not yet freed

    // ---- Error state ----

    int errorCode = 0;
    std::string errorFile = "platform.c";
    int errorLine = 0;

    // ---- Interfaces ----

    std::vector<std::string> interfaces = {"eth0"};
    int interfacesResult = 0;          ///< below 0: the query fails with it
    std::string pppoeInterface;        ///< empty: there is none
    bool loopbackIsNoAddress = false;  ///< BlTLIBIsIpAddr refuses "127.0.0.1"

    // ---- Services ----

    std::map<std::string, FakeService> services;
    int servicesResult = 1;  ///< below 1: the answer of TARNFwServiceEnum
    int openCatalogues = 0;  ///< returned and not yet freed

    // ---- Kernel modules, hooks ----

    int modInsertResult = 0;
    int modRemoveResult = 0;
    std::string failModInsertOf;  ///< TLIBIptablesModInsert answers -1 when this module is listed
    std::string failModRemoveOf;
    int hookInitResult = 0;
    int hookSetResult = 0;
    int hookActionResult = 0;

    // ---- System log ----

    const std::vector<LoggedLine>& log() const { return log_; }

    /// The captured texts without source and line, of every level.
    std::vector<std::string> logged() const;

    /// Whether exactly this was logged: level, source ("fwDB") and text.
    bool hasLogged(int priority, const std::string& source, const std::string& text) const;

    void clearLog() { log_.clear(); }
    void clearJournal();

    // ---- For the functions of the fake itself ----

    int answerExec(const std::vector<std::string>& argv);
    void recordLog(int priority, const std::string& message);

private:
    std::vector<std::vector<std::string>> executed_;
    std::vector<std::string> failingExec_;
    std::vector<LoggedLine> log_;
};
