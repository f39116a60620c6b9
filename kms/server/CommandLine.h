// The command-line side of vrkms: the logged command line, the usage text and
// the way an operation's result becomes the text on the terminal and the exit
// status of the process. Main thread only.
#pragma once

namespace Vaultrest {
namespace DL {
namespace KMS {

// Exit status of every result that does not fit in one byte.
constexpr int kExitStatusOverflow = 252;

// Logs "Command Line Args: " and the arguments at debug level 1, with the
// value after "-hmkpass" or "-kpkpass" (exact word, case ignored) replaced by
// "******". `argv` is rearranged: pass a copy of argc + 1 pointers.
void logCommand(int argc, char** argv);

// Writes the usage text to the standard error stream.
void printKmsUsage();

// Writes the text of `status` (message 83 for success, else the long text of
// the code) and "EXIT STATUS = <status>" to the standard error stream, and
// gives the exit status: `status`, or 252 when it does not fit in 0..255
// (negative values included). A catalogue failure only changes the text.
int kmsStatus(int status);

// Logs "Exiting with Status: " and ends the process with `status`.
[[noreturn]] void kmsExit(int status);

// Writes message 94 (how to register the service) to the standard output.
void kmsPromptCheckMessage();

// Writes a newline, message `messageId` of this program and a line end to the
// standard error stream: the advice after a successful change.
void printOperationAdvice(int messageId);

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
