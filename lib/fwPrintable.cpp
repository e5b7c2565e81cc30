#include "fwPrintable.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace FW {
namespace {

struct Span {
    char32_t first;
    char32_t last;
};

constexpr Span kObeyed[] = {
    {0x00, 0x1f},     {0x7f, 0x9f}, {0x61c, 0x61c},  // Arabic letter mark
    {0x200e, 0x200f},                                // left-to-right and right-to-left mark
    {0x2028, 0x2029},                                // line and paragraph separator
    {0x202a, 0x202e},                                // embeddings and overrides
    {0x2066, 0x2069},                                // isolates
};

constexpr char32_t kDelete = 0x7f;

bool isObeyed(char32_t character) {
    return std::any_of(std::begin(kObeyed), std::end(kObeyed), [&](const Span& span) {
        return character >= span.first && character <= span.last;
    });
}

/// One form of a character in UTF-8. The smallest character excludes longer forms than needed.
struct Form {
    std::size_t bytes;
    char32_t smallest;
    unsigned char mask;
    unsigned char lead;
};

constexpr Form kForms[] = {
    {1, 0x00, 0x80, 0x00},
    {2, 0x80, 0xe0, 0xc0},
    {3, 0x800, 0xf0, 0xe0},
    {4, 0x10000, 0xf8, 0xf0},
};

constexpr char32_t kLargest = 0x10ffff;
constexpr Span kSurrogates = {0xd800, 0xdfff};

/// Reads the first character of a text. Returns its number of bytes; 0 when it is not UTF-8.
std::size_t readCharacter(const char* text, std::size_t size, char32_t& character) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto* const form =
        std::find_if(std::begin(kForms), std::end(kForms),
                     [&](const Form& one) { return (byteAt(0) & one.mask) == one.lead; });
    if (form == std::end(kForms) || form->bytes > size) {
        return 0;
    }
    character = byteAt(0) & static_cast<unsigned char>(~form->mask);
    for (std::size_t i = 1; i < form->bytes; ++i) {
        if ((byteAt(i) & 0xc0U) != 0x80U) {
            return 0;
        }
        character = (character << 6U) | (byteAt(i) & 0x3fU);
    }
    const bool isSurrogate = character >= kSurrogates.first && character <= kSurrogates.last;
    return character < form->smallest || character > kLargest || isSurrogate ? 0 : form->bytes;
}

}  // namespace

std::size_t makePrintable(char* text, std::size_t size) noexcept {
    std::size_t written = 0;
    for (std::size_t i = 0; i < size;) {
        char32_t character = 0;
        const std::size_t bytes = readCharacter(text + i, size - i, character);
        if (bytes == 0 || isObeyed(character)) {
            text[written++] = '?';
        } else {
            std::memmove(text + written, text + i, bytes);
            written += bytes;
        }
        i += std::max<std::size_t>(bytes, 1);
    }
    return written;
}

void makePrintable(std::string& text) {
    text.resize(makePrintable(text.data(), text.size()));
}

std::string escapedJson(const std::string& json, NotUtf8 bytes) {
    std::string escaped;
    for (std::size_t i = 0; i < json.size();) {
        char32_t character = 0;
        const std::size_t size = readCharacter(json.data() + i, json.size() - i, character);
        if (size == 0 && bytes == NotUtf8::kReplaced) {
            escaped += "\\ufffd";
        } else if (size != 0 && character >= kDelete && isObeyed(character)) {
            std::array<char, 12> text{};
            (void)std::snprintf(text.data(), text.size(), "\\u%04x",
                                static_cast<unsigned>(character));
            escaped += text.data();
        } else {
            escaped.append(json, i, std::max<std::size_t>(size, 1));
        }
        i += std::max<std::size_t>(size, 1);
    }
    return escaped;
}

}  // namespace FW
