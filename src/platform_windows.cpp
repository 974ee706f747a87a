#include "platform.h"

#include <QSerialPort>

#include <cstdio>
#include <fcntl.h>
#include <io.h>
#include <iostream>
#include <windows.h>

/// There always is one, although perhaps on no screen.
void platform::tolerateMissingDisplay() { }

/// In a service, a scheduled task or a session of ssh the process has a desktop of its own that no screen shows.
bool platform::canShowWindow()
{
    USEROBJECTFLAGS flags{};
    return GetUserObjectInformationW(GetProcessWindowStation(), UOI_FLAGS, &flags, sizeof(flags), nullptr) != 0
        && (flags.dwFlags & WSF_VISIBLE) != 0;
}

/// To Windows "com12" is "COM12", but QSerialPort knows only the latter for a port and takes the former for a file.
QString platform::portName(const QString &given)
{
    return given.startsWith(QLatin1String("com"), Qt::CaseInsensitive) ? given.toUpper() : given;
}

/// Writes go on in the background and report no such error.
bool platform::isLineFull(const QSerialPort & /*port*/)
{
    return false;
}

/// The port reports it by itself.
void platform::watchForHangUp(QSerialPort & /*port*/) { }

/// Closing cancels what the device has not taken.
void platform::close(QSerialPort &port)
{
    port.close();
}

void platform::translateLineEnds(bool on)
{
    std::cout.flush(); // what waits in the buffer would be written in the new way
    _setmode(_fileno(stdout), on ? _O_TEXT : _O_BINARY);
}
