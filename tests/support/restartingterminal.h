#pragma once

#include "run.h"
#include "simulatedterminal.h"
#include "tool.h"

/// A terminal that restarts, and what the tool says to it when it writes and applies a local file of nine bytes.
class RestartingTerminal : public SimulatedTerminal {
public:
    /// \param options those of the simulated terminal, a line of words
    explicit RestartingTerminal(const char *options = "");

    /// The path of the local file.
    QString local() const { return path(QStringLiteral("local.bin")); }

    /// Starts the tool, which is told to write and apply the file as \a kind, a key.
    Tool start(const char *kind) const;

    /// What the tool prints up to the answer to the apply.
    QByteArray applying(const char *kind) const;

    /// What the tool prints until it waits for the terminal.
    QByteArray applied(const char *kind) const;

    /// A whole run that waits for the terminal once, and finds it.
    Run restarts(const char *kind) const;
};
