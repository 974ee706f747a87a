#include "platform.h"

#include <QSerialPort>

#include <cstdio>
#include <fcntl.h>
#include <io.h>
#include <iostream>
#include <windows.h>

namespace {

/// \param mode _O_BINARY or _O_TEXT; of what is written from now on, not of what waits in the buffer
void setOutputMode(int mode)
{
    std::cout.flush();
    _setmode(_fileno(stdout), mode);
}

} // namespace

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

platform::UntranslatedOutput::UntranslatedOutput()
{
    setOutputMode(_O_BINARY);
}

platform::UntranslatedOutput::~UntranslatedOutput()
{
    setOutputMode(_O_TEXT);
}
