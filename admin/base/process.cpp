#include "tarnfwadmin/process.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "tarnfwadmin/error.h"

namespace tarnfw {

pid_t startProcess(const std::string& name, const std::function<int()>& work) {
    const pid_t process = fork();
    if (process < 0) {
        throw Error(ErrorKind::kSystem, "cannot start " + name + ": " + std::strerror(errno));
    }
    if (process == 0) {
        try {
            _exit(work());
        } catch (...) {
            _exit(EXIT_FAILURE);  // only this process is to end, not what its parent was doing
        }
    }
    return process;
}

int becomeProgram(std::vector<std::string> words) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    (void)execv(argv.front(), argv.data());
    return kProgramNotRun;
}

std::optional<int> waitStatusOf(pid_t process) {
    int status = 0;
    while (waitpid(process, &status, 0) < 0) {
        if (errno != EINTR) {
            return std::nullopt;
        }
    }
    return status;
}

std::optional<int> exitStatusOf(pid_t process) {
    const std::optional<int> status = waitStatusOf(process);
    return status && WIFEXITED(*status) ? std::optional(WEXITSTATUS(*status)) : std::nullopt;
}

}  // namespace tarnfw
