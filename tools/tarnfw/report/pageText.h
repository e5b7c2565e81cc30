/// Texts as parts of the report's page.
#pragma once

#include <cstddef>
#include <string>

#include <json/json.h>

namespace tarnfw {

/// For the content of an element and for a value in double quotes. What a terminal would obey is
/// replaced, and so is text that is no UTF-8.
std::string html(const std::string& text);
std::string html(const Json::Value& text);

/// For a search without regard to case; other letters than those of ASCII stay.
std::string lower(std::string text);

/// "Left out of this page: 20 rules. tarnfw report --json has them."
std::string leftOut(const std::string& what);

/// Of a list of rules: of more, nobody reads all.
inline constexpr std::size_t kMostNamed = 10;

}  // namespace tarnfw
