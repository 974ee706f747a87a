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

/// ./run: the tool, on a simulated terminal where none is attached and no port is named.
class RunScriptTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void anAttachedTerminalIsUsed();
    void anAttachedTerminalGetsTheOptionsAsTheyAre_data();
    void anAttachedTerminalGetsTheOptionsAsTheyAre();
    void theExitCodeIsThatOfTheTool();
    void aForeignDeviceIsNoTerminal();
    void withoutATerminalASimulatedOneIsUsed_data();
    void withoutATerminalASimulatedOneIsUsed();
    void withoutATerminalNothingIsWritten_data();
    void withoutATerminalNothingIsWritten();
    void aSimulatedTerminalIsUsedOnDemand_data();
    void aSimulatedTerminalIsUsedOnDemand();
    void aSimulatedTerminalHasNoOtherPort_data();
    void aSimulatedTerminalHasNoOtherPort();
    void aFileIsAppliedOnASimulatedTerminal_data();
    void aFileIsAppliedOnASimulatedTerminal();
    void aNamedPortIsLeftAlone_data();
    void aNamedPortIsLeftAlone();
    void standardInputIsTheCallers();
    void theSimulatedTerminalEndsWithTheTool_data();
    void theSimulatedTerminalEndsWithTheTool();
};

namespace {

const QString script = QStringLiteral(JVX_SOURCE_DIRECTORY "/run");

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

/// The tool that runs on the simulated terminal's \a port, which is named after it; 0 if the port's name is another.
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

void RunScriptTest::anAttachedTerminalGetsTheOptionsAsTheyAre_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("line");
    optionsRow("-r") << 256 - 101 << QByteArrayLiteral("File name not specified\n");
    optionsRow("-f 12") << 256 - 102 << QByteArrayLiteral("Selected unknown file\n");
    optionsRow("-f ''") << 256 - 102 << QByteArrayLiteral("Selected unknown file\n");
    optionsRow("-p ''") << 256 - 103 << QByteArrayLiteral("Serial port is not selected\n");
    optionsRow("-l -") << 256 - 106 << QByteArrayLiteral("Invalid log mask\n");
    optionsRow("--version") << 0 << QByteArrayLiteral("JVX file loader 0.0.8\n");
    for (const char *name : {"a  b", "$HOME", "*", "\"", "'", "\\n", "%s", "`id`", "a\nb"})
        QTest::newRow(name) << QStringList{QStringLiteral("-r"), QString::fromLatin1(name)} << 0
                            << "\nFile saved to '" + QByteArray(name) + "'\n";
}

void RunScriptTest::anAttachedTerminalGetsTheOptionsAsTheyAre()
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
    const Run run = testbed.start({}, {}, script).finish();
    const QString port = announcedPort(run.errors);
    QCOMPARE(run, onSimulated(port, 0, console::identification(port)));
}

void RunScriptTest::withoutATerminalASimulatedOneIsUsed_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("end");
    QTest::newRow("no options") << QStringList() << 0 << QByteArrayLiteral("\nIMEI: 350000000000017\n\n");
    for (const char *line : {"-f p", "-fp", "-f=p", "--file p", "--file=p", "-f -p", "--file --port", "-mf p", "-mfp"})
        optionsRow(line) << 256 - 102 << QByteArrayLiteral("Selected unknown file\n");
    for (const char *line : {"-l p", "-lp", "-l=p", "--log p", "--log=p", "-l -p", "--log -p", "-ml p", "-rl p name"})
        optionsRow(line) << 256 - 106 << QByteArrayLiteral("Invalid log mask\n");
    for (const char *line : {"-- -p x", "-- --port=x", "- p", "p", "port x", "-f 1 -- -px"})
        optionsRow(line) << 0 << QByteArrayLiteral("\nIMEI: 350000000000017\n\n");
    optionsRow("-r -- -p") << 0 << QByteArrayLiteral("\nFile saved to '-p'\n");
    optionsRow("-r -f settings p") << 0 << QByteArrayLiteral("\nFile saved to 'p'\n");
    for (const char *line : {"-f w", "-fw", "-mf w", "--file=w", "-f -w", "-f --write"})
        optionsRow(line) << 256 - 102 << QByteArrayLiteral("Selected unknown file\n");
    for (const char *line : {"-- -w", "w", "-session -w"})
        optionsRow(line) << 0 << QByteArrayLiteral("\nIMEI: 350000000000017\n\n");
    for (const char *line : {"-platform minimal", "--platform minimal", "-reverse", "-session p"})
        optionsRow(line) << 0 << QByteArrayLiteral("\nIMEI: 350000000000017\n\n");
}

void RunScriptTest::withoutATerminalASimulatedOneIsUsed()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, end);
    const WorkingDirectory here;
    const Run run = Testbed().start(options, {}, script).finish();
    const QString port = announcedPort(run.errors);
    QVERIFY2(
        run.output == end || run.output.startsWith(console::identification(port).chopped(1)), run.output.constData());
    QVERIFY2(run.output.endsWith(end), run.output.constData());
    QFETCH(int, code);
    QCOMPARE(run, onSimulated(port, code, run.output));
    QTRY_VERIFY(isGone(port));
}

void RunScriptTest::withoutATerminalNothingIsWritten_data()
{
    QTest::addColumn<QStringList>("options");
    for (const char *line : {"-w local.bin", "--write local.bin", "-wa local.bin", "-aw local.bin",
             "-wf firmware local.bin", "-f firmware -w local.bin", "-ffirmware -w local.bin", "local.bin -w",
             "-l -1 -w local.bin", "-rw local.bin", "-w", "-w -- -p"})
        optionsRow(line);
}

void RunScriptTest::withoutATerminalNothingIsWritten()
{
    QFETCH(QStringList, options);
    const WorkingDirectory here;
    files::store(QStringLiteral("local.bin"), "123456789");
    const Testbed testbed({{0, "1-1", "03eb", "6125"}});
    QCOMPARE(testbed.start(options, {}, script).finish(),
        fails(256 - 103,
            "No terminal is attached and no port is named: nothing is written. To try it on a simulated "
            "terminal: ./run --simulated -w ...\n"));
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
    const Run run = testbed.start(words("--simulated") + options, {}, script).finish();
    const QString port = announcedPort(run.errors);
    QFETCH(QByteArray, end);
    QVERIFY2(run.output.startsWith(console::identification(port)), run.output.constData());
    QVERIFY2(run.output.endsWith(end), run.output.constData());
    QCOMPARE(run, onSimulated(port, 0, run.output, "Using a simulated terminal, "));
    QCOMPARE(terminal.requests(), QByteArrayList());
    QTRY_VERIFY(isGone(port));
}

void RunScriptTest::aSimulatedTerminalHasNoOtherPort_data()
{
    QTest::addColumn<QStringList>("options");
    for (const char *line : {"--simulated -p X", "--simulated -wpX local.bin", "--simulated --port=X"})
        optionsRow(line);
}

void RunScriptTest::aSimulatedTerminalHasNoOtherPort()
{
    QFETCH(QStringList, options);
    QCOMPARE(Testbed().start(options, {}, script).finish(), fails(1, "A port is named beside --simulated.\n"));
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
    const Run run = Testbed().start(words("--simulated -w -f " + kind + " local.bin -a"), {}, script).finish();
    const QString port = announcedPort(run.errors);
    QCOMPARE(run,
        onSimulated(port, 0,
            console::identification(port) + console::writing(QStringLiteral("local.bin"), kind) + console::progress(9)
                + console::written() + console::applying(kind) + console::completed() + console::waiting(port)
                + console::opened(port),
            "Using a simulated terminal, "));
    QTRY_VERIFY(isGone(port));
}

void RunScriptTest::aNamedPortIsLeftAlone_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("output");
    for (const char *line : {"-p X", "-pX", "-p=X", "--port X", "--port=X", "-mp X", "-mpX", "-mp=X", "-rp X name",
             "-r name -p X", "name -p X", "-f 1 -p X", "-f1 -pX", "-l -1 -p X", "-w local.bin -p X", "-wpX local.bin",
             "--file 1 --port X", "--log 0 -p X", "-amrpX name"})
        optionsRow(line) << 256 - 105 << QByteArrayLiteral("Failed to open serial port X: No such file or directory\n");
    optionsRow("-f -- -p X") << 256 - 102 << QByteArrayLiteral("Selected unknown file\n");
    optionsRow("-f -p --port X") << 256 - 102 << QByteArrayLiteral("Selected unknown file\n");
    optionsRow("-l -p -p X") << 256 - 106 << QByteArrayLiteral("Invalid log mask\n");
    optionsRow("-p --") << 256 - 105 << QByteArrayLiteral("Failed to open serial port --: No such file or directory\n");
    optionsRow("--port=") << 256 - 103 << QByteArrayLiteral("Serial port is not selected\n");
    for (const char *line : {"-v", "--version", "-mv", "-f p -v", "-w -v", "-wv", "--simulated -v"})
        optionsRow(line) << 0 << QByteArrayLiteral("JVX file loader 0.0.8\n");
}

void RunScriptTest::aNamedPortIsLeftAlone()
{
    QFETCH(QStringList, options);
    QFETCH(int, code);
    QFETCH(QByteArray, output);
    QCOMPARE(Testbed().start(options, {}, script).finish(), exits(code, output));
}

void RunScriptTest::standardInputIsTheCallers()
{
    const Testbed testbed;
    const QString input = testbed.path(QStringLiteral("ports.umockdev"));
    Tool tool = testbed.start(
        {QStringLiteral("-c"), QStringLiteral("exec \"$0\" -m <\"$1\""), script, input}, {}, QStringLiteral("sh"));
    QVERIFY(tool.waitForOutput("IMEI"));
    QVERIFY(tool.waitForErrors("\n"));
    const QString port = announcedPort(tool.errors());
    const pid_t process = processOn(port);
    QVERIFY(process > 1);
    QCOMPARE(QFile::symLinkTarget(QStringLiteral("/proc/%1/fd/0").arg(process)), input);
    ::kill(process, SIGTERM);
    QCOMPARE(tool.finish(), onSimulated(port, SIGTERM, console::identification(port))); // the code is umockdev-run's
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
    const QStringList options = end == End::ByItself ? QStringList() : QStringList{QStringLiteral("-m")};
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
    const Run run = tool.finish();
    QVERIFY(run.code != hung);
    QCOMPARE(run.code == 0, end == End::ByItself);
    QCOMPARE(run, onSimulated(port, run.code, console::identification(port)));
    removeLock(port);
    QTRY_VERIFY(isGone(port));
}

QTEST_GUILESS_MAIN(RunScriptTest)
#include "tst_run_script.moc"
