/// tarnfw profile edit: a profile's document in the person's editor.
#include <unistd.h>

#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/profileCommands.h"
#include "process/editor.h"
#include "tarnfwadmin/profileDocument.h"

namespace tarnfw {
namespace {

/// Ends the command without storing the text.
[[noreturn]] void keep(const PrivateText& text, const std::string& why, ErrorKind kind) {
    throw Error(kind, why + "; nothing was stored, the text is kept in " + text.path());
}

bool editAgain(const PrivateText& text) {
    if (isatty(STDIN_FILENO) != 1) {
        return false;
    }
    std::cerr << "The text is in " << text.path() << ". Edit again? [Y/n] " << std::flush;
    std::string answer;
    return std::getline(std::cin, answer) &&
           (answer.empty() || answer[0] == 'y' || answer[0] == 'Y');
}

/// Edits the text once; nothing if it is still `original`.
std::optional<ProfileDocument> edited(const PrivateText& text, const std::string& original,
                                      const std::string& name) {
    const std::string failure = runEditor(text.path());
    const bool changed = text.read() != original;
    if (!failure.empty() && changed) {
        keep(text, failure, ErrorKind::kSystem);
    }
    if (!failure.empty()) {
        text.remove();
        throw Error(ErrorKind::kSystem, failure + "; nothing was changed");
    }
    if (!changed) {
        return std::nullopt;
    }
    ProfileDocument document(text.read());
    document.requireName(name);
    return document;
}

/// Replaces the document, if it is still `original`.
void store(Context& context, const ProfileDocument& document, const std::string& original) {
    const std::string& name = document.profile().name;
    if (!context.store().hasProfile(name)) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(name) + " cannot be read");
    }
    if (context.store().textOf(name) != original) {
        throw Error(ErrorKind::kSystem,
                    "profile " + inQuotes(name) + " was changed by another program meanwhile");
    }
    context.session().storeProfile(document.profile());
}

/// Edits until the document is valid; nothing if the text was not changed.
std::optional<ProfileDocument> validDocument(const PrivateText& text, const std::string& original,
                                             const std::string& name) {
    for (;;) {
        std::optional<ProfileDocument> document = edited(text, original, name);
        if (!document) {
            return std::nullopt;
        }
        const bool valid = document->check();
        warn(name, document->findings());
        if (valid) {
            return document;
        }
        if (!editAgain(text)) {
            keep(text, "profile " + inQuotes(name) + " is invalid", ErrorKind::kInvalid);
        }
    }
}

/// The store, with the document in it.
std::unique_ptr<Context> stored(const ProfileDocument& document, const std::string& original,
                                const ReloadOptions& reload, const PrivateText& text) {
    try {
        auto context = std::make_unique<Context>(StoreSession::Access::kChange);
        requireAppliable(*context, document.profile(), reload);
        store(*context, document, original);
        context->session().unlock();
        return context;
    } catch (const Error& failure) {
        keep(text, failure.what(), failure.kind());
    }
}

/// Throws Error for a default editor without a terminal. A chosen editor may need none.
void requireEditable() {
    if (isatty(STDIN_FILENO) != 1 && chosenEditor().empty()) {
        throw Error(ErrorKind::kNotFound,
                    "there is no terminal to edit on; use \"tarnfw profile create NEW --from "
                    "FILE\", or an EDITOR that needs no terminal");
    }
}

void edit(const std::string& wanted, const ReloadOptions& reload) {
    std::string name;
    std::string original;
    {
        Context context(StoreSession::Access::kRead);
        requireReloadable(context, reload);
        name = wanted.empty() ? context.store().activeProfile() : wanted;
        context.store().requireProfile(name);
        requireEditable();
        original = context.store().textOf(name);
    }
    const PrivateText text("profile.json", original);
    const std::optional<ProfileDocument> document = validDocument(text, original, name);
    if (!document) {
        text.remove();
        std::cout << "Profile " << inQuotes(name) << " is unchanged\n";
        return;
    }
    const std::unique_ptr<Context> context = stored(*document, original, reload, text);
    text.remove();
    std::cout << "Profile " << inQuotes(name) << " stored\n";
    finishChange(*context, name, reload);
}

}  // namespace

void addProfileEditCommand(Command& group) {
    struct Values {
        std::string name;
        ReloadOptions reload;
    };
    Command& command =
        group.subcommand("edit", "Edit a profile's document; an invalid document is not stored");
    const auto values = std::make_shared<Values>();
    command.option("NAME", values->name, "The profile; by default the active one").placeholder("");
    addReloadFlag(command, values->reload);
    command.footer("The editor is $VISUAL, $EDITOR, \"editor\" or \"vi\".");
    command.run([values] { edit(values->name, values->reload); });
}

}  // namespace tarnfw
