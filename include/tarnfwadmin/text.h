/// Building blocks of messages, for this library and its users.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// A text from a file made safe for a terminal: a '?' for each control character, line separator
/// and change of the direction of text, and for each byte that is not UTF-8.
std::string printable(std::string text);

/// A JSON text of the same value for a terminal: with escapes for what printable() replaces, and
/// U+FFFD for each byte that is not UTF-8.
std::string printableJson(const std::string& json);

/// The same in double quotes, for names and texts in messages.
std::string inQuotes(const std::string& text);

/// A word as a shell reads it again, for a command in a message: in single quotes unless it is
/// plain. Not made printable.
std::string shellWord(const std::string& word);

/// Whether a text can be one word of a line for the packet filter: not empty, without blanks and
/// control characters, no option ("-x") and no negation ("!").
bool isWord(const std::string& text);

/// "1 rule", "3 rules".
std::string counted(std::size_t number, const std::string& noun);

/// The word of `known` that is most similar to `word`, or the only one that begins with it; empty
/// if none is similar.
std::string nearest(const std::string& word, const std::vector<std::string>& known);

/// The same for country codes. Empty for a `word` of two letters or fewer, which is as near to many
/// codes.
std::string nearestCode(const std::string& word, const std::vector<std::string>& known);

/// The same for adapters, without those that differ from a `word` with digits only in what are no
/// letters: "eth0" is another adapter than "eth1" or "eth1.7", not a correction of its name.
std::string nearestAdapter(const std::string& word, const std::vector<std::string>& known);

/// Names for a message, printable: "default, home".
std::string listed(const std::vector<std::string>& names);

/// "a, b and c". Not made printable.
std::string enumerated(const std::vector<std::string>& texts);

/// "; did you mean "eth0"?", for the end of a message; empty without a guess.
std::string didYouMean(const std::string& guess);

}  // namespace tarnfw
