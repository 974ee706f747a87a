#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

/// The request for the log mask that the tool sets unless it is told another one, as requests() lists it.
inline const QByteArray log_mask_request = "2a214c4f4700400000";

/// The simulated terminal as a process of its own, on a port of its own. A terminal that goes out of scope fails the
/// test if it has complained about what the tool said, unless the test has asked for the complaints before.
class SimulatedTerminal {
public:
    /// Starts the terminal with \a options, and waits until it is plugged in.
    explicit SimulatedTerminal(const QStringList &options = {});

    ~SimulatedTerminal();

    SimulatedTerminal(const SimulatedTerminal &) = delete;
    SimulatedTerminal &operator=(const SimulatedTerminal &) = delete;

    /// The port to name to the tool.
    QString port() const { return _directory.filePath(QStringLiteral("terminal")); }

    bool isPlugged() const;

    /// A path for a file of the test.
    QString path(const QString &name) const { return _directory.filePath(name); }

    /// The packets that the terminal received and the events of its bus ("# ..."), in order, in hexadecimal.
    QByteArrayList record() const;

    /// The bodies of the packets that the terminal received, in hexadecimal.
    QByteArrayList requests() const;

    /// Ends the terminal, which takes its port away. Fails the test if the terminal has complained.
    void unplug();

    /// Ends the terminal. Returns what it complained about, a line each; the test is not failed for it.
    QByteArrayList complaints();

private:
    QString recordPath() const { return _directory.filePath(QStringLiteral("record")); }
    QByteArrayList end();

    QTemporaryDir _directory;
    QProcess _process;
    bool _has_ended = false;
};

/// Holds the directory, which has to be there before the terminal starts.
struct TerminalFiles {
    QTemporaryDir directory;
};

/// A simulated terminal whose files are in a directory.
class FilingTerminal : private TerminalFiles, public SimulatedTerminal {
public:
    explicit FilingTerminal(const QStringList &options = {});

    /// The path of the terminal's own file with this key.
    QString own(const QString &key) const { return directory.filePath(key); }
};
