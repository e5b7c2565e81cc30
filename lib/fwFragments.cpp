#include "fwFragments.h"

namespace FW {
namespace {

constexpr char kLogTarget[] = " -j LOG";

/// Appends a fragment after one blank, unless it is empty.
void appendFragment(std::string& line, const std::string& fragment) {
    if (!fragment.empty()) {
        line += ' ';
        line += fragment;
    }
}

void appendLine(Json::Value& lines, const std::string& line) {
    lines.append(Json::Value(line.data(), line.data() + line.size()));
}

}  // namespace

const std::array<Family, 2> kFamilies = {{
    {"v4", 0, FW_IP_TYPE_V4, kIcmpV6},
    {"v6", 1, FW_IP_TYPE_V6, kIcmpV4},
}};

bool Family::isOf(std::int32_t type) const {
    return type == ipType || type == FW_IP_TYPE_BOTH;
}

void Fragments::clear() {
    for (Texts* const texts : {&adapter, &ip[0], &ip[1], &port, &chain, &table, &policy}) {
        texts->clear();
    }
}

Fragments Fragments::of(const Json::Value& arg, std::int32_t ipType) {
    Fragments fragments;
    fragments.adapter = textsOf(arg["adapter"]);
    for (const Family& family : kFamilies) {
        if (family.isOf(ipType)) {
            fragments.ip[family.index] = textsOf(arg["ip"][family.key]);
        }
    }
    fragments.port = textsOf(arg["port"]);
    fragments.chain = textsOf(arg["chain"]);
    fragments.table = textsOf(arg["table"]);
    fragments.policy = textsOf(arg["policy"]);
    return fragments;
}

Texts textsOf(const Json::Value& array) {
    Texts texts;
    texts.reserve(array.size());
    for (const Json::Value& entry : array) {
        texts.push_back(entry.asString());
    }
    return texts;
}

void appendTexts(const Texts& texts, Json::Value& document, const char* member) {
    for (const std::string& text : texts) {
        document[member].append(text);
    }
}

void Fragments::appendTo(Json::Value& arg) const {
    appendTexts(adapter, arg, "adapter");
    for (const Family& family : kFamilies) {
        if (!ip[family.index].empty()) {  // even reading the member would create it
            appendTexts(ip[family.index], arg["ip"], family.key);
        }
    }
    appendTexts(port, arg, "port");
    appendTexts(chain, arg, "chain");
    appendTexts(table, arg, "table");
    appendTexts(policy, arg, "policy");
}

// ---- Lines ----

void AdapterLines::append(const FWRULE& rule, const Fragments& fragments) {
    for (const std::string& table : fragments.table) {
        for (const std::string& chain : fragments.chain) {
            line_ = table;
            line_ += ' ';
            line_ += chain;
            for (const Family& family : kFamilies) {
                if (family.isOf(rule.ipType)) {
                    appendFamily(rule, fragments, family);
                }
            }
        }
    }
}

/// Each line starts like the previous one, so only what differs is replaced.
void AdapterLines::appendFamily(const FWRULE& rule, const Fragments& fragments,
                                const Family& family) {
    const std::size_t startEnd = line_.size();
    for (const std::string& interface : fragments.adapter) {
        for (const std::string& ip : fragments.ip[family.index]) {
            appendFragment(line_, interface);
            appendFragment(line_, ip);
            const std::size_t matchEnd = line_.size();
            for (const std::string& port : fragments.port) {
                if (port != family.otherFamilysIcmp) {
                    appendFragment(line_, port);
                    appendTargets(rule, fragments, linesOf(family));
                    line_.resize(matchEnd);
                }
            }
            line_.resize(startEnd);
        }
    }
}

void AdapterLines::appendTargets(const FWRULE& rule, const Fragments& fragments,
                                 Json::Value& lines) {
    const std::size_t matchEnd = line_.size();
    if (rule.blLog) {
        line_ += kLogTarget;
        appendLine(lines, line_);
        line_.resize(matchEnd);
    }
    line_ += ' ';
    if (!fragments.policy.empty()) {
        line_ += fragments.policy[0];
    }
    appendLine(lines, line_);
}

Json::Value& AdapterLines::linesOf(const Family& family) {
    Json::Value*& lines = lines_[family.index];
    if (lines == nullptr) {
        lines = &commands_[family.key][adapter_];
    }
    return *lines;
}

}  // namespace FW
