#include "cli/report.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <sstream>
#include <utility>

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>

#include "cli/command.h"
#include "cli/output.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

constexpr char kToolPrefix[] = "tarnfw: ";

void flushStreams() {
    std::cout << std::flush;
    std::cerr << std::flush;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        lines.push_back(boost::starts_with(line, kToolPrefix) ? line.substr(sizeof(kToolPrefix) - 1)
                                                              : line);
        lines.back() = printable(lines.back());
    }
    return lines;
}

const char* nameOf(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::kNotFound:
            return "notFound";
        case ErrorKind::kInvalid:
            return "invalid";
        case ErrorKind::kUnusable:
            return "unusable";
        case ErrorKind::kRefused:
            return "refused";
        case ErrorKind::kBusy:
            return "busy";
        case ErrorKind::kNoRights:
            return "noRights";
        case ErrorKind::kDeclined:
            return "declined";
        case ErrorKind::kSystem:
            break;
    }
    return "system";
}

/// Null where nothing is known of it.
Json::Value documentOf(const ErrorPlace& place) {
    if (place.file.empty() && place.path.empty() && !place.rule) {
        return {};
    }
    Json::Value document;
    document["file"] = textOrNull(place.file);
    document["path"] = textOrNull(place.path);
    document["adapter"] = place.rule ? Json::Value(place.rule->adapter) : Json::Value();
    if (place.rule && place.rule->position != 0) {
        document["position"] = static_cast<Json::UInt64>(place.rule->position);
    } else {
        document["position"] = Json::nullValue;
    }
    return document;
}

Json::Value errorDocument(const char* kind, const std::string& message, const Json::Value& place,
                          const std::string& remedy, const std::vector<std::string>& warnings) {
    Json::Value document;
    document["error"]["kind"] = kind;
    document["error"]["message"] = message;
    document["error"]["place"] = place;
    document["error"]["remedy"] = textOrNull(remedy);
    document["warnings"] = textsJson(warnings);
    return document;
}

}  // namespace

// ---- Output -------------------------------------------------------------------------------------

CapturedOutput::CapturedOutput(int fd)
    : fd_(fd), before_(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)), file_(memoryFile("output")) {
    flushStreams();
    // Appending: what reads the file does not move where others write.
    if (!before_ || fcntl(file_.get(), F_SETFL, O_APPEND) != 0 || dup2(file_.get(), fd_) < 0) {
        throw Error(ErrorKind::kSystem, "the output cannot be collected");
    }
}

CapturedOutput::~CapturedOutput() {
    flushStreams();
    (void)dup2(before_.get(), fd_);
    (void)writeText(fd_, take());
}

std::string CapturedOutput::take() {
    std::string text;
    (void)lseek(file_.get(), taken_, SEEK_SET);
    (void)readAll(file_.get(), text);
    taken_ += static_cast<off_t>(text.size());
    return text;
}

std::vector<std::string> CapturedOutput::takeLines() {
    flushStreams();
    return linesOf(take());
}

void CapturedOutput::writeThrough(const std::string& text) const {
    (void)writeText(before_.get(), text);
}

// ---- Reports ------------------------------------------------------------------------------------

Json::Value Report::document(const std::vector<std::string>& messages,
                             const std::vector<std::string>& warnings) const {
    Json::Value document = members_;
    document["changed"] = changed_;
    document["applied"] = applied_;
    document["profile"] = profile_;
    document["messages"] = textsJson(messages);
    document["warnings"] = textsJson(warnings);
    return document;
}

void Report::printNow() {
    if (output_ != nullptr) {
        output_->writeThrough(jsonText(document(output_->takeLines(), errors_->takeLines())));
    }
}

void runReporting(Command& command, Report& report, std::function<void()> action) {
    addJsonFlag(command, report.json_);
    command.run([&report, action = std::move(action)] {
        if (!report.json_) {
            action();
            return;
        }
        std::exception_ptr ended;
        Json::Value document;
        {
            CapturedOutput errors(STDERR_FILENO);
            CapturedOutput output(STDOUT_FILENO);
            report.output_ = &output;
            report.errors_ = &errors;
            try {
                action();
            } catch (const CommandEnded&) {
                ended = std::current_exception();
            } catch (...) {
                // What was said until then is no answer, and goes with the error.
                for (const std::string& line : output.takeLines()) {
                    std::cerr << line << '\n';
                }
                throw;
            }
            document = report.document(output.takeLines(), errors.takeLines());
        }
        printJson(document);
        if (ended) {
            std::rethrow_exception(ended);
        }
    });
}

bool asksForJson(const std::vector<std::string>& words) {
    const auto end = std::find(words.begin(), words.end(), "--");
    return std::find(words.begin(), end, "--json") != end;
}

// ---- Errors -------------------------------------------------------------------------------------

Json::Value errorDocument(const Error& error, const std::vector<std::string>& warnings) {
    return errorDocument(nameOf(error.kind()), error.what(), documentOf(error.place()),
                         remedyText(error.remedy()), warnings);
}

Json::Value errorDocument(const std::exception& error, const std::vector<std::string>& warnings) {
    return errorDocument(nameOf(ErrorKind::kSystem), reasonOf(error), {}, "", warnings);
}

Json::Value usageDocument(const std::string& text, const std::vector<std::string>& warnings) {
    std::vector<std::string> lines = linesOf(text);
    const std::string message = lines.empty() ? "" : lines.front();
    lines.erase(lines.begin(), lines.empty() ? lines.begin() : lines.begin() + 1);
    return errorDocument("usage", message, {}, boost::join(lines, " "), warnings);
}

}  // namespace tarnfw
