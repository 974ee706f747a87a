#pragma once

#include <QString>

class QSerialPort;

/// What the tool has to know of the operating system; CMake picks the file that knows it.
namespace platform {

/// Lets the program run without windows where no display is there. To be called before the application object is made.
void tolerateMissingDisplay();

/// Whether a window can be shown to somebody; a dialog that nobody sees would wait for ever. To be asked once the
/// application object is there.
bool canShowWindow();

/// The name of the serial port that the user means by \a given, spelt as QSerialPort wants it.
QString portName(const QString &given);

/// Whether \a port has just reported an error that is none: the line is full, and the port sends the rest by itself
/// when the line takes more. To be asked where the error is reported.
bool isLineFull(const QSerialPort &port);

/// Makes \a port, which has just been opened, report an error when its device goes away, until it is closed. Not every
/// version of the framework finds that out by itself.
void watchForHangUp(QSerialPort &port);

/// Closes \a port, which is open. What was written leaves first, but a device that takes nothing is given up after half
/// a second; the system would wait for half a minute.
void close(QSerialPort &port);

/// \param on true, as at the start: standard output turns a line feed into the line end of the system; false: it gets
///        the bytes as they are written.
void translateLineEnds(bool on);

} // namespace platform
