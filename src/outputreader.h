#pragma once

/// Whoever reads the process's standard output through a pipe, and may leave before the process ends. On systems that
/// know SIGPIPE, writing then ends the process; elsewhere there is nothing to do.
namespace output_reader {

/// From now on the process goes on unread: a transfer is not to be cut short.
void outlive();

/// From now on the process ends at the next write that nobody reads, also when the reader has left already.
void endWith();

} // namespace output_reader
