#pragma once

#include "run.h"
#include "words.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <chrono>
#include <functional>

using namespace std::chrono_literals;

/// The tool as a process of its own. Standard input is empty, no display is announced, and the locale is C.UTF-8. A
/// tool that goes out of scope is killed; if nobody asked how its run ended, whatever it wrote to standard error fails
/// the test.
class Tool {
public:
    /// The executable of this build.
    static QString path();

    /// Runs the tool with \a arguments. \a environment sets variables ("NAME=value") or removes them ("NAME").
    explicit Tool(const QStringList &arguments, const QStringList &environment = {});

    /// Runs the tool by way of \a program, which may start further ones: all of them are one process group.
    Tool(const QString &program, const QStringList &arguments, const QStringList &environment);

    ~Tool();

    Tool(const Tool &) = delete;
    Tool &operator=(const Tool &) = delete;

    QProcess &process() { return _process; }

    /// Sends a signal to the tool and to all that was started with it.
    void signalAll(int number) const;

    /// Waits until standard output holds \a text, and returns whether it did within 10 s.
    bool waitForOutput(const QByteArray &text);

    /// Waits until standard output holds \a size bytes, and returns whether it did within \a limit.
    bool waitForOutputOf(qsizetype size, std::chrono::milliseconds limit);

    /// Waits until standard error holds \a text, and returns whether it did within 10 s.
    bool waitForErrors(const QByteArray &text);

    /// What the functions that wait have read from standard error so far.
    QByteArray errors() const { return _errors; }

    /// Whether the run is over; waits 1 ms for that.
    bool hasEnded();

    /// Waits for the end of the run; kills it after \a limit. Returns all that it wrote from the beginning on.
    [[nodiscard]] Run finish(std::chrono::milliseconds limit = 30s);

    /// Ends a run that would go on for ever, with SIGTERM.
    [[nodiscard]] Run stop();

private:
    bool waitFor(const std::function<bool()> &isEnough, std::chrono::milliseconds limit);
    void readAll();

    const QTemporaryDir _directory; ///< for temporary files of the tool and the framework
    QProcess _process;
    QByteArray _output;
    QByteArray _errors;
    QElapsedTimer _clock;
    bool _is_judged = false;
};

/// The arguments of a run on \a port: \a options is a line of words, and \a file the local file, if any.
QStringList argumentsOn(const QString &port, const char *options = "", const QString &file = {});

/// A whole run of the tool on \a port.
Run runOn(const QString &port, const char *options = "", const QString &file = {});
