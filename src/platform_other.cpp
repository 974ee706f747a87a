#include "platform.h"

#include <QByteArrayList>
#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QSerialPort>
#include <QSocketNotifier>
#include <QSysInfo>

#include <csignal>
#include <sys/time.h>
#include <system_error>

namespace {

constexpr suseconds_t closing_time = 500'000; // microseconds
constexpr suseconds_t further_time = 50'000;  // closing may wait more than once

void doNothing(int /*signal*/) { }

/// Interrupts the system calls of this thread that wait when closing_time has passed, until it goes out of scope. The
/// alarm of the process belongs to it meanwhile.
class Interruption {
public:
    Interruption()
    {
        struct sigaction action { };
        action.sa_handler = doNothing; // without SA_RESTART: a call that is interrupted does not go on
        ::sigaction(SIGALRM, &action, &_action);
        const itimerval timer{{0, further_time}, {0, closing_time}};
        ::setitimer(ITIMER_REAL, &timer, &_timer);
    }

    ~Interruption()
    {
        ::setitimer(ITIMER_REAL, &_timer, nullptr);
        ::sigaction(SIGALRM, &_action, nullptr);
    }

    Interruption(const Interruption &) = delete;
    Interruption &operator=(const Interruption &) = delete;

private:
    struct sigaction _action { };
    itimerval _timer{};
};

/// Whether the environment announces a Wayland display that is there. The library that would connect to it remarks on
/// standard error when it is not.
bool hasWaylandDisplay()
{
    if (!qEnvironmentVariableIsSet("WAYLAND_DISPLAY") && qgetenv("XDG_SESSION_TYPE") != "wayland")
        return false;
    const QString name = qEnvironmentVariable("WAYLAND_DISPLAY", QStringLiteral("wayland-0"));
    const QString path = QDir(qEnvironmentVariable("XDG_RUNTIME_DIR")).filePath(name); // the name may be a path itself
    return QDir::isAbsolutePath(path) && QFileInfo::exists(path);
}

/// The platform plugins to try in turn: the framework's own choice for the display that the environment announces, then
/// one without windows. A display that is announced may be gone, as in a session that outlived its login.
QByteArray platforms()
{
    QByteArrayList names;
    if (qEnvironmentVariableIsSet("DISPLAY"))
        names += "xcb";
    if (hasWaylandDisplay()) {
        const bool prefers_x = qgetenv("XDG_CURRENT_DESKTOP").toLower().contains("gnome");
        names.insert(prefers_x ? names.size() : 0, "wayland");
    }
    names += "minimal";
    return names.join(';');
}

} // namespace

/// Without a display the application object would abort the process; this lets the tool run without windows then. A
/// platform plugin that the user named in QT_QPA_PLATFORM is left alone, and so are the systems that always have a
/// display.
void platform::tolerateMissingDisplay()
{
    const bool always_has_display = QSysInfo::kernelType() == QLatin1String("darwin");
    if (!always_has_display && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", platforms());
}

/// The program selects the platform plugin "minimal" where it finds no display.
bool platform::canShowWindow()
{
    return QGuiApplication::platformName() != QLatin1String("minimal");
}

/// Names of device files tell upper from lower case.
QString platform::portName(const QString &given)
{
    return given;
}

/// The port passes EAGAIN on like any other error, and all that tells it from them is the text.
bool platform::isLineFull(const QSerialPort &port)
{
    const std::error_code again = std::make_error_code(std::errc::resource_unavailable_try_again);
    return port.bytesToWrite() > 0 && port.errorString() == QString::fromLocal8Bit(again.message().c_str());
}

/// After a hang-up a read returns 0 bytes, which is no error to every version of the framework. Anything that is asked
/// of the device then fails, and the port reports that.
void platform::watchForHangUp(QSerialPort &port)
{
    auto *const notifier = new QSocketNotifier(port.handle(), QSocketNotifier::Exception, &port);
    const auto stop = [notifier] {
        notifier->setEnabled(false);
        notifier->deleteLater();
    };
    QObject::connect(&port, &QSerialPort::aboutToClose, notifier, stop);
    QObject::connect(notifier, &QSocketNotifier::activated, &port, [&port, notifier] {
        notifier->setEnabled(false);
        port.pinoutSignals();
    });
}

void platform::close(QSerialPort &port)
{
    const Interruption interruption;
    port.close();
}

/// A line feed is the line end here.
void platform::translateLineEnds(bool /*on*/) { }
