#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>

/// An X server without a screen to look at; it ends with the test.
class DisplayServer {
public:
    DisplayServer();
    ~DisplayServer();

    DisplayServer(const DisplayServer &) = delete;
    DisplayServer &operator=(const DisplayServer &) = delete;

    /// What the variable DISPLAY has to be for it.
    QByteArray display() const { return _display; }

private:
    QProcess _server;
    QByteArray _display;
};

/// What xdotool answers on the display of the environment; empty when it fails.
QByteArray xdotool(const QStringList &arguments);
