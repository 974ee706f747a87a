#pragma once

#include <QString>

/// What the tool has to know of the operating system; CMake picks the file that knows it.
namespace platform {

/// Whether a window can be shown to somebody; a dialog that nobody sees would wait for ever. To be asked once the
/// application object is there.
bool canShowWindow();

/// The name of the serial port that the user means by \a given, spelt as QSerialPort wants it.
QString portName(const QString &given);

} // namespace platform
