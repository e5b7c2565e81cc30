/// One thing that a check of a document found, and where.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

namespace tarnfw {

struct Finding {
    std::string where;  ///< "rules.eth0[3].portList[1]", indices from 0; empty: the whole document
    std::string text;   ///< "\"99999\" is not a port (0-65535)"
    bool isError;       ///< else a warning
};

/// Collects findings.
class Findings {
public:
    void error(const std::string& where, const std::string& text) {
        all_.push_back({where, text, true});
    }
    void warning(const std::string& where, const std::string& text) {
        all_.push_back({where, text, false});
    }
    std::vector<Finding> take() { return std::move(all_); }

private:
    std::vector<Finding> all_;
};

bool hasErrors(const std::vector<Finding>& findings);

/// The path of a member: "rules.eth0", and rules["eth0.7"] where a name has other characters than
/// letters, digits, '_' and '-'.
std::string memberPath(const std::string& base, const std::string& name);

/// The path of an element: "rules.eth0[3]".
std::string elementPath(const std::string& base, std::size_t index);

/// The line for a finding: "home.json: rules.eth0[3]: warning: ...", with "home.json" for `source`.
/// Printable.
std::string lineOf(const std::string& source, const Finding& finding);

/// A finding as the "--json" of a command has it: "where", "text", "severity".
Json::Value jsonOf(const Finding& finding);

}  // namespace tarnfw
