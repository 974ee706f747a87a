#include "console.h"
#include "localfiles.h"
#include "lock.h"
#include "simulatedterminal.h"
#include "testbed.h"
#include "tool.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <csignal>

/// ./run: the tool, on a simulated terminal if none is attached or one is asked for.
class RunScriptTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void anAttachedTerminalIsUsed();
    void theToolGetsTheOptionsAsTheyAre_data();
    void theToolGetsTheOptionsAsTheyAre();
    void theExitCodeIsThatOfTheTool();
    void aForeignDeviceIsNoTerminal();
    void withOptionsNoTerminalIsSimulated_data();
    void withOptionsNoTerminalIsSimulated();
    void aSimulatedTerminalIsUsedOnDemand_data();
    void aSimulatedTerminalIsUsedOnDemand();
    void aFileIsAppliedOnASimulatedTerminal_data();
    void aFileIsAppliedOnASimulatedTerminal();
    void standardInputIsTheCallers();
    void theSimulatedTerminalEndsWithTheTool_data();
    void theSimulatedTerminalEndsWithTheTool();
};

namespace {

const QString script = QStringLiteral(JVX_SOURCE_DIRECTORY "/run");

const QByteArray on_demand = "Using a simulated terminal, ";

enum class End { ByItself, InterruptOfAll, KillOfTheTool };

QTestData &optionsRow(const char *line)
{
    return QTest::newRow(line) << words(line);
}

/// The simulated terminal's port, as the script announces it on standard error in one line; empty if it does not.
QString announcedPort(const QByteArray &errors)
{
    static const QRegularExpression announcement(
        QStringLiteral("^(No terminal is attached: using a simulated one|Using a simulated terminal), (\\S+)\\n$"),
        QRegularExpression::DontCaptureOption);
    static const QRegularExpression port(QStringLiteral("(?<=, )\\S+"));
    const QString text = QString::fromLocal8Bit(errors);
    return announcement.match(text).hasMatch() ? port.match(text).captured() : QString();
}

/// A run on the simulated terminal, which the script announces on standard error.
Run onSimulated(const QString &port, int code, const QByteArray &output,
    const QByteArray &announcement = "No terminal is attached: using a simulated one, ")
{
    Run run = exits(code, output);
    run.errors = announcement + port.toLocal8Bit() + "\n";
    return run;
}

/// \a run without what umockdev remarks on standard error of processes that outlive it, as the simulated terminal does
/// for a moment.
Run withoutRemarks(Run run)
{
    QByteArrayList lines = run.errors.split('\n');
    lines.removeIf([](const QByteArray &line) { return line.startsWith("ERROR: libumockdev-preload: "); });
    run.errors = lines.join('\n');
    return run;
}

/// The process of the tool on the simulated terminal's \a port: the number that the port's name ends with, 0 if none.
pid_t processOn(const QString &port)
{
    return port.section(QLatin1Char('-'), -1).toInt();
}

/// The processes that have \a text in their command line, but for those that only wait to be reaped.
QList<pid_t> processesWith(const QByteArray &text)
{
    QList<pid_t> processes;
    for (const QString &entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        QFile command_line(QStringLiteral("/proc/%1/cmdline").arg(entry));
        if (entry.toInt() > 0 && command_line.open(QIODevice::ReadOnly) && command_line.readAll().contains(text))
            processes += entry.toInt();
    }
    return processes;
}

/// Whether anything is left of the simulated terminal on \a port: its process, its link or the pipe that it waits at.
bool isGone(const QString &port)
{
    const QFileInfo link(port);
    return processesWith(port.toLocal8Bit()).isEmpty()
        && link.dir().entryList({link.fileName() + QLatin1Char('*')}, QDir::AllEntries | QDir::System).isEmpty();
}

/// Where a run writes files that are named without a directory.
class WorkingDirectory {
public:
    WorkingDirectory() { QDir::setCurrent(_directory.path()); }
    ~WorkingDirectory() { QDir::setCurrent(_before); }

    WorkingDirectory(const WorkingDirectory &) = delete;
    WorkingDirectory &operator=(const WorkingDirectory &) = delete;

    QStringList files() const { return QDir(_directory.path()).entryList(QDir::Files); }

private:
    const QString _before = QDir::currentPath();
    const QTemporaryDir _directory;
};

} // namespace

void RunScriptTest::anAttachedTerminalIsUsed()
{
    SimulatedTerminal terminal;
    Testbed testbed({terminalPort(0, "1-1")});
    testbed.connect(0, terminal);
    QCOMPARE(testbed.start({}, {}, script).finish(), exits(0, console::identification(portName(0))));
}

void RunScriptTest::theToolGetsTheOptionsAsTheyAre_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("line");
    optionsRow("-r") << 256 - 101 << QByteArrayLiteral("File name not specified\n");
    optionsRow("-f ''") << 256 - 102 << QByteArrayLiteral("Selected unknown file\n");
    optionsRow("-p nosuch") << 256 - 105
                            << QByteArrayLiteral("Failed to open serial port nosuch: No such file or directory\n");
    optionsRow("--version") << 0 << QByteArrayLiteral("JVX file loader 0.0.8\n");
    for (const char *name : {"a  b", "$HOME", "*", "\"", "'", "\\n", "%s", "`id`", "a\nb"})
        QTest::newRow(name) << QStringList{QStringLiteral("-r"), QString::fromLatin1(name)} << 0
                            << "\nFile saved to '" + QByteArray(name) + "'\n";
}

void RunScriptTest::theToolGetsTheOptionsAsTheyAre()
{
    QFETCH(QStringList, options);
    const WorkingDirectory here;
    SimulatedTerminal terminal;
    Testbed testbed({terminalPort(0, "1-1")});
    testbed.connect(0, terminal);
    const Run run = testbed.start(options, {}, script).finish();
    QFETCH(int, code);
    QFETCH(QByteArray, line);
    QVERIFY2(run.output.endsWith(line), run.output.constData());
    QCOMPARE(run, exits(code, run.output));
    QCOMPARE(here.files(), code == 0 && options.constFirst() == QLatin1String("-r") ? options.mid(1) : QStringList());
}

void RunScriptTest::theExitCodeIsThatOfTheTool()
{
    SimulatedTerminal terminal({QStringLiteral("--silent"), QStringLiteral("V")});
    Testbed testbed({terminalPort(0, "1-1")});
    testbed.connect(0, terminal);
    QCOMPARE(
        testbed.start({}, {}, script).finish(), exits(255, console::checking(portName(0)) + "Error: Timeout(-1)\n"));
}

void RunScriptTest::aForeignDeviceIsNoTerminal()
{
    const Testbed testbed({{0, "1-1", "03eb", "6125"}, {1, "1-2", "03ec", "6124"}, {2, "1-3", "103eb", "61240"}});
    const Run run = withoutRemarks(testbed.start({}, {}, script).finish());
    const QString port = announcedPort(run.errors);
    QCOMPARE(run, onSimulated(port, 0, console::identification(port)));
}

void RunScriptTest::withOptionsNoTerminalIsSimulated_data()
{
    QTest::addColumn<QStringList>("options");
    for (const char *line : {"-m", "-w local.bin", "-r local.bin", "-r --simulated"})
        optionsRow(line);
}

void RunScriptTest::withOptionsNoTerminalIsSimulated()
{
    QFETCH(QStringList, options);
    const WorkingDirectory here;
    const Testbed testbed({{0, "1-1", "03eb", "6125"}});
    const Run run = testbed.start(options, {}, script).finish();
    if (options.last() == QLatin1String("--simulated"))
        QCOMPARE(run.code, 1); // it is no option of the tool
    else
        QCOMPARE(run, exits(256 - 103, "Serial port is not selected\n"));
}

void RunScriptTest::aSimulatedTerminalIsUsedOnDemand_data()
{
    QTest::addColumn<bool>("attached");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("end");
    const QByteArray identified = "\nIMEI: 350000000000017\n\n";
    const QByteArray written = "\nWriting file 'local.bin' to 'keys' ...\n\r100% completed (9/9)\n\n";
    QTest::newRow("nothing attached") << false << QStringList() << identified;
    QTest::newRow("a terminal attached") << true << QStringList() << identified;
    QTest::newRow("to write") << false << words("-w -f keys local.bin") << written;
    QTest::newRow("to write, a terminal attached") << true << words("-wf keys local.bin") << written;
    QTest::newRow("to read") << true << words("-r -f settings local.bin")
                             << QByteArray("\nFile saved to 'local.bin'\n");
}

void RunScriptTest::aSimulatedTerminalIsUsedOnDemand()
{
    QFETCH(bool, attached);
    QFETCH(QStringList, options);
    const WorkingDirectory here;
    files::store(QStringLiteral("local.bin"), "123456789");
    SimulatedTerminal terminal;
    Testbed testbed(attached ? QList{terminalPort(0, "1-1")} : QList<FakedPort>());
    if (attached)
        testbed.connect(0, terminal);
    const Run run = withoutRemarks(testbed.start(words("--simulated") + options, {}, script).finish());
    const QString port = announcedPort(run.errors);
    QFETCH(QByteArray, end);
    QVERIFY2(run.output.startsWith(console::identification(port)), run.output.constData());
    QVERIFY2(run.output.endsWith(end), run.output.constData());
    QCOMPARE(run, onSimulated(port, 0, run.output, on_demand));
    QCOMPARE(terminal.requests(), QByteArrayList());
    QTRY_VERIFY(isGone(port));
}

void RunScriptTest::aFileIsAppliedOnASimulatedTerminal_data()
{
    QTest::addColumn<QByteArray>("kind");
    QTest::newRow("settings") << QByteArray("settings");
    QTest::newRow("firmware") << QByteArray("firmware");
}

void RunScriptTest::aFileIsAppliedOnASimulatedTerminal()
{
    QFETCH(QByteArray, kind);
    const WorkingDirectory here;
    files::store(QStringLiteral("local.bin"), "123456789");
    const Run run
        = withoutRemarks(Testbed().start(words("--simulated -w -f " + kind + " local.bin -a"), {}, script).finish());
    const QString port = announcedPort(run.errors);
    QCOMPARE(run,
        onSimulated(port, 0,
            console::identification(port) + console::writing(QStringLiteral("local.bin"), kind) + console::progress(9)
                + console::written() + console::applying(kind) + console::completed() + console::waiting(port)
                + console::opened(port),
            on_demand));
    QTRY_VERIFY(isGone(port));
}

void RunScriptTest::standardInputIsTheCallers()
{
    const Testbed testbed;
    const QString input = testbed.path(QStringLiteral("ports.umockdev"));
    Tool tool
        = testbed.start({QStringLiteral("-c"), QStringLiteral("exec \"$0\" --simulated -m <\"$1\""), script, input}, {},
            QStringLiteral("sh"));
    QVERIFY(tool.waitForOutput("IMEI"));
    QVERIFY(tool.waitForErrors("\n"));
    const QString port = announcedPort(tool.errors());
    const pid_t process = processOn(port);
    QVERIFY(process > 1);
    QCOMPARE(QFile::symLinkTarget(QStringLiteral("/proc/%1/fd/0").arg(process)), input);
    ::kill(process, SIGTERM);
    QCOMPARE(withoutRemarks(tool.finish()), // with umockdev-run's code
        onSimulated(port, SIGTERM, console::identification(port), on_demand));
    removeLock(port);
}

void RunScriptTest::theSimulatedTerminalEndsWithTheTool_data()
{
    QTest::addColumn<End>("end");
    QTest::newRow("by itself") << End::ByItself;
    QTest::newRow("Ctrl+C") << End::InterruptOfAll;
    QTest::newRow("tool killed") << End::KillOfTheTool;
}

void RunScriptTest::theSimulatedTerminalEndsWithTheTool()
{
    QFETCH(End, end);
    const Testbed testbed;
    const QStringList options = words(end == End::ByItself ? "--simulated" : "--simulated -m");
    Tool tool = testbed.start(options, {}, script);
    QVERIFY(tool.waitForOutput("IMEI"));
    QVERIFY(tool.waitForErrors("\n"));
    const QString port = announcedPort(tool.errors());
    const pid_t process = processOn(port);
    QVERIFY(process > 1);
    if (end == End::InterruptOfAll)
        tool.signalAll(SIGINT);
    else if (end == End::KillOfTheTool)
        ::kill(process, SIGKILL);
    const Run run = withoutRemarks(tool.finish());
    QVERIFY(run.code != hung);
    QCOMPARE(run.code == 0, end == End::ByItself);
    QCOMPARE(run, onSimulated(port, run.code, console::identification(port), on_demand));
    removeLock(port);
    QTRY_VERIFY(isGone(port));
}

QTEST_GUILESS_MAIN(RunScriptTest)
#include "tst_run_script.moc"
