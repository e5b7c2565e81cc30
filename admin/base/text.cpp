#include "tarnfwadmin/text.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <iterator>

#include <boost/algorithm/string/join.hpp>

#include "fwPrintable.h"

namespace tarnfw {
namespace {

/// How many letters have to be inserted, removed, replaced or swapped with their neighbour to make
/// one word of the other.
std::size_t distance(const std::string& from, const std::string& to) {
    // needed[i][j]: for the first i letters of `from` and the first j of `to`.
    std::vector<std::vector<std::size_t>> needed(from.size() + 1,
                                                 std::vector<std::size_t>(to.size() + 1));
    for (std::size_t i = 0; i <= from.size(); ++i) {
        for (std::size_t j = 0; j <= to.size(); ++j) {
            if (i == 0 || j == 0) {
                needed[i][j] = i + j;
                continue;
            }
            const std::size_t replaced = needed[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
            needed[i][j] = std::min({replaced, needed[i - 1][j] + 1, needed[i][j - 1] + 1});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1]) {
                needed[i][j] = std::min(needed[i][j], needed[i - 2][j - 2] + 1);
            }
        }
    }
    return needed[from.size()][to.size()];
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string lettersOf(const std::string& name) {
    std::string letters;
    std::copy_if(name.begin(), name.end(), std::back_inserter(letters),
                 [](char c) { return !isDigit(c) && c != '.'; });
    return letters;
}

}  // namespace

std::string printableJson(const std::string& json) {
    return FW::escapedJson(json, FW::NotUtf8::kReplaced);
}

std::string printable(std::string text) {
    FW::makePrintable(text);
    return text;
}

std::string inQuotes(const std::string& text) {
    return std::string("\"").append(printable(text)).append("\"");
}

std::string shellWord(const std::string& word) {
    const bool plain = !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
               std::strchr("-_./,:=+@%", c) != nullptr || (static_cast<unsigned char>(c) & 0x80U);
    });
    if (plain) {
        return word;
    }
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return text + "'";
}

bool isWord(const std::string& text) {
    return !text.empty() && text.front() != '-' && text.front() != '!' &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) > ' ' && c != 0x7f; });
}

std::string counted(std::size_t number, const std::string& noun) {
    return std::to_string(number).append(" ").append(noun).append(number == 1 ? "" : "s");
}

std::string nearest(const std::string& word, const std::vector<std::string>& known) {
    // With up to a third of the letters wrong it is a typing error; with more, another word.
    std::size_t best = std::max<std::size_t>(word.size() / 3, 1) + 1;
    std::string found;
    for (const std::string& candidate : known) {
        const std::size_t needed = distance(word, candidate);
        if (needed < best) {
            best = needed;
            found = candidate;
        }
    }
    if (!found.empty() || word.size() < 2) {
        return found;
    }
    const auto begins = [&word](const std::string& name) { return name.rfind(word, 0) == 0; };
    const auto first = std::find_if(known.begin(), known.end(), begins);
    const bool only = first != known.end() && std::none_of(first + 1, known.end(), begins);
    return only ? *first : std::string();
}

std::string nearestCode(const std::string& word, const std::vector<std::string>& known) {
    return word.size() > 2 ? nearest(word, known) : std::string();
}

std::string nearestAdapter(const std::string& word, const std::vector<std::string>& known) {
    const std::string letters = lettersOf(word);
    const bool numbered = std::any_of(word.begin(), word.end(), isDigit);
    std::vector<std::string> candidates;
    std::copy_if(known.begin(), known.end(), std::back_inserter(candidates),
                 [&](const std::string& name) { return !numbered || lettersOf(name) != letters; });
    return nearest(word, candidates);
}

std::string listed(const std::vector<std::string>& names) {
    return printable(boost::join(names, ", "));
}

std::string enumerated(const std::vector<std::string>& texts) {
    std::string line;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        line += i == 0 ? "" : i + 1 == texts.size() ? " and " : ", ";
        line += texts[i];
    }
    return line;
}

std::string didYouMean(const std::string& guess) {
    return guess.empty() ? guess : "; did you mean " + inQuotes(guess) + "?";
}

}  // namespace tarnfw
