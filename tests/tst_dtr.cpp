#include "capture.h"
#include "device.h"
#include "localfiles.h"
#include "simulatedterminal.h"

#include <QCoreApplication>
#include <QTest>

#include <cstdarg>
#include <cstring>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <vector>

// What the controller does to its port, in order. A pseudo-terminal has no modem lines, so what is asked of the system
// is watched: these two functions stand in front of those of the C library, for this program and all of its libraries.

namespace {

enum class Event { Open, Ready, Request };

std::vector<Event> events;

void note(Event event)
{
    if (events.empty() || events.back() != event)
        events.push_back(event);
}

} // namespace

extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    if (request == TIOCEXCL) // the framework does it to every port that it opens
        note(Event::Open);
    if (request == TIOCMBIS && (*static_cast<const int *>(argument) & TIOCM_DTR) != 0)
        note(Event::Ready);
    return static_cast<int>(::syscall(SYS_ioctl, descriptor, request, argument));
}

extern "C" ssize_t write(int descriptor, const void *bytes, size_t size)
{
    if (size >= 4 && std::memcmp(bytes, "@JVX", 4) == 0)
        note(Event::Request);
    return ::syscall(SYS_write, descriptor, bytes, size);
}

/// Some terminals send nothing before the line "data terminal ready" is up.
class DtrTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theLineIsRaisedBeforeTheFirstRequestOfEveryOpening();
};

void DtrTest::theLineIsRaisedBeforeTheFirstRequestOfEveryOpening()
{
    SimulatedTerminal terminal;
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(local, "123456789");
    const Capture console;
    Device device;
    device.setWriteFile(File::Settings, local);
    device._apply_file = File::Settings;
    device.logEnable(0x4000);
    QVERIFY(device.start(terminal.port()));
    QCOMPARE(QCoreApplication::exec(), 0);
    QCOMPARE(
        events, std::vector({Event::Open, Event::Ready, Event::Request, Event::Open, Event::Ready, Event::Request}));
}

QTEST_GUILESS_MAIN(DtrTest)
#include "tst_dtr.moc"
