/// How operations of this library fail.
#pragma once

#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "tarnfwadmin/place.h"

namespace tarnfw {

/// What kind of failure it is: what a program decides by, and how it ends.
enum class ErrorKind {
    kSystem,    ///< the operating system refused, or the library; its reason is in the text or log
    kNotFound,  ///< a profile, rule, adapter, service or country that is not there
    kInvalid,   ///< a document or rule that is not valid
    kUnusable,  ///< a name that cannot be used for this: taken, reserved or not possible
    kRefused,   ///< the kernel did not take the rules
    kBusy,      ///< somebody else holds a lock, or a trial is running
    kNoRights,  ///< this process lacks the rights
};

/// Where it failed, as far as that is known.
struct ErrorPlace {
    std::string file;               ///< path of a document; empty: none
    std::string path;               ///< in the document: "rules.eth0[3].portList"; empty: all of it
    std::optional<RulePlace> rule;  ///< of the rule, where it is one
};

/// A failed operation. what() is one line for a person: what failed and why, without a program's
/// name before it. Documents and the kernel are as they were unless the operation says otherwise.
class Error : public std::runtime_error {
public:
    Error(ErrorKind kind, const std::string& text, ErrorPlace place = {})
        : std::runtime_error(text), kind_(kind), place_(std::move(place)) {}

    ErrorKind kind() const { return kind_; }
    const ErrorPlace& place() const { return place_; }

private:
    ErrorKind kind_;
    ErrorPlace place_;
};

/// Why something failed, in one line. Also for what the firewall library throws when it cannot open
/// a lock file, and for any other exception.
std::string reasonOf(const std::exception& error);

}  // namespace tarnfw
