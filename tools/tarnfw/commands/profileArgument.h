/// A profile that a command only reads: a stored one, or one in a file.
#pragma once

#include <string>

#include "tarnfirewall/fwTypes.h"

#include "commands/applying.h"

namespace tarnfw {

/// What an argument names.
struct NamedProfile {
    std::string name;       ///< of a file its path, "-" for standard input
    std::string title;      ///< "profile "home"", "./home.json", "standard input"; printable
    bool isStored = false;  ///< else it is a file
    FW::FWPROFILE profile;  ///< of a file what the store would make of it
};

/// Whether a document in a file has to have a name.
enum class DocumentName { kRequired, kNotRead };

/// `what` is a stored profile, a file, or "-" for standard input; empty for the active profile.
/// Throws Error when there is none; and for an invalid file kInvalid, with its findings as warnings
/// and `consequence` in its text: "it was not compared".
NamedProfile namedProfile(const std::string& what, DocumentName documentName,
                          const char* consequence, Context& context);

}  // namespace tarnfw
