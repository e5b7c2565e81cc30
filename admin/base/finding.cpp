#include "tarnfwadmin/finding.h"

#include <algorithm>

#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

constexpr char kPlainName[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";

}  // namespace

bool hasErrors(const std::vector<Finding>& findings) {
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.isError; });
}

std::string memberPath(const std::string& base, const std::string& name) {
    if (name.empty() || name.find_first_not_of(kPlainName) != std::string::npos) {
        return std::string(base).append("[\"").append(name).append("\"]");
    }
    return base.empty() ? name : std::string(base).append(".").append(name);
}

std::string elementPath(const std::string& base, std::size_t index) {
    return std::string(base).append("[").append(std::to_string(index)).append("]");
}

std::string lineOf(const std::string& source, const Finding& finding) {
    std::string line = source + ": ";
    if (!finding.where.empty()) {
        line += finding.where + ": ";
    }
    if (!finding.isError) {
        line += "warning: ";
    }
    return printable(line + finding.text);
}

Json::Value jsonOf(const Finding& finding) {
    Json::Value entry(Json::objectValue);
    entry["where"] = finding.where;
    entry["text"] = finding.text;
    entry["severity"] = finding.isError ? "error" : "warning";
    return entry;
}

}  // namespace tarnfw
