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

/// Ends the command without storing what was typed.
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

/// One visit to the editor; nothing when the text is still `original`.
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

/// Stores the document in the place of the one that was `original`.
void store(Context& context, const ProfileDocument& document, const std::string& original) {
    const std::string& name = document.profile().name;
    if (!context.store().hasProfile(name)) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(name) + " cannot be read");
    }
    if (context.store().textOf(name) != original) {
        throw Error(ErrorKind::kSystem,
                    "profile " + inQuotes(name) + " was changed by somebody else meanwhile");
    }
    context.session().storeProfile(document.profile());
}

/// Visits to the editor until the document checks; nothing when the text is left as it was.
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
            keep(text, "profile " + inQuotes(name) + " does not check", ErrorKind::kInvalid);
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

/// Refuses to start an editor that would find no terminal. One that was chosen may need none.
void requireEditable() {
    if (isatty(STDIN_FILENO) != 1 && chosenEditor().empty()) {
        throw Error(
            ErrorKind::kNotFound,
            "there is no terminal to edit on; \"tarnfw profile create NEW --from FILE\" takes a "
            "document, and EDITOR names an editor that needs none");
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
        group.subcommand("edit", "Edit a profile's document; what does not check is not stored");
    const auto values = std::make_shared<Values>();
    command.option("NAME", values->name, "The profile; the active one when left out")
        .placeholder("");
    addReloadFlag(command, values->reload);
    command.footer("The editor is $VISUAL, $EDITOR, \"editor\" or \"vi\".");
    command.run([values] { edit(values->name, values->reload); });
}

}  // namespace tarnfw
