/// The lines of the log that wait until a command has said what it has to say: a failure begins
/// with its cause.
#pragma once

#include <string>

namespace tarnfw {

/// From now on, lines of the log go to the system log at once and to standard error with
/// printHeldLog(). Without this call they go there at once, as openlog() had it.
void holdLog();

/// For a new process, whose standard error is another one: what it inherited is dropped, and its
/// own lines are printed at once. The lines begin with the process number `withNumber`.
void printLogAtOnce(bool withNumber);

/// Whether lines wait.
bool isLogHeld();

/// Writes an error to the system log alone: the command says it itself.
void logUnprinted(const std::string& text);

/// Adds a text of whole lines; lines that wait already are not added again. Prints the text when
/// nothing waits.
void printAfterwards(const std::string& lines);

/// Prints what waits.
void printHeldLog();

}  // namespace tarnfw
