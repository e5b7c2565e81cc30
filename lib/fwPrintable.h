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

/// What becomes of bytes that are not UTF-8.
enum class NotUtf8 { kKept, kReplaced };

/// A JSON text of the same value, with what makePrintable() replaces written as an escape such as
/// "\u009b". Control characters up to U+007F must be escaped already, except between two parts of
/// the text. A byte that is not UTF-8 becomes "\ufffd" with NotUtf8::kReplaced.
std::string escapedJson(const std::string& json, NotUtf8 bytes);

}  // namespace FW
