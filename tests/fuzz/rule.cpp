// The words of a rule: what is read is printed in words that are read as the same rule.
// The first byte of an input gives the options.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "property.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/ruleSyntax.h"
#include "tarnfwadmin/ruleText.h"

namespace {

tarnfw::RuleVocabulary vocabulary() {
    tarnfw::RuleVocabulary words;
    words.services = {{"ssh", FW::FW_PORT_PROTOCOL_TCP},
                      {"dns", FW::FW_PORT_PROTOCOL_TCP_UDP},
                      {"ping", FW::FW_PORT_PROTOCOL_ICMP}};
    words.countriesV4 = {"DE", "US"};
    words.countriesV6 = {"DE"};
    return words;
}

std::vector<std::string> wordsOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

tarnfw::RuleOptions optionsFrom(unsigned bits) {
    tarnfw::RuleOptions options;
    options.v4 = (bits & 3U) == 1;
    options.v6 = (bits & 3U) == 2;
    options.sourcePort = (bits & 4U) != 0;
    options.out = (bits & 8U) != 0;
    options.log = (bits & 16U) != 0;
    options.disabled = (bits & 32U) != 0;
    return options;
}

bool same(const FW::FWRULE& a, const FW::FWRULE& b) {
    return a.enable == b.enable && a.adapterDirect == b.adapterDirect && a.policy == b.policy &&
           a.blLog == b.blLog && a.table == b.table && a.chainList == b.chainList &&
           a.ipType == b.ipType && a.ipDirect == b.ipDirect && a.ipGroup == b.ipGroup &&
           a.ipList == b.ipList && a.portDirect == b.portDirect && a.portGroup == b.portGroup &&
           a.protocol == b.protocol && a.portList == b.portList && a.name == b.name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const tarnfw::RuleVocabulary kVocabulary = vocabulary();
    if (size == 0) {
        return 0;
    }
    const tarnfw::RuleOptions options = optionsFrom(data[0]);
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    FW::FWRULE rule;
    try {
        rule = tarnfw::ruleFrom(wordsOf(text), options, kVocabulary);
    } catch (const tarnfw::Error&) {
        return 0;
    }
    for (const auto* list : {&rule.ipList, &rule.portList}) {
        for (const std::string& entry : *list) {
            require(entry.find_first_of(std::string("\0 \n", 3)) == std::string::npos,
                    "no blank and no NUL in an entry", entry);
        }
    }
    const std::string spelled = tarnfw::ruleText(rule);
    try {
        require(same(tarnfw::ruleFrom({spelled}, {}, kVocabulary), rule), "the same rule again",
                text + " -> " + spelled);
    } catch (const tarnfw::Error& error) {
        require(false, "a rule's words can be read", text + " -> " + spelled + ": " + error.what());
    }
    return 0;
}
