/// Small helpers of the tests of platform/host: files, child processes, program output.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// Writes a file, with its directories, and gives it a mode.
inline void writeFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream file(path, std::ios::binary);
    file << content;
    file.close();
    ASSERT_TRUE(file) << path;
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

/// Type and permissions of what is at `path`, without following links; 0 when there is nothing.
inline mode_t modeOf(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0 ? info.st_mode : 0;
}

inline std::string readAll(FILE* stream) {
    std::string text;
    for (int c = fgetc(stream); c != EOF; c = fgetc(stream)) {
        text += static_cast<char>(c);
    }
    return text;
}

/// Starts a process that runs `work` and exits with its result.
inline pid_t startChild(const std::function<int()>& work) {
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(work());
    }
    return pid;
}

/// The exit status of a child, or -1 when it ended otherwise.
inline int exitStatusOf(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

inline int runChild(const std::function<int()>& work) {
    return exitStatusOf(startChild(work));
}

/// One byte from one process to another: "I am that far".
class Signal {
public:
    Signal() { EXPECT_EQ(pipe(ends_), 0); }
    ~Signal() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    void give() const { EXPECT_EQ(write(ends_[1], "x", 1), 1); }
    void await() const {
        char byte;
        EXPECT_EQ(read(ends_[0], &byte, 1), 1);
    }

private:
    int ends_[2];
};

/// Sets the umask for a scope.
class Umask {
public:
    explicit Umask(mode_t mask) : before_(umask(mask)) {}
    ~Umask() { umask(before_); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    mode_t before_;
};

/// A test with an empty directory of its own.
class DirectoryTest : public ::testing::Test {
protected:
    DirectoryTest() {
        std::string name = "/tmp/host_test.XXXXXX";
        EXPECT_NE(mkdtemp(&name[0]), nullptr);
        directory_ = name;
    }
    ~DirectoryTest() override { std::filesystem::remove_all(directory_); }

    std::string path(const std::string& name) const { return directory_ + '/' + name; }

    std::string directory_;
};
