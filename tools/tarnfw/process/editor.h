/// The editor of the person at the terminal.
#pragma once

#include <string>

namespace tarnfw {

/// A text in a file that nobody else can read, in a directory of its own. It stays on disk unless
/// it is removed: what somebody has typed is not lost with the tool.
class PrivateText {
public:
    /// Writes `text` into a new file called `name`. Failures throw Error.
    PrivateText(const std::string& name, const std::string& text);

    const std::string& path() const { return path_; }

    /// What the file holds now. Throws Error when it cannot be read.
    std::string read() const;

    /// Removes the file and its directory, with whatever the editor has left beside it.
    void remove() const;

private:
    std::string directory_;
    std::string path_;
};

/// The command in $VISUAL or $EDITOR; empty when neither is set.
std::string chosenEditor();

/// Lets the person edit a file: with $VISUAL, $EDITOR, "editor" or "vi", the first that there is,
/// on this terminal. Ctrl-C and Ctrl-\ are the editor's meanwhile.
/// Returns an empty text, or why the editor did not end as it should.
std::string runEditor(const std::string& path);

}  // namespace tarnfw
