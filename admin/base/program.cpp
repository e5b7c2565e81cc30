#include "tarnfwadmin/program.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <sstream>

#include <boost/algorithm/string/predicate.hpp>

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/process.h"

namespace tarnfw {
namespace {

// The exit status of a new process that does not get as far as the program.
constexpr int kNotEntered = 126;

/// Reads two streams until both have ended.
void readBoth(int first, std::string& firstText, int second, std::string& secondText) {
    std::array<pollfd, 2> streams{pollfd{first, POLLIN, 0}, pollfd{second, POLLIN, 0}};
    const std::array<std::string*, 2> texts{&firstText, &secondText};
    std::array<char, 65536> buffer;
    while (streams[0].fd >= 0 || streams[1].fd >= 0) {
        if (poll(streams.data(), streams.size(), -1) < 0 && errno != EINTR) {
            return;
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
}

}  // namespace

ProgramAnswer runProgram(const std::vector<std::string>& words, int input,
                         const std::function<bool()>& enter) {
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
    readBoth(output.readEnd.get(), answer.output, errors.readEnd.get(), answer.errors);
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
