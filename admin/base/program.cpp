#include "tarnfwadmin/program.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
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

/// Reads two streams until both have ended. False when they have not by then.
bool readBoth(int first, std::string& firstText, int second, std::string& secondText,
              const std::optional<Clock::time_point>& limit) {
    std::array<pollfd, 2> streams{pollfd{first, POLLIN, 0}, pollfd{second, POLLIN, 0}};
    const std::array<std::string*, 2> texts{&firstText, &secondText};
    std::array<char, 65536> buffer;
    while (streams[0].fd >= 0 || streams[1].fd >= 0) {
        const int ready = poll(streams.data(), streams.size(), waitUntil(limit));
        if (ready < 0 && errno != EINTR) {
            return true;
        }
        if (limit && Clock::now() >= *limit) {
            return false;
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
            } else if (length == 0 || errno != EINTR) {
                streams[i].fd = -1;
            }
        }
    }
    return true;
}

}  // namespace

ProgramAnswer runProgram(const std::vector<std::string>& words, int input,
                         const std::function<bool()>& enter, int mostSeconds) {
    const std::string& program = words.front();
    Pipe output;
    Pipe errors;
    const pid_t process = startProcess(program, [&] {
        const bool entered = (!enter || enter()) && dup2(input, STDIN_FILENO) >= 0 &&
                             dup2(output.writeEnd.get(), STDOUT_FILENO) >= 0 &&
                             dup2(errors.writeEnd.get(), STDERR_FILENO) >= 0;
        return entered ? becomeProgram(words) : kNotEntered;
    });
    (void)output.writeEnd.close();
    (void)errors.writeEnd.close();
    ProgramAnswer answer;
    const std::optional<Clock::time_point> limit =
        mostSeconds > 0 ? std::optional(Clock::now() + std::chrono::seconds(mostSeconds))
                        : std::nullopt;
    if (!readBoth(output.readEnd.get(), answer.output, errors.readEnd.get(), answer.errors,
                  limit)) {
        (void)kill(process, SIGKILL);
        (void)exitStatusOf(process);
        throw Error(ErrorKind::kSystem,
                    program + " did not end within " + std::to_string(mostSeconds) + " s");
    }
    answer.status = exitStatusOf(process).value_or(kProgramNotRun);
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
