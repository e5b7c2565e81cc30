/// What the tests of the translation share: its two documents as lists of texts, and a second
/// evaluation of port lists.
#pragma once

#include <json/json.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

using Texts = std::vector<std::string>;

/// The texts of an array, none for null. Anything else shows as one text that matches no line.
inline Texts texts(const Json::Value& array) {
    if (!array.isNull() && !array.isArray()) {
        return {"not an array: " + array.toStyledString()};
    }
    Texts found;
    for (const Json::Value& entry : array) {
        found.push_back(entry.isString() ? entry.asString()
                                         : "not a text: " + entry.toStyledString());
    }
    return found;
}

/// An argument document without fragments, made without the library.
inline Json::Value emptyArgument() {
    Json::Value arg(Json::objectValue);
    for (const char* key : {"adapter", "port", "chain", "table", "policy"}) {
        arg[key] = Json::Value(Json::arrayValue);
    }
    arg["ip"]["v4"] = Json::Value(Json::arrayValue);
    arg["ip"]["v6"] = Json::Value(Json::arrayValue);
    return arg;
}

/// The lines of an adapter in a command document.
inline Texts linesOf(const Json::Value& commands, const std::string& family,
                     const std::string& adapter) {
    return texts(commands[family][adapter]);
}

inline Texts operator+(Texts first, const Texts& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

inline std::string joined(const Texts& words, const std::string& separator) {
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i) {
        text += (i == 0 ? "" : separator) + words[i];
    }
    return text;
}

/// The fragments of a port list computed differently from the library: from the list of
/// port texts as it ends up on the command line, cut into sevens.
inline Texts expectedFragments(std::int32_t protocol, std::int32_t direction, const Texts& ports) {
    if (protocol == 4) {
        return {"-p icmp ", "-p icmpv6 "};
    }
    if (protocol == 32) {
        return {"-p igmp "};
    }
    const std::string side = direction == 0 ? "dport" : "sport";
    bool single = ports.size() == 1;
    Texts written;
    for (const std::string& port : ports) {
        const std::size_t dashes =
            static_cast<std::size_t>(std::count(port.begin(), port.end(), '-'));
        single = single && dashes == 0;
        // Equal ends: an odd length with the only dash in the middle of two like halves.
        const std::size_t half = port.size() / 2;
        if (dashes == 1 && port.size() % 2 == 1 && port[half] == '-' &&
            port.compare(0, half, port, half + 1, half) == 0) {
            written.push_back(port.substr(0, half));
        } else {
            std::string colons;
            for (const char character : port) {
                colons += character == '-' ? ':' : character;
            }
            written.push_back(colons);
        }
    }
    Texts fragments;
    for (const auto& [bit, name] : {std::pair(1, "tcp"), std::pair(2, "udp")}) {
        if (protocol < 1 || protocol > 3 || (protocol & bit) == 0) {
            continue;
        }
        for (std::size_t begin = 0; begin < written.size(); begin += 7) {
            const auto first = written.begin() + static_cast<std::ptrdiff_t>(begin);
            const auto count = std::min<std::size_t>(7, written.size() - begin);
            const Texts group(first, first + static_cast<std::ptrdiff_t>(count));
            fragments.push_back("-p " + std::string(name) +
                                (single ? " --" + side + " " : " -m multiport --" + side + "s ") +
                                joined(group, ","));
        }
    }
    return fragments;
}
