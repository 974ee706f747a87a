#include "capture.h"
#include "device.h"
#include "packets.h"
#include "plainterminal.h"
#include "simulatedterminal.h"
#include "words.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <chrono>
#include <climits>
#include <csignal>
#include <memory>
#include <optional>

using namespace std::chrono_literals;

namespace {

/// What a toggle requests while the log is off.
const QByteArray request_to_enable = "*!LOG" + packets::number(0x4000, 4);

} // namespace

/// The controller in this process, against the simulated terminal in its own.
class DeviceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void theProgressIsPrintedInPercent_data();
    void theProgressIsPrintedInPercent();

    void openingAnOpenPortPrintsAndSchedulesNothing();
    void readingDropsTheWrite();
    void noOperationStartsWhileThePortIsClosed();
    void closingAClosedPortPrintsNothing();
    void theNextOperationBeginsAtOnceWhenThePortIsOpen();
    void aFailedReopenIsSilentUnlessItEndsTheRun();
    void attemptsToReopenAreASecondApart();
    void theCountdownEndsWithTheDevice();
    void theReopenEndsWithTheDevice();
    void aPortErrorWhileARestartIsExpectedReopensThePortOnce();

    void whatTheLineHasNoRoomForIsWaitedForBeforeTheRestart();
    void whatTheLineHasNoRoomForIsWaitedForBeforeTheEnd();
    void whatTheLineHasRoomForAgainIsSentWithoutWaiting();
    void whatTheLineHasRoomForAgainIsSentBeforeThePortCloses();

    void aPortErrorEndsTheRunOnce();
    void theFirstExitCodeStands();
    void noOperationStartsAfterTheEnd();
    void aResultAfterTheEndIsNotPrinted();
    void nothingIsRequestedAfterTheEnd();

    void theToggleSwitchesTheLogOffAndOn();
    void theToggleGoesByTheMaskThatTheTerminalReported();
    void aToggleDoesNotDoubleTheMonitor();
    void aToggleWithoutAnswerLeavesTheMaskAlone();
    void theInterruptHandlerTogglesFromTheEventLoop();
    void anInterruptWithoutADeviceIsIgnored();

private:
    bool start(const QStringList &options = {});
    bool startUnidentified(const QStringList &options = {});
    void startOnNoPort();
    void startOn(PlainTerminal &terminal);
    qsizetype requestOnFullLine(PlainTerminal &terminal);
    void identify();
    void monitor(const QStringList &options = {});
    int requestsWith(const QByteArray &key) const;

    std::unique_ptr<SimulatedTerminal> _terminal;
    std::unique_ptr<Device> _device;
    jvxb::Protocol *_protocol = nullptr;
};

void DeviceTest::init()
{
    _device = std::make_unique<Device>();
}

void DeviceTest::cleanup()
{
    _device.reset();
    _terminal.reset();
}

/// Starts the controller on a new simulated terminal.
bool DeviceTest::start(const QStringList &options)
{
    _terminal = std::make_unique<SimulatedTerminal>(options);
    const bool started = _device->start(_terminal->port());
    _protocol = _device->findChild<jvxb::Protocol *>();
    return started && _protocol;
}

/// Starts the controller on a terminal that never says who it is; its time-out does not end the run here.
bool DeviceTest::startUnidentified(const QStringList &options)
{
    return start(options + words("--silent V")) && QTest::qWaitFor([this] { return requestsWith("V") == 1; })
        && disconnect(_protocol, &jvxb::Protocol::softVersionReaded, nullptr, nullptr);
}

/// Starts the controller on a port that cannot be opened.
void DeviceTest::startOnNoPort()
{
    const Capture console;
    QVERIFY(!_device->start(QStringLiteral("nosuchport-%1").arg(QCoreApplication::applicationPid())));
}

/// Starts the controller on \a terminal, which takes the first request and does not answer it.
void DeviceTest::startOn(PlainTerminal &terminal)
{
    QVERIFY(_device->start(terminal.port()));
    _protocol = _device->findChild<jvxb::Protocol *>();
    QVERIFY(disconnect(_protocol, &jvxb::Protocol::softVersionReaded, nullptr, nullptr));
    QCOMPARE(terminal.request(), QByteArray("*?V"));
}

/// Fills the line to \a terminal and makes the controller request something then. Returns how many bytes fill it.
qsizetype DeviceTest::requestOnFullLine(PlainTerminal &terminal)
{
    const qsizetype size = terminal.fill();
    _device->toggleLog();
    return size;
}

/// Runs the event loop until the terminal is identified.
void DeviceTest::identify()
{
    QSignalSpy identified(_protocol, &jvxb::Protocol::serialNumberReaded);
    QTRY_COMPARE(identified.count(), 1);
}

/// Starts the controller on a new simulated terminal, and runs the event loop until it monitors the log.
void DeviceTest::monitor(const QStringList &options)
{
    _device->_log_monitor = true;
    QVERIFY(start(options));
    QSignalSpy enabled(_protocol, &jvxb::Protocol::logEnabled);
    QTRY_COMPARE(enabled.count(), 1);
}

int DeviceTest::requestsWith(const QByteArray &key) const
{
    int count = 0;
    for (const QByteArray &body : _terminal->requests()) {
        if (QByteArray::fromHex(body).sliced(2).startsWith(key))
            ++count;
    }
    return count;
}

void DeviceTest::theProgressIsPrintedInPercent_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("full_size");
    QTest::addColumn<QByteArray>("printed");
    QTest::newRow("half") << 1024 << 2048 << QByteArray("\r50% completed (1024/2048)");
    QTest::newRow("cut, not rounded") << 1999 << 2000 << QByteArray("\r99% completed (1999/2000)");
    QTest::newRow("nothing of nothing") << 0 << 0 << QByteArray("\r100% completed (0/0)");
    QTest::newRow("something of nothing") << 5 << 0 << QByteArray("\r100% completed (5/0)");
    QTest::newRow("nothing of something") << 0 << 5 << QByteArray("\r0% completed (0/5)");
    QTest::newRow("last before the product wraps")
        << 21474836 << 21474836 << QByteArray("\r100% completed (21474836/21474836)");
    // 2147483700 - 2^32 = -2147483596
    QTest::newRow("first after the product wraps")
        << 21474837 << 21474837 << QByteArray("\r-99% completed (21474837/21474837)");
    QTest::newRow("of -1") << 512 << -1 << QByteArray("\r-51200% completed (512/-1)");
    // 536870912 * 100 = 2^31 modulo 2^32
    QTest::newRow("INT_MIN / -1") << 536870912 << -1 << QByteArray("\r-2147483648% completed (536870912/-1)");
    QTest::newRow("of INT_MIN") << 512 << INT_MIN << QByteArray("\r0% completed (512/-2147483648)");
    QTest::newRow("INT_MIN of INT_MIN") << INT_MIN << INT_MIN << QByteArray("\r0% completed (-2147483648/-2147483648)");
    QTest::newRow("-1 of -1") << -1 << -1 << QByteArray("\r100% completed (-1/-1)");
}

void DeviceTest::theProgressIsPrintedInPercent()
{
    QFETCH(int, size);
    QFETCH(int, full_size);
    QFETCH(QByteArray, printed);
    const Capture console;
    _device->onFileReadingProgress(File::Settings, size, full_size);
    QCOMPARE(console.flushed(), printed);
    _device->onFileWritingProgress(File::Settings, size, full_size);
    QCOMPARE(console.flushed(), printed + printed);
}

void DeviceTest::openingAnOpenPortPrintsAndSchedulesNothing()
{
    _device->logEnable(0x4000);
    QVERIFY(startUnidentified());
    const Capture console;
    QVERIFY(_device->tryOpenSerialPort(true, true, 60));
    QTest::qWait(50);
    QCOMPARE(console.written(), QByteArray());
    QCOMPARE(requestsWith("LOG"), 0);
}

void DeviceTest::readingDropsTheWrite()
{
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    _device->setWriteFile(File::Keys, local);
    _device->setReadFile(File::Settings, local);
    _device->logEnable(0x4000);
    QVERIFY(start());
    QCOMPARE(QCoreApplication::exec(), 0);
    QVERIFY(requestsWith("FR") > 0);
    QCOMPARE(requestsWith("FW"), 0);
}

void DeviceTest::closingAClosedPortPrintsNothing()
{
    const Capture console;
    _device->closeSerialPort();
    QCOMPARE(console.written(), QByteArray());
}

void DeviceTest::noOperationStartsWhileThePortIsClosed()
{
    _device->logEnable(0x4000);
    QVERIFY(startUnidentified());
    _device->closeSerialPort();
    const Capture console;
    _device->onSerialNumberReaded(jvxb::Error::None, QStringLiteral("1")); // goes on with the next operation
    QTest::qWait(100);
    QCOMPARE(console.written(), QByteArray("IMEI: 1\n\n"));
    QVERIFY(_device->tryOpenSerialPort(true, true, 0)); // this goes on with it too, 1 ms later
    QTRY_COMPARE(requestsWith("LOG"), 1);
}

void DeviceTest::theNextOperationBeginsAtOnceWhenThePortIsOpen()
{
    _device->logEnable(0x4000);
    QVERIFY(startUnidentified(words("--silent LOG")));
    _device->closeSerialPort();
    QVERIFY(_device->tryOpenSerialPort(true, true, 0));
    std::optional<bool> has_begun;
    // However busy the machine is, timers end in the order in which they are due.
    QTimer::singleShot(100, _protocol, [&] { has_begun = _protocol->findChild<jvxb::Command *>() != nullptr; });
    QTRY_VERIFY(has_begun);
    QVERIFY(*has_begun);
}

void DeviceTest::aFailedReopenIsSilentUnlessItEndsTheRun()
{
    QVERIFY(start({QStringLiteral("--vanish"), QStringLiteral("V"), QStringLiteral("--no-return")}));
    QTRY_COMPARE(requestsWith("V"), 1);
    _device->closeSerialPort();
    QTRY_VERIFY(!_terminal->isPlugged());
    const Capture console;
    QVERIFY(!_device->tryOpenSerialPort(false, true, 0));
    QCOMPARE(console.written(), QByteArray());
    QVERIFY(!_device->tryOpenSerialPort(false, true, -1));
    QCOMPARE(console.written(), QByteArray());
    QVERIFY(!_device->tryOpenSerialPort(true, true, -1));
    QCOMPARE(console.flushed(),
        "\r              \nError: Failed to open serial port " + _terminal->port().toLocal8Bit() + ": \n");
}

void DeviceTest::attemptsToReopenAreASecondApart()
{
    startOnNoPort();
    const Capture console;
    QVERIFY(!_device->tryOpenSerialPort(false, false, 2));
    QByteArrayList shown;
    for (const auto time : {900ms, 1100ms})
        QTimer::singleShot(time, _device.get(), [&] { shown += console.flushed(); });
    QTRY_COMPARE(shown, QByteArrayList({"\r2 secs", "\r2 secs\r1 secs"}));
}

void DeviceTest::theCountdownEndsWithTheDevice()
{
    startOnNoPort();
    const Capture console;
    QVERIFY(!_device->tryOpenSerialPort(false, false, 2));
    _device.reset();
    QTest::qWait(1200);
    QCOMPARE(console.flushed(), QByteArray("\r2 secs"));
}

void DeviceTest::theReopenEndsWithTheDevice()
{
    PlainTerminal terminal;
    startOn(terminal);
    _device->onFileApplied(jvxb::Error::None, File::Settings);
    _device->onErrorOccured(QStringLiteral("gone")); // the port is opened again in 100 ms
    _device.reset();
    const Capture console;
    QTest::qWait(200);
    QCOMPARE(console.written(), QByteArray());
}

void DeviceTest::aPortErrorWhileARestartIsExpectedReopensThePortOnce()
{
    _device->_log_monitor = true; // the run does not end by itself
    QVERIFY(start());
    identify();
    const Capture console;
    _device->onFileApplied(jvxb::Error::None, File::Settings);
    const QByteArray waiting
        = "Completed\n\nSerial port closed: " + _terminal->port().toLocal8Bit() + "\nWaiting device ...\n";
    QCOMPARE(console.flushed(), waiting);
    QElapsedTimer since_error;
    since_error.start();
    _device->onErrorOccured(QStringLiteral("gone")); // reopens after 100 ms instead of 5 s
    const QByteArray open = "\rSerial port open: " + _terminal->port().toLocal8Bit() + "\n\n";
    QVERIFY(QTest::qWaitFor([&] { return console.flushed() == waiting + open; }, 2000));
    QVERIFY(since_error.elapsed() >= 99);
    _device->closeSerialPort();
    QTest::qWait(5500);
    QVERIFY(!console.flushed().contains("secs"));
    QCOMPARE(console.flushed().count("Serial port open"), 1);
}

void DeviceTest::whatTheLineHasNoRoomForIsWaitedForBeforeTheRestart()
{
    PlainTerminal terminal;
    startOn(terminal);
    const qsizetype size = requestOnFullLine(terminal);
    const Capture console;
    _device->onFileApplied(jvxb::Error::None, File::Settings);
    QCOMPARE(console.flushed(), QByteArray("Completed\n\n"));
    // The controller waits 100 ms for the line; the terminal reads within that time.
    QTimer::singleShot(50ms, _device.get(), [&] { terminal.take(size); });
    QTRY_VERIFY(console.flushed().endsWith("Waiting device ...\n"));
    QCOMPARE(terminal.request(), request_to_enable);
}

void DeviceTest::whatTheLineHasNoRoomForIsWaitedForBeforeTheEnd()
{
    PlainTerminal terminal;
    startOn(terminal);
    requestOnFullLine(terminal);
    QElapsedTimer clock;
    clock.start();
    QTimer::singleShot(0, _device.get(), [this] { Q_EMIT _protocol->errorOccured(QStringLiteral("gone")); });
    QCOMPARE(QCoreApplication::exec(), -110);
    QVERIFY2(clock.elapsed() >= 99, QByteArray::number(clock.elapsed()).constData());
}

void DeviceTest::whatTheLineHasRoomForAgainIsSentWithoutWaiting()
{
    PlainTerminal terminal;
    startOn(terminal);
    terminal.take(requestOnFullLine(terminal));
    const Capture console;
    _device->onFileApplied(jvxb::Error::None, File::Settings);
    QVERIFY2(console.flushed().endsWith("Waiting device ...\n"), console.flushed().constData());
    QCOMPARE(terminal.request(), request_to_enable);
}

void DeviceTest::whatTheLineHasRoomForAgainIsSentBeforeThePortCloses()
{
    PlainTerminal terminal;
    startOn(terminal);
    terminal.take(requestOnFullLine(terminal));
    _device->closeSerialPort();
    QCOMPARE(terminal.request(), request_to_enable);
}

void DeviceTest::aPortErrorEndsTheRunOnce()
{
    _device->_log_monitor = true; // the run does not end by itself
    QVERIFY(start());
    identify();
    const Capture console;
    QTimer::singleShot(0, this, [this] {
        for (int i = 0; i < 1000; ++i)
            Q_EMIT _protocol->errorOccured(QStringLiteral("The port is %1"));
    });
    QCOMPARE(QCoreApplication::exec(), -110);
    QCOMPARE(console.flushed(), QByteArray("Error: The port is %1\n"));
}

void DeviceTest::theFirstExitCodeStands()
{
    _device->logEnable(0);
    QVERIFY(start());
    // Connected after the controller's own slot, and so called after it in the same turn of the event loop: by then the
    // mask's answer has ended the run with 0.
    int failures = 0;
    const auto fail = [this, &failures] {
        ++failures;
        Q_EMIT _protocol->errorOccured(QStringLiteral("gone"));
    };
    connect(
        _protocol, &jvxb::Protocol::serialNumberReaded, this,
        [this, fail] { connect(_protocol, &jvxb::Protocol::logEnabled, this, fail); }, Qt::QueuedConnection);
    const Capture console;
    QCOMPARE(QCoreApplication::exec(), 0);
    QCOMPARE(failures, 1);
    QVERIFY2(!console.written().contains("Error"), console.written().constData());
}

void DeviceTest::noOperationStartsAfterTheEnd()
{
    _device->logEnable(0x4000);
    QVERIFY(startUnidentified());
    _device->closeSerialPort();
    QVERIFY(_device->tryOpenSerialPort(true, true, 0)); // the next operation is due in 1 ms
    const Capture console;
    Q_EMIT _protocol->errorOccured(QStringLiteral("gone"));
    QTest::qWait(100);
    QCOMPARE(console.written(), QByteArray("Error: gone\n"));
    QCOMPARE(requestsWith("LOG"), 0);
}

void DeviceTest::aResultAfterTheEndIsNotPrinted()
{
    QVERIFY(start({QStringLiteral("--silent"), QStringLiteral("V")}));
    Q_EMIT _protocol->errorOccured(QStringLiteral("gone"));
    QSignalSpy timed_out(_protocol, &jvxb::Protocol::softVersionReaded);
    const Capture console;
    QTRY_COMPARE(timed_out.count(), 1);
    QCOMPARE(console.written(), QByteArray());
}

// The interrupt may come in the last turn of the event loop.
void DeviceTest::nothingIsRequestedAfterTheEnd()
{
    QVERIFY(start());
    identify();
    const auto requests = _terminal->requests();
    Q_EMIT _protocol->errorOccured(QStringLiteral("gone"));
    _device->toggleLog();
    Device::onSigintSignal(SIGINT);
    QTest::qWait(200);
    QCOMPARE(_terminal->requests(), requests);
}

void DeviceTest::theToggleSwitchesTheLogOffAndOn()
{
    _device->logEnable(1);
    monitor();
    const Capture console;
    _device->toggleLog();
    QTRY_COMPARE(console.flushed(), QByteArray("Info: log disabled\n"));
    _device->toggleLog();
    QTRY_COMPARE(console.flushed(), QByteArray("Info: log disabled\nInfo: log enabled\n"));
    _device->toggleLog();
    QTRY_COMPARE(console.flushed(), QByteArray("Info: log disabled\nInfo: log enabled\nInfo: log disabled\n"));
    const QByteArrayList masks = _terminal->requests().mid(3);
    QCOMPARE(masks,
        QByteArrayList({"2a214c4f4701000000", "2a214c4f4700000000", "2a214c4f4700400000", "2a214c4f4700000000"}));
}

void DeviceTest::theToggleGoesByTheMaskThatTheTerminalReported()
{
    _device->logEnable(0);
    monitor({QStringLiteral("--mask-reply"), QStringLiteral("1")});
    _device->toggleLog();
    QTRY_COMPARE(requestsWith("LOG"), 2);
    QCOMPARE(_terminal->requests().constLast(), QByteArray("2a214c4f4700000000"));
}

void DeviceTest::aToggleDoesNotDoubleTheMonitor()
{
    _device->logEnable(0x4000);
    monitor();
    QSignalSpy toggled(_protocol, &jvxb::Protocol::logEnabled);
    _device->toggleLog();
    QTRY_COMPARE(toggled.count(), 1);
    const Capture console;
    const QDateTime time(QDate(2026, 3, 1), QTime(14, 3, 27, 45));
    Q_EMIT _protocol->logReceived(jvxb::Log{14}, 1, time, "abc");
    QCOMPARE(console.flushed(), QByteArray("14:03:27 045 [1] abc\n"));
}

void DeviceTest::aToggleWithoutAnswerLeavesTheMaskAlone()
{
    _device->logEnable(0x4000); // in force as far as the controller knows
    QVERIFY(startUnidentified(words("--silent LOG")));
    const Capture console;
    for (const char *errors : {"Error: Timeout(-1)\n", "Error: Timeout(-1)\nError: Timeout(-1)\n"}) {
        _device->toggleLog();
        QTRY_COMPARE_WITH_TIMEOUT(console.flushed(), QByteArray(errors), 3000);
    }
    QCOMPARE(_terminal->requests().mid(1), QByteArrayList({"2a214c4f4700000000", "2a214c4f4700000000"}));
}

void DeviceTest::theInterruptHandlerTogglesFromTheEventLoop()
{
    _device->logEnable(0);
    QVERIFY(startUnidentified());
    const Capture console;
    Device::onSigintSignal(SIGTERM);
    Device::onSigintSignal(SIGINT);
    QCOMPARE(console.written(), QByteArray());
    QTRY_COMPARE(console.flushed(), QByteArray("Info: log enabled\n"));
    QCOMPARE(requestsWith("LOG"), 1);
}

void DeviceTest::anInterruptWithoutADeviceIsIgnored()
{
    QVERIFY(startUnidentified());
    _device.reset();
    const auto requests = _terminal->requests();
    Device::onSigintSignal(SIGINT);
    QTest::qWait(200);
    QCOMPARE(_terminal->requests(), requests);
}

QTEST_GUILESS_MAIN(DeviceTest)
#include "tst_device.moc"
