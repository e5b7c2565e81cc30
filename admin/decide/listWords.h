/// Lists in words.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace tarnfw {

using Texts = std::vector<std::string>;

inline std::string joined(const Texts& texts, const char* between) {
    std::string line;
    for (const std::string& text : texts) {
        line += (line.empty() ? "" : between) + text;
    }
    return line;
}

/// The first entries of a long list, and the number of the others.
inline Texts shortened(Texts texts, std::size_t most) {
    if (texts.size() > most + 1) {
        const std::size_t others = texts.size() - most;
        texts.resize(most);
        texts.push_back(std::to_string(others) + " more");
    }
    return texts;
}

/// "a, b, c", "a, b and 7 more".
inline std::string joinedShort(Texts texts, std::size_t most) {
    const bool isLong = texts.size() > most + 1;
    texts = shortened(std::move(texts), most);
    if (!isLong) {
        return joined(texts, ", ");
    }
    const std::string others = texts.back();
    texts.pop_back();
    return joined(texts, ", ") + " and " + others;
}

}  // namespace tarnfw
