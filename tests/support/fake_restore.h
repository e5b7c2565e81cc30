/// Fakes of iptables-save, iptables-restore and their IPv6 counterparts, to test what the library
/// passes to them and how it handles their output without a kernel.
#pragma once

#include <string>
#include <vector>

/// While one exists, the iptables programs that the library starts are scripts that record their
/// input. Exactly one exists at a time.
class FakeRestore {
public:
    FakeRestore();
    ~FakeRestore();
    FakeRestore(const FakeRestore&) = delete;
    FakeRestore& operator=(const FakeRestore&) = delete;

    /// One run of iptables-restore.
    struct Run {
        std::string name;       ///< "v4 commit", "v6 test", "v4 put back"
        std::string arguments;  ///< "--noflush --wait 30 ..."
        std::string text;       ///< its input without comment lines
        bool whole = false;     ///< whether it reached the end of its input

        bool operator==(const Run& other) const {
            return name == other.name && text == other.text && whole == other.whole;
        }
    };

    /// The runs that have ended (commits, tests, restores), in the order in which they ended.
    std::vector<Run> runs() const;

    /// The names of those that reached the end of their input and so changed something, in order.
    std::vector<std::string> committed() const;

    /// Every program that was started, with its arguments, sorted.
    std::vector<std::string> started() const;

    /// What iptables-save ("v4") or ip6tables-save ("v6") prints for any table.
    void setSaved(const std::string& family, const std::string& output);

    /// From now on that program fails with status 3, saying `errors`.
    void failToSave(const std::string& family, const std::string& errors);

    /// From now on the run of that name ("v6 commit") ends with `status` at a line of its input,
    /// saying `errors`.
    void refuse(const std::string& run, const std::string& line, const std::string& errors,
                int status = 1);

    /// The same with SIGKILL: the caller cannot know whether a COMMIT was done.
    void kill(const std::string& run, const std::string& line);

    /// From now on the program with that path cannot be started.
    void remove(const std::string& path);
};
