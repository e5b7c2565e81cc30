/// The errors of this library.
#pragma once

#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/place.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The kind of an error.
enum class ErrorKind {
    kSystem,    ///< the operating system or the library failed, or the base filter is missing; the
                ///< reason is in the text or log
    kNotFound,  ///< a profile, rule, adapter, service or country that does not exist
    kInvalid,   ///< an argument, a document, a profile or a rule that is not valid
    kUnusable,  ///< what is asked cannot be done with this name, rule, profile or file: it is
                ///< taken, reserved, active or of the wrong sort
    kRefused,   ///< the rules could not be applied
    kBusy,      ///< another program holds a lock, or a trial is running
    kNoRights,  ///< this process lacks the rights
    kDeclined,  ///< a person answered no, or nobody could be asked
};

/// What may help after an error. A program that shows the error puts it in its own words; what()
/// does not contain it.
enum class Remedy {
    kNone,
    kListServices,      ///< list the services that exist
    kCheckFiles,        ///< check the files that cannot be read
    kSetUpBase,         ///< set up the base, which writes a first profile
    kAddBase,           ///< set up the base, whose chains or jumps are missing
    kGiveAdapterApart,  ///< give the adapter beside the rule's words, not as one of them
    kAgree,             ///< agree beforehand to what would be asked
    kForceUndo,         ///< undo what another program has written as well
};

/// The place of the error, as far as known.
struct ErrorPlace {
    std::string file;               ///< path of a document; empty: none
    std::string path;               ///< in the document: "rules.eth0[3].portList"; empty: all of it
    std::optional<RulePlace> rule;  ///< of the rule, where it is one
};

/// A failed operation. what() is one line for a person: the failure and its cause, without a
/// program's name before it. Documents and the kernel are as they were unless the operation says
/// otherwise.
class Error : public std::runtime_error {
public:
    Error(ErrorKind kind, const std::string& text, ErrorPlace place = {},
          Remedy remedy = Remedy::kNone)
        : std::runtime_error(text), kind_(kind), place_(std::move(place)), remedy_(remedy) {}

    ErrorKind kind() const { return kind_; }
    const ErrorPlace& place() const { return place_; }
    Remedy remedy() const { return remedy_; }

private:
    ErrorKind kind_;
    ErrorPlace place_;
    Remedy remedy_;
};

/// The reason in one line. Also for what the firewall library throws when it cannot open
/// a lock file, and for any other exception.
std::string reasonOf(const std::exception& error);

}  // namespace tarnfw
