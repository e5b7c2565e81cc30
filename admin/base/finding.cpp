#include "tarnfwadmin/finding.h"

#include <algorithm>

#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

constexpr char kPlainName[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";

/// The path of `path` within the value at `base`.
std::string joinedPath(const std::string& base, const std::string& path) {
    const bool dot = !base.empty() && !path.empty() && path.front() != '[';
    return base + (dot ? "." : "") + path;
}

/// The path in words: "portList entry 2" for "portList[1]", "rules.eth0" unchanged.
std::string pathText(const std::string& path) {
    const std::size_t bracket = path.rfind('[');
    if (bracket == std::string::npos || path.back() != ']') {
        return path;
    }
    const std::string index = path.substr(bracket + 1, path.size() - bracket - 2);
    if (index.empty() || index.find_first_not_of("0123456789") != std::string::npos) {
        return path;  // a member with an unusual name
    }
    const std::string list = path.substr(0, bracket);
    return list + (list.empty() ? "" : " ") + "entry " + std::to_string(std::stoul(index) + 1);
}

}  // namespace

std::size_t countErrors(const std::vector<Finding>& findings) {
    return static_cast<std::size_t>(std::count_if(
        findings.begin(), findings.end(), [](const Finding& finding) { return finding.isError; }));
}

ErrorPlace placeOfFirstError(const std::string& file, const std::vector<Finding>& findings) {
    const auto first = std::find_if(findings.begin(), findings.end(),
                                    [](const Finding& finding) { return finding.isError; });
    return first == findings.end()
               ? ErrorPlace{file, "", std::nullopt}
               : ErrorPlace{file, jsonOf(*first)["path"].asString(), first->rule};
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

std::string textOf(const Finding& finding) {
    std::string line;
    const auto append = [&line](const std::string& part) {
        line += part.empty() ? "" : part + ": ";
    };
    if (finding.rule) {
        append(finding.profile);
        append(placeText(*finding.rule));
        append(pathText(finding.path));
    } else {
        append(pathText(joinedPath(finding.profile, finding.path)));
    }
    append(finding.isError ? "" : "warning");
    return printable(line + finding.text);
}

std::string lineOf(const std::string& source, const Finding& finding) {
    return printable(source) + ": " + textOf(finding);
}

Json::Value jsonOf(const Finding& finding) {
    std::string path = finding.profile;
    Json::Value entry(Json::objectValue);
    entry["adapter"] = Json::nullValue;
    entry["position"] = Json::nullValue;
    if (finding.rule) {
        entry["adapter"] = finding.rule->adapter;
        entry["position"] = static_cast<Json::UInt64>(finding.rule->position);
        path = joinedPath(path, elementPath(memberPath("rules", finding.rule->adapter),
                                            finding.rule->position - 1));
    }
    path = joinedPath(path, finding.path);
    entry["path"] = path.empty() ? Json::Value() : Json::Value(path);
    entry["message"] = finding.text;
    entry["severity"] = finding.isError ? "error" : "warning";
    return entry;
}

}  // namespace tarnfw
