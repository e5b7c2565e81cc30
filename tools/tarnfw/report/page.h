/// The report as a page.
#pragma once

#include <string>

#include <json/json.h>

namespace tarnfw {

/// One HTML document that needs nothing else, made of the facts that "--json" prints. All texts of
/// the profile are escaped, and the page's own policy allows no other script or style than its own.
std::string reportPage(const Json::Value& facts);

}  // namespace tarnfw
