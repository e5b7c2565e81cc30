#include "serviceCatalogue.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <json/json.h>

#include "fwPrintable.h"

namespace host {

namespace {

// Array, service, side, ports: four levels, and a few more for members that are ignored.
constexpr int kMostLevels = 16;

// A text field of the record has 256 bytes, including the terminating zero.
constexpr std::size_t kMostTextBytes = 255;

constexpr unsigned kMostPort = 65535;

constexpr int kIcmp = 4;
constexpr int kIgmp = 32;

struct ProtocolName {
    const char* name;
    int code;
};
constexpr ProtocolName kProtocols[] = {
    {"tcp", 1}, {"udp", 2}, {"tcp/udp", 3}, {"icmp", kIcmp}, {"igmp", kIgmp},
};

// Each of the following returns false and a reason for an invalid value.

bool readText(const Json::Value& value, const char* member, std::string& text,
              std::string& reason) {
    if (!value.isString()) {
        reason = std::string("\"") + member + "\" is no text";
        return false;
    }
    text = value.asString();
    if (text.size() > kMostTextBytes) {
        reason = std::string("\"") + member + "\" is longer than 255 bytes";
        return false;
    }
    // A control character would break log lines and key/value files, and a NUL the record.
    if (std::any_of(text.begin(), text.end(),
                    [](unsigned char c) { return c < ' ' || c == 0x7f; })) {
        reason = std::string("\"") + member + "\" holds a control character";
        return false;
    }
    return true;
}

bool readProtocol(const Json::Value& value, int& code, std::string& reason) {
    for (const ProtocolName& protocol : kProtocols) {
        if ((value.isString() && value.asString() == protocol.name) ||
            (value.isInt() && value.asInt() == protocol.code)) {
            code = protocol.code;
            return true;
        }
    }
    reason = value.isNull() ? "\"protocol\" is missing" : "unknown \"protocol\"";
    return false;
}

bool readNumber(const std::string& digits, unsigned& port) {
    if (digits.empty() || digits.size() > 5 ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return false;
    }
    port = static_cast<unsigned>(std::stoul(digits));
    return port <= kMostPort;
}

bool readPort(const Json::Value& value, std::string& port, std::string& reason) {
    if (value.isUInt() && value.asUInt() <= kMostPort) {
        port = std::to_string(value.asUInt());
        return true;
    }
    const std::string text = value.isString() ? value.asString() : std::string();
    const std::size_t dash = text.find('-');
    unsigned first = 0;
    unsigned last = 0;
    if (dash == std::string::npos) {
        if (readNumber(text, first)) {
            port = std::to_string(first);
            return true;
        }
    } else if (readNumber(text.substr(0, dash), first) && readNumber(text.substr(dash + 1), last) &&
               first <= last) {
        port = std::to_string(first) + "-" + std::to_string(last);
        return true;
    }
    reason = value.isString() ? "no port or range of ports: \"" + text + "\""
                              : std::string("a port is neither a text nor a number up to 65535");
    return false;
}

bool readSide(const Json::Value& entry, const char* member, ServiceSide& side,
              std::string& reason) {
    const Json::Value& value = entry[member];
    if (value.isNull()) {
        return true;
    }
    bool good = value.isObject();
    if (!good) {
        reason = "it is no object";
    }
    good = good && readProtocol(value["protocol"], side.protocol, reason);
    if (good) {
        const Json::Value& ports = value["ports"];
        const bool portless = side.protocol == kIcmp || side.protocol == kIgmp;
        if (ports.isNull() && portless) {
            side.ports.emplace_back("0");
        } else if (!ports.isArray()) {
            reason = ports.isNull() ? "\"ports\" is missing" : "\"ports\" is no array";
            good = false;
        } else {
            for (const Json::Value& port : ports) {
                side.ports.emplace_back();
                good = good && readPort(port, side.ports.back(), reason);
            }
        }
    }
    if (!good) {
        reason = std::string("\"") + member + "\": " + reason;
    }
    return good;
}

bool readService(const Json::Value& entry, std::string& name, Service& service,
                 std::string& reason) {
    if (!entry.isObject()) {
        reason = "it is no object";
        return false;
    }
    if (!readText(entry["name"], "name", name, reason)) {
        return false;
    }
    if (name.empty()) {
        reason = "\"name\" is empty";
        return false;
    }
    if (!entry["title"].isNull() && !readText(entry["title"], "title", service.title, reason)) {
        return false;
    }
    return readSide(entry, "dst", service.dst, reason) &&
           readSide(entry, "src", service.src, reason);
}

// The reader's message has several indented lines; a log message has one.
std::string onOneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    text.erase(
        std::unique(text.begin(), text.end(), [](char a, char b) { return a == ' ' && b == ' '; }),
        text.end());
    while (!text.empty() && text.back() == ' ') {
        text.pop_back();
    }
    return text;
}

bool parse(const std::string& document, Json::Value& root, std::string& reason) {
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kMostLevels;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    try {
        if (!reader->parse(document.data(), document.data() + document.size(), &root, &reason)) {
            reason = onOneLine(reason);
            return false;
        }
    } catch (const Json::Exception& exception) {  // too deeply nested
        reason = onOneLine(exception.what());
        return false;
    }
    return true;
}

}  // namespace

bool readServices(const std::string& document, Services& services,
                  const std::function<void(const std::string&)>& say) {
    // Texts of the document are in the lines, and a NUL would cut them.
    const auto report = [&say](std::string line) {
        FW::makePrintable(line);
        say(line);
    };
    Json::Value root;
    std::string reason;
    if (!parse(document, root, reason)) {
        report("not read: " + reason);
        return false;
    }
    if (!root.isArray() && !root.isObject()) {
        report("not read: it is neither a service nor an array of services");
        return false;
    }
    bool whole = true;
    const Json::ArrayIndex count = root.isArray() ? root.size() : 1;
    for (Json::ArrayIndex i = 0; i < count; ++i) {
        std::string name;
        Service service;
        if (readService(root.isArray() ? root[i] : root, name, service, reason)) {
            services[name] = std::move(service);
        } else {
            whole = false;
            std::string text = "service " + std::to_string(i + 1);
            if (!name.empty()) {
                text.append(" (").append(name).append(")");
            }
            report(text.append(" is invalid: ").append(reason));
        }
    }
    return whole;
}

}  // namespace host
