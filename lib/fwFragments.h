/// The fragments of a rule's lines, and the lines that they make. The same content as an argument
/// document, in plain lists: building a document for every rule takes far longer than the
/// translation itself.
#pragma once

#include <json/json.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "fwText.h"

namespace FW {

// Both spellings of one protocol: a line uses that of its family.
inline constexpr char kIcmpV4[] = "-p icmp ";
inline constexpr char kIcmpV6[] = "-p icmpv6 ";

/// One address family.
struct Family {
    const char* key;  // in both documents
    std::size_t index;
    std::int32_t ipType;           // of a rule for this family only
    const char* otherFamilysIcmp;  // a fragment that is left out for this family

    bool ipv6() const { return index != 0; }

    /// Whether a rule with that `ipType` is for this family.
    bool isOf(std::int32_t type) const;
};

extern const std::array<Family, 2> kFamilies;  // IPv4 first

/// The alternative fragments of one rule, by kind; each combination becomes a line.
struct Fragments {
    Texts adapter;
    std::array<Texts, 2> ip;  ///< by Family::index
    Texts port;
    Texts chain;
    Texts table;
    Texts policy;

    void clear();

    /// Reads an argument document; of its addresses only those of the families of `ipType`.
    static Fragments of(const Json::Value& arg, std::int32_t ipType);

    /// Appends to an argument document.
    void appendTo(Json::Value& arg) const;
};

/// The texts of an array of a document.
Texts textsOf(const Json::Value& array);

/// Appends texts to an array of a document; without any texts the member is not created.
void appendTexts(const Texts& texts, Json::Value& document, const char* member);

/// Where the lines of one adapter go in a command document. A member is created with its first
/// line.
class AdapterLines {
public:
    AdapterLines(Json::Value& commands, const std::string& adapter)
        : commands_(commands), adapter_(adapter) {}

    /// Appends one line for each combination of the fragments, preceded by its " -j LOG" copy
    /// when `rule` logs.
    void append(const FWRULE& rule, const Fragments& fragments);

private:
    void appendFamily(const FWRULE& rule, const Fragments& fragments, const Family& family);
    void appendTargets(const FWRULE& rule, const Fragments& fragments, Json::Value& lines);
    Json::Value& linesOf(const Family& family);

    Json::Value& commands_;
    const std::string& adapter_;
    std::array<Json::Value*, 2> lines_{};  // by Family::index
    std::string line_;                     // reused for all lines, to allocate once
};

}  // namespace FW
