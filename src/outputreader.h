#pragma once

/// What happens when the reader of standard output goes away, as `head` does when it has seen enough. On systems that
/// know SIGPIPE the next write then ends the process, unless that signal is ignored; on the others it fails.
namespace output_reader {

/// Ignores SIGPIPE: a transfer must finish also when nobody reads what the process prints.
void ignoreBrokenPipe();

/// Lets SIGPIPE end the process, at the next write if the reader has left already, and forgets earlier failures.
void endOnBrokenPipe();

/// Whether nobody gets what is printed: something could not be written, since endOnBrokenPipe() if that was called. A
/// disk that is full counts as a reader that has left.
[[nodiscard]] bool hasLeft();

} // namespace output_reader
