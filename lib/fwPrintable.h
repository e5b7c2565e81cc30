/// Makes texts safe for a terminal. Compiled into both libraries and platform/host, and depends on
/// none of them.
#pragma once

#include <cstddef>
#include <string>

namespace FW {

/// Replaces with one '?' each what a terminal would obey instead of showing: control characters (of
/// ASCII, and U+0080 to U+009F), line and paragraph separators, and what changes the direction of
/// text; also each byte that is not UTF-8. The text only gets shorter. Returns its new size.
std::size_t makePrintable(char* text, std::size_t size) noexcept;

void makePrintable(std::string& text);

}  // namespace FW
