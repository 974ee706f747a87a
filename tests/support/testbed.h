#pragma once

#include "simulatedterminal.h"
#include "tool.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <filesystem>

// Serial ports that the system seems to have: umockdev stands between the program under test and the system.

/// A serial port as the system describes it.
struct FakedPort {
    int number;          ///< 0 to 9, the last digit of its name
    const char *place;   ///< place on the bus, which decides when it is discovered
    const char *vendor;  ///< USB identifiers in hexadecimal; null: not a USB port
    const char *product; ///< both or none
};

/// The name of the port of that number, another one in every process: tests that run side by side would lock each
/// other's ports.
QString portName(int number);

/// A port of the kind that a terminal has.
FakedPort terminalPort(int number, const char *place);

/// A system with nothing but the given ports, for as many runs as wanted.
class Testbed {
public:
    explicit Testbed(const QList<FakedPort> &ports = {});
    ~Testbed();

    Testbed(const Testbed &) = delete;
    Testbed &operator=(const Testbed &) = delete;

    /// Connects the terminal to the port of that number, for the runs to come.
    void connect(int number, const SimulatedTerminal &terminal);

    /// Starts the tool, or what else is to run with these ports.
    Tool start(const QStringList &arguments = {}, const QStringList &environment = {},
        const QString &program = Tool::path()) const;

    /// Takes the port of that number off the system's list of the run that is under way, and puts it back.
    void withdraw(int number) const;
    void restore(int number) const;

    /// A path for a file of the test.
    QString path(const QString &name) const { return _directory.filePath(name); }

private:
    QString descriptionPath() const { return path(QStringLiteral("ports.umockdev")); }
    QStringList surroundings() const;
    std::filesystem::path system() const;
    std::filesystem::path listed(int number) const;
    std::filesystem::path withdrawn(int number) const;

    const QList<FakedPort> _ports;
    const QTemporaryDir _directory;
    QStringList _connections;
};
