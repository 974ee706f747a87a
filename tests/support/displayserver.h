#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

/// An X server without a screen to look at; it ends with the test.
class DisplayServer {
public:
    DisplayServer();
    ~DisplayServer();

    DisplayServer(const DisplayServer &) = delete;
    DisplayServer &operator=(const DisplayServer &) = delete;

    /// Makes the windows of this process, and of those it starts, appear there. Call it before there is an application.
    void adopt() const;

private:
    const QTemporaryDir _runtime; ///< else the framework makes one and leaves it behind
    QProcess _server;
    QByteArray _display;
};

/// What xdotool answers on the display of the environment; empty when it fails.
QByteArray xdotool(const QStringList &arguments);
