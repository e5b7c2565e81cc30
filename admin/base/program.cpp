#include "tarnfwadmin/program.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <iterator>
#include <optional>
#include <sstream>

#include <boost/algorithm/string/predicate.hpp>

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/process.h"

namespace tarnfw {
namespace {

// The exit status of a new process that does not get as far as the program.
constexpr int kNotEntered = 126;

using Clock = std::chrono::steady_clock;

/// For poll(): the milliseconds until then, -1 without a limit.
int waitUntil(const std::optional<Clock::time_point>& limit) {
    if (!limit) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*limit - Clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

/// Reads two streams until both have ended. Returns 0, or the error number of what has failed:
/// ETIMEDOUT when they have not ended by then.
int readBoth(int first, std::string& firstText, int second, std::string& secondText,
             const std::optional<Clock::time_point>& limit) {
    std::array<pollfd, 2> streams{pollfd{first, POLLIN, 0}, pollfd{second, POLLIN, 0}};
    const std::array<std::string*, 2> texts{&firstText, &secondText};
    std::array<char, 65536> buffer;
    while (streams[0].fd >= 0 || streams[1].fd >= 0) {
        const int ready = poll(streams.data(), streams.size(), waitUntil(limit));
        if (ready < 0 && errno != EINTR) {
            return errno;
        }
        if (limit && Clock::now() >= *limit) {
            return ETIMEDOUT;
        }
        if (ready <= 0) {
            continue;
        }
        for (std::size_t i = 0; i < streams.size(); ++i) {
            if (streams[i].fd < 0 || streams[i].revents == 0) {
                continue;
            }
            const ssize_t length = read(streams[i].fd, buffer.data(), buffer.size());
            if (length > 0) {
                texts[i]->append(buffer.data(), static_cast<std::size_t>(length));
            } else if (length == 0) {
                streams[i].fd = -1;
            } else if (errno != EINTR) {
                return errno;
            }
        }
    }
    return 0;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    std::transform(texts.begin(), texts.end(), std::back_inserter(pointers),
                   [](std::string& text) { return text.data(); });
    pointers.push_back(nullptr);
    return pointers;
}

/// The descriptors that a program gets as its standard ones.
using Standard = std::array<int, 3>;

/// Starts a program without a copy of this process, which takes the longer the more memory it has.
pid_t spawnProgram(std::vector<std::string> words, const Standard& descriptors,
                   const std::string& variable) {
    std::vector<std::string> environment;
    if (!variable.empty()) {
        environment.push_back(variable);  // before one of the same name: the first counts
    }
    for (char** own = environ; *own != nullptr; ++own) {
        environment.emplace_back(*own);
    }
    posix_spawn_file_actions_t actions;
    int error = posix_spawn_file_actions_init(&actions);
    for (int to = 0; error == 0 && to < static_cast<int>(descriptors.size()); ++to) {
        error = posix_spawn_file_actions_adddup2(&actions,
                                                 descriptors.at(static_cast<std::size_t>(to)), to);
    }
    pid_t process = -1;
    if (error == 0) {
        error = posix_spawn(&process, words.front().c_str(), &actions, nullptr,
                            pointersTo(words).data(), pointersTo(environment).data());
    }
    (void)posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw Error(ErrorKind::kSystem,
                    "cannot run " + words.front() + ": " + std::strerror(error));
    }
    return process;
}

/// The same in a copy, where `enter` is called first.
pid_t startProgram(const std::vector<std::string>& words, const Standard& descriptors,
                   const std::string& variable, const std::function<bool()>& enter) {
    return startProcess(words.front(), [&] {
        std::string owned = variable;
        bool entered = (variable.empty() || putenv(owned.data()) == 0) && enter();
        for (int to = 0; entered && to < static_cast<int>(descriptors.size()); ++to) {
            entered = dup2(descriptors.at(static_cast<std::size_t>(to)), to) >= 0;
        }
        return entered ? becomeProgram(words) : kNotEntered;
    });
}

}  // namespace

ProgramAnswer runProgram(const std::vector<std::string>& words, int input,
                         const std::function<bool()>& enter, int mostSeconds,
                         const std::string& variable) {
    const std::string& program = words.front();
    Pipe output;
    Pipe errors;
    const Standard descriptors = {input, output.writeEnd.get(), errors.writeEnd.get()};
    const pid_t process = enter ? startProgram(words, descriptors, variable, enter)
                                : spawnProgram(words, descriptors, variable);
    (void)output.writeEnd.close();
    (void)errors.writeEnd.close();
    ProgramAnswer answer;
    const std::optional<Clock::time_point> limit =
        mostSeconds > 0 ? std::optional(Clock::now() + std::chrono::seconds(mostSeconds))
                        : std::nullopt;
    const int failure =
        readBoth(output.readEnd.get(), answer.output, errors.readEnd.get(), answer.errors, limit);
    if (failure == ETIMEDOUT) {
        (void)kill(process, SIGKILL);
        (void)exitStatusOf(process);
        throw Error(ErrorKind::kSystem,
                    program + " did not end within " + std::to_string(mostSeconds) + " s");
    }
    (void)output.readEnd.close();  // so that a program whose answer is not read ends
    (void)errors.readEnd.close();
    answer.status = exitStatusOf(process).value_or(kProgramNotRun);
    if (failure != 0) {
        // A part of an answer would be taken for all of it.
        throw Error(ErrorKind::kSystem,
                    "cannot read what " + program + " answers: " + std::strerror(failure));
    }
    if (answer.status == kNotEntered || answer.status == kProgramNotRun) {
        throw Error(ErrorKind::kSystem, "cannot run " + program);
    }
    return answer;
}

std::string oneLine(const std::string& errors) {
    std::istringstream lines(errors);
    std::string words;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && !boost::starts_with(line, "Try `")) {
            words.append(words.empty() ? "" : " ").append(line);
        }
    }
    return words.empty() ? "it says nothing" : words;
}

std::string becauseOf(const ProgramAnswer& answer) {
    return answer.errors.empty() ? "" : ": " + oneLine(answer.errors);
}

}  // namespace tarnfw
