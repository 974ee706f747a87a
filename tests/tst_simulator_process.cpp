#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <poll.h>
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
    void anOldLinkIsReplaced();
    void aRegularFileIsLeftAlone();
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
    [[nodiscard]] QByteArray recorded() const;

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
    QCOMPARE(_simulator->readAllStandardOutput(), QByteArray());
}

void SimulatorProcessTest::start(const QStringList &arguments)
{
    _simulator->start(QStringLiteral(JVX_SIMULATOR),
        QStringList{QStringLiteral("--link"), _link, QStringLiteral("--record"), _record} + arguments);
    QVERIFY(_simulator->waitForStarted(patience));
    QTRY_VERIFY_WITH_TIMEOUT(recorded() == "# link up\n", patience);
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
    port.write(QByteArray("\r\n") + ask_serial_number + ask_serial_number.first(5));
    QCOMPARE(port.read(serial_number.size()), serial_number);
    _simulator->terminate();
    QVERIFY(_simulator->waitForFinished(patience));
    QCOMPARE(_simulator->readAllStandardError(),
        QByteArray("jvx-simulator: malformed request: bytes outside a packet: 0d0a\n"
                   "jvx-simulator: malformed request: incomplete packet: 404a565800\n"));
    QCOMPARE(_simulator->exitCode(), 1);
}

void SimulatorProcessTest::theNameGoesAwayAtTheEnd_data()
{
    QTest::addColumn<bool>("by_end_of_input");
    QTest::newRow("SIGTERM") << false;
    QTest::newRow("end of input") << true;
}

void SimulatorProcessTest::theNameGoesAwayAtTheEnd()
{
    QFETCH(const bool, by_end_of_input);
    start({QStringLiteral("--until-eof")});
    QVERIFY(QFileInfo(_link).isSymbolicLink());
    _simulator->write("ignored");
    if (by_end_of_input)
        _simulator->closeWriteChannel();
    else
        _simulator->terminate();
    QVERIFY(_simulator->waitForFinished(patience));
    QCOMPARE(_simulator->exitCode(), 0);
    QVERIFY(!QFileInfo(_link).isSymbolicLink());
}

void SimulatorProcessTest::anOldLinkIsReplaced()
{
    QVERIFY(QFile::link(QStringLiteral("/nowhere"), _link));
    start();
    QVERIFY(QFileInfo(_link).symLinkTarget().startsWith(QStringLiteral("/dev/pts/")));
}

void SimulatorProcessTest::aRegularFileIsLeftAlone()
{
    QFile file(_link);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("precious");
    file.close();
    _simulator->start(QStringLiteral(JVX_SIMULATOR), {QStringLiteral("--link"), _link});
    QVERIFY(_simulator->waitForFinished(patience));
    QCOMPARE(_simulator->exitCode(), 2);
    QVERIFY(_simulator->readAllStandardError().contains("is not a symbolic link"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("precious"));
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

    QFile file(_directory->filePath(QStringLiteral("keys")));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("123456789"));
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
    QFile texts(_directory->filePath(QStringLiteral("texts")));
    QVERIFY(texts.open(QIODevice::WriteOnly));
    QByteArray expected;
    for (int i = 0; i < count; ++i) {
        const QByteArray text = "text " + QByteArray::number(i);
        texts.write(text + '\n');
        expected += text + '|';
    }
    texts.close();

    start({QStringLiteral("--mask=4000"), QStringLiteral("--log"), texts.fileName(), QStringLiteral("--log-rate=max")});
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
