#pragma once

#include "faults.h"
#include "terminal.h"
#include "value.h"

#include <QString>
#include <QStringList>

#include <chrono>

/// What the command line asks for.
struct Options {
    enum class Action { Run, ShowHelp, ShowVersion };

    Action action = Action::Run;
    QString help; ///< the text to show for Action::ShowHelp

    QString link;                                 ///< path of the symbolic link that names the port
    QString record;                               ///< path of the record file; empty: no record
    bool until_eof = false;                       ///< end when standard input ends
    std::chrono::milliseconds restart_time{1500}; ///< from dropping off the bus to coming back
    bool returns = true;                          ///< whether the terminal comes back at all
    TerminalSettings terminal;
    FaultSettings faults;
};

/// Reads the command line, program name first. Throws UsageError.
Options parseOptions(const QStringList &arguments);
