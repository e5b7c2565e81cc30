/// How long a line may be, for the programs that get it and for those that ask beforehand.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace FW {

/// Of a command in apply mode "lines": its words, each with a terminating zero.
inline constexpr std::size_t kCommandBytes = 1024;

/// Of a line for iptables-restore, in "batch". The tool reads lines into 10240 bytes, including a
/// line feed and a terminating zero, and treats the rest of a longer one as a separate line.
inline constexpr std::size_t kRestoreLineBytes = 10238;

/// How many of its bytes a command takes: those of its words, which blanks separate.
inline std::size_t commandBytes(const std::string& command) {
    std::size_t bytes = 0;
    std::size_t end = 0;
    for (std::size_t begin = command.find_first_not_of(' '); begin != std::string::npos;
         begin = command.find_first_not_of(' ', end)) {
        end = std::min(command.find(' ', begin), command.size());
        bytes += end - begin + 1;
    }
    return bytes;
}

}  // namespace FW
