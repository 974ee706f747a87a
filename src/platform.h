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

/// While it lives, standard output gets the bytes that are written as they are. Otherwise a line feed may become the
/// line end of the system.
class UntranslatedOutput {
public:
    UntranslatedOutput();
    ~UntranslatedOutput();

    UntranslatedOutput(const UntranslatedOutput &) = delete;
    UntranslatedOutput &operator=(const UntranslatedOutput &) = delete;
};

} // namespace platform
