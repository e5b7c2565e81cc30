#include "tarnfwadmin/documentFile.h"

#include <errno.h>
#include <stdio.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>

#include <boost/algorithm/string/predicate.hpp>

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

std::string placeOf(std::size_t line, std::size_t column) {
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

/// The place of a byte; columns are counted in characters.
std::string placeAt(const std::string& text, std::size_t offset) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, text.size()));
    const auto line = std::count(text.begin(), end, '\n') + 1;
    const auto start = std::find(std::make_reverse_iterator(end), text.rend(), '\n').base();
    const auto column = std::count_if(start, end, [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0U) != 0x80U;  // no later byte of a character
    });
    return placeOf(static_cast<std::size_t>(line), static_cast<std::size_t>(column) + 1);
}

/// The reader's words without the full stop at their end.
std::string unstopped(std::string words) {
    if (!words.empty() && words.back() == '.') {
        words.pop_back();
    }
    return words;
}

std::string leniencyText(const std::string& words) {
    if (boost::starts_with(words, "Duplicate key: ")) {
        const std::string name = words.substr(words.find('\'') + 1);
        return "the member " + inQuotes(name.substr(0, name.rfind('\''))) +
               " stands twice; the last one counts";
    }
    if (boost::starts_with(words, "Extra non-whitespace")) {
        return "what follows the document is not read";
    }
    return unstopped(words);
}

/// What a strict reader has to say about a text that the library reads. It tells in lines: a place,
/// "* Line 3, Column 7", and behind it words, indented.
std::vector<Finding> leniencies(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["rejectDupKeys"] = true;
    builder["failIfExtra"] = true;
    builder["allowTrailingCommas"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value ignored;
    std::string told;
    Findings findings;
    if (reader->parse(text.data(), text.data() + text.size(), &ignored, &told)) {
        return {};
    }
    std::istringstream lines(told);
    std::string where;
    for (std::string line; std::getline(lines, line);) {
        unsigned row = 0;
        unsigned column = 0;
        // NOLINTNEXTLINE(cert-err34-c): two small numbers that the reader itself has written
        if (std::sscanf(line.c_str(), "* Line %u, Column %u", &row, &column) == 2) {
            where = placeOf(row, column);
        } else if (boost::starts_with(line, "  ") && !where.empty()) {
            findings.warning(where, leniencyText(line.substr(2)));
            break;  // the reader goes on somewhere, and takes what it finds there for faults
        }
    }
    return findings.take();
}

}  // namespace

std::string readText(const std::string& path) {
    std::ostringstream text;
    errno = 0;
    if (path == kStandardInput) {
        text << std::cin.rdbuf();
    } else {
        std::ifstream file(path, std::ios::binary);
        if (file) {
            text << file.rdbuf();
        }
        // An empty file fails to give anything, too, but without an error.
        if (!file.is_open() || errno != 0) {
            throw Error(ErrorKind::kSystem,
                        "cannot read " + printable(path) + ": " + std::strerror(errno));
        }
    }
    return text.str();
}

bool readDocument(const std::string& path, Json::Value& document) {
    try {
        return Json::Reader().parse(readText(path), document, /*collectComments=*/false);
    } catch (const Error&) {
        return false;
    } catch (const Json::Exception&) {  // nested too deeply
        return false;
    }
}

std::vector<Finding> parseDocument(const std::string& text, Json::Value& document) {
    Json::Reader reader;  // the one that the library's store uses
    Findings findings;
    try {
        if (reader.parse(text, document, /*collectComments=*/false)) {
            return leniencies(text);
        }
        for (const Json::Reader::StructuredError& error : reader.getStructuredErrors()) {
            findings.error(placeAt(text, static_cast<std::size_t>(error.offset_start)),
                           unstopped(error.message));
        }
    } catch (const Json::Exception& error) {  // nested too deeply
        findings.error("", unstopped(error.what()));
    }
    return findings.take();
}

}  // namespace tarnfw
