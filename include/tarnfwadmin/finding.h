/// What the checks of documents find, and where.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/place.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// One finding of a check.
struct Finding {
    std::string text = {};               ///< "\"99999\" is not a port (0-65535)"
    bool isError = true;                 ///< else a warning
    std::optional<RulePlace> rule = {};  ///< the rule that it is about; none: another part

    /// The member: within the rule ("portList[1]"), else within the document
    /// ("adapterPolicyMap.eth0"), or a place in its text ("line 3, column 7"). Indices are JSON's,
    /// from 0. Empty: the whole rule or document.
    std::string path = {};

    std::vector<RulePlace> shadowedBy = {};  ///< because of these `rule` never takes effect

    /// In an exported configuration: the profile's member, "config_profiles[\"home.json\"]".
    std::string profile = {};
};

/// Collects findings.
class Findings {
public:
    void error(const std::string& path, const std::string& text) {
        error(std::nullopt, path, text);
    }
    void error(std::optional<RulePlace> rule, const std::string& path, const std::string& text) {
        all_.push_back({text, true, std::move(rule), path});
    }
    void warning(const std::string& path, const std::string& text) {
        warning(std::nullopt, path, text);
    }
    void warning(std::optional<RulePlace> rule, const std::string& path, const std::string& text) {
        all_.push_back({text, false, std::move(rule), path});
    }
    std::vector<Finding> take() { return std::move(all_); }

private:
    std::vector<Finding> all_;
};

std::size_t countErrors(const std::vector<Finding>& findings);

/// The place of the first error of a document; without one, the document alone. `file` is its path.
ErrorPlace placeOfFirstError(const std::string& file, const std::vector<Finding>& findings);

/// The path of a member: "rules.eth0", and rules["eth0.7"] where a name has other characters than
/// letters, digits, '_' and '-'.
std::string memberPath(const std::string& base, const std::string& name);

/// The path of an element: "portList[3]", from 0.
std::string elementPath(const std::string& base, std::size_t index);

/// "rule 4 of eth0: portList entry 2: warning: ...": the finding without its document. Elements
/// count from 1 here. Printable.
std::string textOf(const Finding& finding);

/// The line for a finding: "home.json: rule 4 of eth0: warning: ...", with "home.json" for
/// `source`. Printable.
std::string lineOf(const std::string& source, const Finding& finding);

/// A finding as the "--json" of a command has it: "path", which leads through the document with
/// indices from 0 ("rules.eth0[3].portList[1]"; null for the whole document), "adapter" and
/// "position" of the rule (null for a finding about another part), "message", "severity" ("error"
/// or "warning").
Json::Value jsonOf(const Finding& finding);

}  // namespace tarnfw
