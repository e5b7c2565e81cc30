#include "report/pageText.h"

#include "tarnfwadmin/text.h"

namespace tarnfw {

std::string html(const std::string& text) {
    std::string escaped;
    for (const char c : printable(text)) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&#39;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

std::string html(const Json::Value& text) {
    return html(text.asString());
}

std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

std::string leftOut(const std::string& what) {
    return "<p class=\"note left-out\">Left out of this page: " + what +
           ". “tarnfw report --json” has them.</p>\n";
}

}  // namespace tarnfw
