/// The editor of the person at the terminal.
#pragma once

#include <string>

namespace tarnfw {

/// A text in a file that nobody else can read, in a directory of its own. It stays on disk until
/// it is removed, so that typed text is not lost.
class PrivateText {
public:
    /// Writes `text` into a new file called `name`. Failures throw Error.
    PrivateText(const std::string& name, const std::string& text);

    const std::string& path() const { return path_; }

    /// The file's content. Throws Error if it cannot be read.
    std::string read() const;

    /// Removes the file and its directory, with anything that the editor has left there.
    void remove() const;

private:
    std::string directory_;
    std::string path_;
};

/// The command in $VISUAL or $EDITOR; empty when neither is set.
std::string chosenEditor();

/// Lets the person edit a file: with $VISUAL, $EDITOR, "editor" or "vi", the first that there is,
/// on this terminal. The editor gets Ctrl-C and Ctrl-\ meanwhile.
/// Returns an empty text, or the editor's error.
std::string runEditor(const std::string& path);

}  // namespace tarnfw
