#include "displayserver.h"

#include "lifeline.h"

DisplayServer::DisplayServer()
{
    _server.setChildProcessModifier(endWithTheTest);
    _server.start(QStringLiteral("Xvfb"),
        {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"), QStringLiteral("0"),
            QStringLiteral("800x600x24"), QStringLiteral("-nolisten"), QStringLiteral("tcp"),
            QStringLiteral("-nolisten"), QStringLiteral("unix")}); // abstract sockets only, which leave no file
    while (!_server.canReadLine() && _server.waitForReadyRead()) { }
    _display = ":" + _server.readLine().trimmed();
    if (_display == ":")
        qFatal("Xvfb did not start");
}

DisplayServer::~DisplayServer()
{
    _server.terminate();
    _server.waitForFinished();
}

void DisplayServer::adopt() const
{
    qputenv("XDG_RUNTIME_DIR", _runtime.path().toLocal8Bit());
    qputenv("DISPLAY", _display);
    qputenv("QT_QPA_PLATFORM", "xcb");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "disabled:"); // else the framework looks for one, in a library that leaks
}

QByteArray xdotool(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral("xdotool"), arguments);
    if (!process.waitForFinished(10'000))
        process.kill();
    process.waitForFinished();
    return process.exitCode() == 0 ? process.readAllStandardOutput().trimmed() : QByteArray();
}
