#include "lifeline.h"
#include "localfiles.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

const QByteArray ask_serial_number = QByteArray::fromHex("404a56580000000001000000030046402a3f53");
const QByteArray serial_number
    = QByteArray::fromHex("404a56580100000000000000130050462a23533a333530303030303030303030303137");

constexpr int patience = 5000; // ms

/// The other end of the simulator's port, opened by its name.
class Port {
public:
    explicit Port(const QString &path)
        : _descriptor(::open(QFile::encodeName(path).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    {
    }
    ~Port() { ::close(_descriptor); }
    Q_DISABLE_COPY_MOVE(Port)

    void write(const QByteArray &bytes) const
    {
        QCOMPARE(::write(_descriptor, bytes.constData(), static_cast<size_t>(bytes.size())), bytes.size());
    }

    /// Reads \a size bytes; fewer if the line is lost or patience is at its end.
    [[nodiscard]] QByteArray read(qsizetype size) const
    {
        QByteArray bytes;
        const QDeadlineTimer deadline(patience);
        while (bytes.size() < size && waitReadable(static_cast<int>(deadline.remainingTime()))) {
            QByteArray part(size - bytes.size(), '\0');
            const auto count = ::read(_descriptor, part.data(), static_cast<size_t>(part.size()));
            if (count <= 0)
                break;
            bytes.append(part.first(count));
        }
        return bytes;
    }

private:
    [[nodiscard]] bool waitReadable(int milliseconds) const
    {
        pollfd request{_descriptor, POLLIN, 0};
        return ::poll(&request, 1, milliseconds) > 0;
    }

    int _descriptor;
};

/// For a child process before it executes its program: makes other programs' claims of a port apply to it. With the
/// capability that root has, it would never find a claimed port busy.
void dropExemption()
{
    ::prctl(PR_CAPBSET_DROP, CAP_SYS_ADMIN);
}

/// A program that has to respect claims, even if root runs the test.
class PlainProcess : public QProcess {
public:
    PlainProcess()
    {
        setChildProcessModifier([] {
            endWithTheTest();
            dropExemption();
        });
    }

    /// Runs the program to its end and returns its exit code; -1 if there was none.
    int codeOf(const QString &program, const QStringList &arguments)
    {
        start(program, arguments);
        return waitForFinished(patience) && exitStatus() == NormalExit ? exitCode() : -1;
    }
};

} // namespace

class SimulatorProcessTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void aRequestIsAnsweredThroughThePort();
    void aMalformedRequestGivesExitCode1();
    void theNameGoesAwayAtTheEnd_data();
    void theNameGoesAwayAtTheEnd();
    void aHeldNameIsRefused_data();
    void aHeldNameIsRefused();
    void theLinkOfAKilledSimulatorIsReplaced();
    void whatIsNotItsOwnIsLeftAlone_data();
    void whatIsNotItsOwnIsLeftAlone();
    void aLinkThatTookThePlaceOfItsOwnIsLeftAlone_data();
    void aLinkThatTookThePlaceOfItsOwnIsLeftAlone();
    void aClaimEndsWithTheToolThatMadeIt_data();
    void aClaimEndsWithTheToolThatMadeIt();
    void aClaimHoldsAsLongAsItsHolder();
    void aUsageErrorGivesExitCode2();
    void aVanishedTerminalComesBackUnderTheSameName();
    void aTerminalMayStayAway();
    void theAnswerToAnApplyIsNotLostInTheRestart();
    void aDelayedSplitAnswerArrivesBeforeTheDrop();
    void theLogAtFullSpeedLosesNothing();
    void theLogKeepsItsRate();
    void recordsAreGluedAroundAnAnswer();

private:
    void start(const QStringList &arguments = {});
    void kill();
    [[nodiscard]] QByteArray refusal();
    [[nodiscard]] QByteArray recorded() const;
    [[nodiscard]] QStringList leftovers() const;

    std::unique_ptr<QTemporaryDir> _directory;
    std::unique_ptr<QProcess> _simulator;
    QString _link;
    QString _record;
};

void SimulatorProcessTest::init()
{
    _directory = std::make_unique<QTemporaryDir>();
    _simulator = std::make_unique<QProcess>();
    _link = _directory->filePath(QStringLiteral("port"));
    _record = _directory->filePath(QStringLiteral("record"));
}

void SimulatorProcessTest::cleanup()
{
    _simulator->terminate();
    if (_simulator->state() != QProcess::NotRunning)
        QVERIFY(_simulator->waitForFinished(patience));
    QCOMPARE(_simulator->exitStatus(), QProcess::NormalExit);
    QCOMPARE(_simulator->readAllStandardOutput(), QByteArray());
    QCOMPARE(_simulator->readAllStandardError(), QByteArray());
}

void SimulatorProcessTest::start(const QStringList &arguments)
{
    _simulator->setChildProcessModifier(endWithTheTest);
    _simulator->start(QStringLiteral(JVX_SIMULATOR),
        QStringList{QStringLiteral("--link"), _link, QStringLiteral("--record"), _record} + arguments);
    QVERIFY(_simulator->waitForReadyRead(patience));
    QCOMPARE(_simulator->readAllStandardOutput(), "Serial port ready: " + _link.toLocal8Bit() + '\n');
    QCOMPARE(recorded(), QByteArray("# link up\n"));
}

/// Ends the simulator without giving it a chance to clean up, and forgets what it recorded.
void SimulatorProcessTest::kill()
{
    _simulator->kill();
    QVERIFY(_simulator->waitForFinished(patience));
    _simulator = std::make_unique<QProcess>();
    QVERIFY(QFile::remove(_record));
}

/// What a second simulator prints that asks for the same name and is refused.
QByteArray SimulatorProcessTest::refusal()
{
    QProcess other;
    other.start(QStringLiteral(JVX_SIMULATOR), {QStringLiteral("--link"), _link});
    if (!other.waitForFinished(patience) || other.exitStatus() != QProcess::NormalExit || other.exitCode() != 2)
        return "not refused";
    return other.readAllStandardError().replace(_link.toLocal8Bit(), "LINK");
}

/// The names that belong to the port.
QStringList SimulatorProcessTest::leftovers() const
{
    return QDir(_directory->path()).entryList({QStringLiteral("port*")}, QDir::AllEntries | QDir::System);
}

QByteArray SimulatorProcessTest::recorded() const
{
    QFile file(_record);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void SimulatorProcessTest::aRequestIsAnsweredThroughThePort()
{
    start();
    const Port port(_link);
    port.write(ask_serial_number);
    QCOMPARE(port.read(serial_number.size()), serial_number);
    _simulator->terminate();
    QVERIFY(_simulator->waitForFinished(patience));
    QCOMPARE(_simulator->exitStatus(), QProcess::NormalExit);
    QCOMPARE(_simulator->exitCode(), 0);
    QCOMPARE(_simulator->readAllStandardError(), QByteArray());
    QCOMPARE(recorded(), "# link up\n" + ask_serial_number.toHex() + "\n# unplugged\n");
}

void SimulatorProcessTest::aMalformedRequestGivesExitCode1()
{
    start();
    const Port port(_link);
    const QByteArray apply_keys = QByteArray::fromHex("404a565800000000010000000d003a322a21465502000000002639f4cb");
    port.write(QByteArray("\r\n") + apply_keys + ask_serial_number + ask_serial_number.first(5));
    constexpr qsizetype refusal_size = 22;
    QCOMPARE(port.read(refusal_size + serial_number.size()).last(serial_number.size()), serial_number);
    _simulator->terminate();
    QVERIFY(_simulator->waitForFinished(patience));
    QCOMPARE(_simulator->readAllStandardError(),
        "jvx-simulator: malformed request: bytes outside a packet: 0d0a\n"
        "jvx-simulator: misplaced request: nothing written to apply: "
            + apply_keys.toHex()
            + "\n"
              "jvx-simulator: malformed request: incomplete packet: 404a565800\n");
    QCOMPARE(_simulator->exitCode(), 1);
}

void SimulatorProcessTest::theNameGoesAwayAtTheEnd_data()
{
    QTest::addColumn<int>("signal"); // 0: none, but the end of its input
    QTest::newRow("SIGTERM") << SIGTERM;
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGHUP") << SIGHUP;
    QTest::newRow("end of input") << 0;
}

void SimulatorProcessTest::theNameGoesAwayAtTheEnd()
{
    QFETCH(const int, signal);
    start({QStringLiteral("--until-eof")});
    QVERIFY(QFileInfo(_link).isSymbolicLink());
    _simulator->write("ignored");
    if (signal == 0)
        _simulator->closeWriteChannel();
    else
        ::kill(static_cast<pid_t>(_simulator->processId()), signal);
    QVERIFY(_simulator->waitForFinished(patience));
    QCOMPARE(_simulator->exitStatus(), QProcess::NormalExit);
    QCOMPARE(_simulator->exitCode(), 0);
    QCOMPARE(leftovers(), QStringList());
}

void SimulatorProcessTest::aHeldNameIsRefused_data()
{
    QTest::addColumn<bool>("on_bus");
    QTest::newRow("on the bus") << true;
    QTest::newRow("off the bus") << false;
}

void SimulatorProcessTest::aHeldNameIsRefused()
{
    QFETCH(const bool, on_bus);
    start({QStringLiteral("--restart=600"), QStringLiteral("--drop-at=2")});
    const Port port(_link);
    if (!on_bus) {
        port.write(ask_serial_number + ask_serial_number);
        QTRY_VERIFY_WITH_TIMEOUT(recorded().endsWith("# unplugged\n"), patience);
    }
    QCOMPARE(refusal(), QByteArray("jvx-simulator: 'LINK' is the port of another simulator that is running\n"));
    QCOMPARE(QFileInfo(_link).isSymbolicLink(), on_bus);
    if (on_bus) {
        port.write(ask_serial_number);
        QCOMPARE(port.read(serial_number.size()), serial_number);
    }
}

void SimulatorProcessTest::theLinkOfAKilledSimulatorIsReplaced()
{
    start();
    kill();
    QVERIFY(QFileInfo(_link).isSymbolicLink());
    start();
    const Port port(_link);
    port.write(ask_serial_number);
    QCOMPARE(port.read(serial_number.size()), serial_number);
    _simulator->terminate();
    QVERIFY(_simulator->waitForFinished(patience));
    QCOMPARE(leftovers(), QStringList());
}

void SimulatorProcessTest::whatIsNotItsOwnIsLeftAlone_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("a file in the link's place")
        << QStringLiteral("port") << QByteArray("jvx-simulator: 'LINK' is not a symbolic link\n");
    QTest::newRow("a file in the lock's place")
        << QStringLiteral("port.lock") << QByteArray("jvx-simulator: 'LINK.lock' is not a lock of this program\n");
}

void SimulatorProcessTest::whatIsNotItsOwnIsLeftAlone()
{
    QFETCH(const QString, name);
    QFETCH(const QByteArray, line);
    const QString path = _directory->filePath(name);
    files::store(path, "precious");
    QCOMPARE(refusal(), line);
    QCOMPARE(files::content(path), QByteArray("precious"));
    QCOMPARE(leftovers(), QStringList{name});
}

void SimulatorProcessTest::aLinkThatTookThePlaceOfItsOwnIsLeftAlone_data()
{
    QTest::addColumn<bool>("had_own");
    QTest::newRow("none was there") << false;
    QTest::newRow("its own was there") << true;
}

void SimulatorProcessTest::aLinkThatTookThePlaceOfItsOwnIsLeftAlone()
{
    QFETCH(const bool, had_own);
    if (had_own) {
        start();
        kill();
        QVERIFY(QFile::remove(_link));
    }
    QVERIFY(QFile::link(QStringLiteral("/dev/null"), _link));
    QCOMPARE(refusal(), QByteArray("jvx-simulator: 'LINK' is a link to '/dev/null' that this program did not make\n"));
    QCOMPARE(QFile::symLinkTarget(_link), QStringLiteral("/dev/null"));
    QCOMPARE(leftovers(), QStringList{QStringLiteral("port")});
}

void SimulatorProcessTest::aClaimEndsWithTheToolThatMadeIt_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
    QTest::newRow("SIGKILL") << SIGKILL;
}

void SimulatorProcessTest::aClaimEndsWithTheToolThatMadeIt()
{
    QFETCH(const int, signal);
    start();
    PlainProcess tool;
    tool.start(QStringLiteral(JVX_LOADER), {QStringLiteral("-m"), QStringLiteral("-p"), _link});
    QTRY_VERIFY_WITH_TIMEOUT(recorded().count('\n') == 5, patience); // identified, and its log mask is set
    ::kill(static_cast<pid_t>(tool.processId()), signal);
    QVERIFY(tool.waitForFinished(patience));
    // The simulator needs a moment to see that the tool has gone.
    PlainProcess next;
    QTRY_COMPARE_WITH_TIMEOUT(next.codeOf(QStringLiteral(JVX_LOADER), {QStringLiteral("-p"), _link}), 0, patience);
}

void SimulatorProcessTest::aClaimHoldsAsLongAsItsHolder()
{
    const QString open = QStringLiteral("exec 3<>\"$0\"");
    start();
    PlainProcess other;
    QCOMPARE(other.codeOf(QStringLiteral("sh"), {QStringLiteral("-c"), open, _link}), 0);

    const QByteArray path = QFile::encodeName(_link);
    QProcess holder;
    holder.setChildProcessModifier([&path] {
        endWithTheTest();
        ::ioctl(::open(path.constData(), O_RDWR | O_NOCTTY), TIOCEXCL);
    });
    holder.start(QStringLiteral("sleep"), {QStringLiteral("600")});
    QVERIFY(holder.waitForStarted(patience));
    QTest::qWait(100);
    QCOMPARE(other.codeOf(QStringLiteral("sh"), {QStringLiteral("-c"), open, _link}), 2);
    QVERIFY(other.readAllStandardError().contains("busy"));

    holder.kill();
    QVERIFY(holder.waitForFinished(patience));
    QTRY_COMPARE_WITH_TIMEOUT(other.codeOf(QStringLiteral("sh"), {QStringLiteral("-c"), open, _link}), 0, patience);
}

void SimulatorProcessTest::aUsageErrorGivesExitCode2()
{
    _simulator->start(QStringLiteral(JVX_SIMULATOR), QStringList());
    QVERIFY(_simulator->waitForFinished(patience));
    QCOMPARE(_simulator->exitCode(), 2);
    QCOMPARE(_simulator->readAllStandardError(), QByteArray("jvx-simulator: option --link is required\n"));
}

void SimulatorProcessTest::aVanishedTerminalComesBackUnderTheSameName()
{
    start({QStringLiteral("--vanish"), QStringLiteral("H"), QStringLiteral("--restart"), QStringLiteral("0.1")});
    {
        const Port port(_link);
        port.write(QByteArray::fromHex("404a5658000000000100000003005d5b2a3f48"));
        QCOMPARE(port.read(1), QByteArray());
    }
    QTRY_VERIFY_WITH_TIMEOUT(recorded().endsWith("# unplugged\n# link up\n"), patience);
    const Port port(_link);
    port.write(ask_serial_number);
    QCOMPARE(port.read(serial_number.size()), serial_number);
}

void SimulatorProcessTest::aTerminalMayStayAway()
{
    start({QStringLiteral("--vanish=S"), QStringLiteral("--restart=0.05"), QStringLiteral("--no-return")});
    const Port port(_link);
    port.write(ask_serial_number);
    QCOMPARE(port.read(1), QByteArray());
    QTRY_VERIFY_WITH_TIMEOUT(recorded().endsWith("# unplugged\n"), patience);
    QTest::qWait(200);
    QVERIFY(recorded().endsWith("# unplugged\n"));
    QVERIFY(!QFileInfo(_link).isSymbolicLink());
}

void SimulatorProcessTest::theAnswerToAnApplyIsNotLostInTheRestart()
{
    // The file "123456789" of kind 2, written and applied.
    const QByteArray write_keys = QByteArray::fromHex(
        "404a565800000000010000001c0029302a214657020000000000000000090009000000313233343536373839");
    const QByteArray apply_keys = QByteArray::fromHex("404a565800000000010000000d003a322a21465502000000002639f4cb");
    const QByteArray keys_applied = QByteArray::fromHex("404a565801000000000000000a004a452a404655310200000000");
    constexpr qsizetype keys_written_size = 32;

    start({QStringLiteral("--files"), _directory->path(), QStringLiteral("--restart=0.1")});
    const Port port(_link);
    port.write(write_keys);
    QCOMPARE(port.read(keys_written_size).size(), keys_written_size);
    port.write(apply_keys);
    QTest::qWait(100); // a slow reader
    QVERIFY(!recorded().contains("unplugged"));
    QCOMPARE(port.read(keys_applied.size()), keys_applied);
    QTRY_VERIFY_WITH_TIMEOUT(recorded().endsWith("# unplugged\n# link up\n"), patience);

    QCOMPARE(files::content(_directory->filePath(QStringLiteral("keys"))), QByteArray("123456789"));
}

void SimulatorProcessTest::aDelayedSplitAnswerArrivesBeforeTheDrop()
{
    start({QStringLiteral("--drop-at=1:after"), QStringLiteral("--no-return"), QStringLiteral("--latency=100"),
        QStringLiteral("--split=every")});
    const Port port(_link);
    port.write(ask_serial_number);
    QCOMPARE(port.read(serial_number.size()), serial_number);
    QTRY_VERIFY_WITH_TIMEOUT(recorded().endsWith("# unplugged\n"), patience);
}

void SimulatorProcessTest::theLogAtFullSpeedLosesNothing()
{
    constexpr int count = 5000;
    QByteArray texts;
    QByteArray expected;
    for (int i = 0; i < count; ++i) {
        const QByteArray text = "text " + QByteArray::number(i);
        texts += text + '\n';
        expected += text + '|';
    }
    const QString path = _directory->filePath(QStringLiteral("texts"));
    files::store(path, texts);

    start({QStringLiteral("--mask=4000"), QStringLiteral("--log"), path, QStringLiteral("--log-rate=max")});
    const Port port(_link);
    QTest::qWait(200);                         // the line fills up
    constexpr qsizetype overhead = 16 + 5 + 8; // packet header, "*>LOG", record header
    const QByteArray bytes = port.read(count * (overhead - 1) + expected.size());
    QByteArray received;
    for (qsizetype at = 0; at + overhead <= bytes.size();) {
        const qsizetype end = at + 16 + static_cast<quint8>(bytes[at + 12]);
        received += bytes.sliced(at + overhead, end - at - overhead) + '|';
        at = end;
    }
    QCOMPARE(received.size(), expected.size());
    QVERIFY(received == expected);
}

void SimulatorProcessTest::theLogKeepsItsRate()
{
    QElapsedTimer timer;
    timer.start();
    start({QStringLiteral("--mask=8"), QStringLiteral("--log-rate=200")});
    const Port port(_link);
    constexpr qsizetype record_size = 16 + 5 + 8 + 6;
    QCOMPARE(port.read(100 * record_size).size(), 100 * record_size);
    // The first record is due at once and each further one 5 ms after the one before, however late this end reads.
    QVERIFY2(timer.elapsed() >= 99 * 5, qPrintable(QString::number(timer.elapsed())));
}

void SimulatorProcessTest::recordsAreGluedAroundAnAnswer()
{
    start({QStringLiteral("--log-always")});
    const Port port(_link);
    port.write(ask_serial_number);
    constexpr qsizetype overhead = 16 + 5 + 8; // packet header, "*>LOG", record header
    const QByteArray first = "#0 ignition on\r\n";
    const QByteArray second = "#1 supply voltage 12.6 V";
    const qsizetype size = overhead + first.size() + serial_number.size() + overhead + second.size();
    const QByteArray bytes = port.read(size);
    QCOMPARE(bytes.size(), size);
    QVERIFY(bytes.contains(first + serial_number));
    QVERIFY(bytes.endsWith(second));
}

QTEST_GUILESS_MAIN(SimulatorProcessTest)
#include "tst_simulator_process.moc"
