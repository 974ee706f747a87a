#include "localfiles.h"
#include "tool.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSerialPortInfo>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <csignal>

namespace {

/// A port that does not exist, and that no other test names: opening it takes a lock first.
const QString no_port = QStringLiteral("nosuchport-%1").arg(QCoreApplication::applicationPid());

/// \a arguments on that port.
QStringList onNoPort(const QStringList &arguments = {})
{
    return QStringList{QStringLiteral("-p"), no_port} + arguments;
}

Run run(const QStringList &arguments, const QStringList &environment = {})
{
    return Tool(arguments, environment).finish();
}

/// A row that is named after its command line, in which '' stands for an empty argument.
QTestData &commandLine(const char *line)
{
    return QTest::newRow(line) << words(line);
}

void commandLineRows(std::initializer_list<const char *> lines)
{
    QTest::addColumn<QStringList>("arguments");
    for (const char *line : lines)
        commandLine(line);
}

/// Whether a real terminal is attached to this machine: a run that names no port would talk to it.
bool terminalIsConnected()
{
    const QList<QSerialPortInfo> ports = QSerialPortInfo::availablePorts();
    return std::any_of(ports.cbegin(), ports.cend(), [](const QSerialPortInfo &port) {
        return port.vendorIdentifier() == 0x03EB && port.productIdentifier() == 0x6124;
    });
}

const QByteArray cannot_open = "Failed to open serial port " + no_port.toUtf8() + ": No such file or directory\n";

} // namespace

class CommandLineTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aTransferNeedsAFileName_data();
    void aTransferNeedsAFileName();
    void anUnknownKindIsRefused_data();
    void anUnknownKindIsRefused();
    void aKnownKindPasses_data();
    void aKnownKindPasses();
    void withoutAPortNothingStarts_data();
    void withoutAPortNothingStarts();
    void anEmptyPortIsNoPort_data();
    void anEmptyPortIsNoPort();
    void anInvalidLogMaskIsRefused_data();
    void anInvalidLogMaskIsRefused();
    void aValidLogMaskPasses_data();
    void aValidLogMaskPasses();
    void aPortThatDoesNotExistIsReported_data();
    void aPortThatDoesNotExistIsReported();
    void aDeviceFileIsReportedByThePortsName();
    void theFirstFailureDecides_data();
    void theFirstFailureDecides();
    void furtherArgumentsAreIgnored_data();
    void furtherArgumentsAreIgnored();
    void aLocalFileIsLeftAloneWhenThePortDoesNotOpen_data();
    void aLocalFileIsLeftAloneWhenThePortDoesNotOpen();
    void theVersionIsShown_data();
    void theVersionIsShown();
    void theHelpIsShown_data();
    void theHelpIsShown();
    void theHelpHoldsEveryLineInOrder();
    void aMisuseIsExplainedOnStandardError_data();
    void aMisuseIsExplainedOnStandardError();
    void theSurroundingsMakeNoDifference_data();
    void theSurroundingsMakeNoDifference();
    void aWaylandDisplayThatDoesNotAnswerMakesNoDifference();
    void theFrameworkMayBeDebugged();
    void theLastWordsOfTheFrameworkPass();
    void aFullDiskBehindTheOutputIsIgnored();
};

void CommandLineTest::aTransferNeedsAFileName_data()
{
    commandLineRows({"-r", "-w", "-r -w", "-rw", "--read", "--write", "-r -p nosuchport", "-r -f nokey", "-w -f 12",
        "-w -a", "-r -m", "-r -p ''", "-r -l xyz"});
}

void CommandLineTest::aTransferNeedsAFileName()
{
    QFETCH(QStringList, arguments);
    QCOMPARE(run(arguments), exits(155, "File name not specified\n"));
}

void CommandLineTest::anUnknownKindIsRefused_data()
{
    commandLineRows({"-f 12", "-f 100", "-f 255", "-f nokey", "-f Settings", "-f unknown", "-f Unknown", "-f ''",
        "-f -1", "-f -0", "-f 0x1", "-f 1.0", "-f 4294967295", "-f 4294967296", "--file=12", "--file=", "--file nokey",
        "-r file -f 12", "-w file -f nokey", "-a -f 12", "-f 0 -f nokey"});
}

void CommandLineTest::anUnknownKindIsRefused()
{
    QFETCH(QStringList, arguments);
    QCOMPARE(run(onNoPort(arguments)), exits(154, "Selected unknown file\n"));
}

void CommandLineTest::aKnownKindPasses_data()
{
    commandLineRows({"-f 0", "-f 11", "-f 256", "-f 267", "-f settings", "-f user-firmware", "-f road-acc",
        "--file=epo", "--file 10", "-r file -f 256", "-a -f 1", "-f nokey -f 0"});
}

void CommandLineTest::aKnownKindPasses()
{
    QFETCH(QStringList, arguments);
    QCOMPARE(run(onNoPort(arguments)), exits(151, cannot_open));
}

void CommandLineTest::withoutAPortNothingStarts_data()
{
    commandLineRows({"", "-a", "-m", "-l 4000", "-l xyz", "-l 80000000", "-f 256", "-f 0 -a", "file", "-r file",
        "-w file", "-w file -a -m"});
}

void CommandLineTest::withoutAPortNothingStarts()
{
    QFETCH(QStringList, arguments);
    if (terminalIsConnected())
        QSKIP("A terminal is connected");
    QCOMPARE(run(arguments), exits(153, "Serial port is not selected\n"));
}

void CommandLineTest::anEmptyPortIsNoPort_data()
{
    commandLineRows({"-p ''", "--port ''", "--port=", "--port= -l xyz", "-p '' -r file", "-p '' -f 256"});
}

void CommandLineTest::anEmptyPortIsNoPort()
{
    QFETCH(QStringList, arguments);
    QCOMPARE(run(arguments), exits(153, "Serial port is not selected\n"));
}

void CommandLineTest::anInvalidLogMaskIsRefused_data()
{
    commandLineRows({"-l 80000000", "-l FFFFFFFF", "-l 100000000", "-l -80000001", "-l xyz", "-l 4000h", "-l 40.0",
        "-l ''", "-l -", "-l 0x", "--log=", "--log=ffffffff", "--log G", "-m -l xyz", "-r file -l xyz"});
}

void CommandLineTest::anInvalidLogMaskIsRefused()
{
    QFETCH(QStringList, arguments);
    QCOMPARE(run(onNoPort(arguments)), exits(150, "Invalid log mask\n"));
}

void CommandLineTest::aValidLogMaskPasses_data()
{
    commandLineRows({"-l 0", "-l 4000", "-l 7FFFFFFF", "-l 7fffffff", "-l -1", "-l -80000000", "--log=-1", "--log 4000",
        "-m -l ff"});
}

void CommandLineTest::aValidLogMaskPasses()
{
    QFETCH(QStringList, arguments);
    QCOMPARE(run(onNoPort(arguments)), exits(151, cannot_open));
}

void CommandLineTest::aPortThatDoesNotExistIsReported_data()
{
    QTest::addColumn<QString>("port");
    for (const char *port : {"", " ", "ttyACM%1", "%1%2%3", "no such port", "\xd0\x9f\xd0\xbe\xd1\x80\xd1\x82"})
        QTest::newRow(port) << QString::fromUtf8(port) + no_port;
}

void CommandLineTest::aPortThatDoesNotExistIsReported()
{
    QFETCH(QString, port);
    const QByteArray message = "Failed to open serial port " + port.toUtf8() + ": No such file or directory\n";
    QCOMPARE(run({QStringLiteral("-p"), port}), exits(151, message));
    QCOMPARE(run({QStringLiteral("--port=") + port}), exits(151, message));
}

// Without "/dev/", as in all other messages about the port.
void CommandLineTest::aDeviceFileIsReportedByThePortsName()
{
    QCOMPARE(run({QStringLiteral("-p"), QStringLiteral("/dev/") + no_port}), exits(151, cannot_open));
}

void CommandLineTest::theFirstFailureDecides_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("message");
    commandLine("-l xyz -p '' -f nokey -r") << 155 << QByteArray("File name not specified\n");
    commandLine("-l xyz -p '' -f nokey") << 154 << QByteArray("Selected unknown file\n");
    commandLine("-l xyz -p '' -f nokey file -w") << 154 << QByteArray("Selected unknown file\n");
    commandLine("-f nokey") << 154 << QByteArray("Selected unknown file\n");
    commandLine("-l xyz -p ''") << 153 << QByteArray("Serial port is not selected\n");
    QTest::newRow("-l xyz, no such port") << onNoPort(words("-l xyz")) << 150 << QByteArray("Invalid log mask\n");
    QTest::newRow("-l 4000, no such port") << onNoPort(words("-l 4000")) << 151 << cannot_open;
}

void CommandLineTest::theFirstFailureDecides()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, code);
    QFETCH(QByteArray, message);
    QCOMPARE(run(arguments), exits(code, message));
}

void CommandLineTest::furtherArgumentsAreIgnored_data()
{
    commandLineRows(
        {"file", "one two three", "-r one two three", "-w one two", "-r -w one two", "-r -- -f", "-- -r -w"});
}

void CommandLineTest::furtherArgumentsAreIgnored()
{
    QFETCH(QStringList, arguments);
    QCOMPARE(run(onNoPort(arguments)), exits(151, cannot_open));
}

void CommandLineTest::aLocalFileIsLeftAloneWhenThePortDoesNotOpen_data()
{
    commandLineRows({"-r", "-w", "-r -w", "-w -a"});
}

void CommandLineTest::aLocalFileIsLeftAloneWhenThePortDoesNotOpen()
{
    QFETCH(QStringList, arguments);
    const QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("file"));
    QCOMPARE(run(onNoPort(arguments) + QStringList{path}), exits(151, cannot_open));
    QVERIFY(QDir(directory.path()).isEmpty());

    files::store(path, "kept");
    QCOMPARE(run(onNoPort(arguments) + QStringList{path}), exits(151, cannot_open));
    QCOMPARE(files::content(path), QByteArrayLiteral("kept"));
}

void CommandLineTest::theVersionIsShown_data()
{
    commandLineRows({"-v", "--version", "-v -r", "--version -f nokey", "file -v -p ''"});
}

void CommandLineTest::theVersionIsShown()
{
    QFETCH(QStringList, arguments);
    QCOMPARE(run(arguments), exits(0, "JVX file loader 0.0.8\n"));
}

void CommandLineTest::theHelpIsShown_data()
{
    commandLineRows({"-h", "--help", "-h -r", "--help -f nokey", "file -h -p ''"});
}

void CommandLineTest::theHelpIsShown()
{
    QFETCH(QStringList, arguments);
    const Run result = run(arguments);
    QVERIFY(result.output.startsWith("Usage: "));
    QVERIFY(result.output.contains(" [options] file\nJVX file loader\n"));
    QCOMPARE(result, exits(0, result.output));
}

void CommandLineTest::theHelpHoldsEveryLineInOrder()
{
    const QString help = QString::fromLocal8Bit(run(words("--help")).output);
    qsizetype from = 0;
    // The framework breaks lines that are too long, such as the one of kind 8.
    for (const char *line :
        {"\n  -h, --help ", "\n  -v, --version ", "\n  -f, --file <type>  File type:\n",
            " 0 | settings        Settings\n", " 1 | firmware        Firmware\n", " 2 | keys            Keys\n",
            " 3 | road-acc        Road accident\n", " 4 | can-decode      Can decode\n",
            " 5 | tachograph-ddd  Tachograph DDD\n", " 6 | fls-firmware    Firmware of fuel level sensor\n",
            " 7 | complexevents   ComplexEvents program\n", " 8 | fls-archive     Archive of fuel level sensor\n",
            " (Escort)\n", " 9 | can-scripts     Can scripts\n", " 10 | epo            EPO file\n",
            " 11 | user-firmware  User firmware\n", "\n  -r, --read         Read\n", "\n  -w, --write        Write\n",
            "\n  -p, --port <name>  Serial port\n", "\n  -a, --apply        Apply the written file\n",
            "\n  -m, --monitor      Monitoring device log\n",
            "\n  -l, --log <mask>   Enable/disable log (mask in HEX)\n", "\n  file               Read/write file.\n"}) {
        const qsizetype at = help.indexOf(QString::fromLatin1(line), from);
        QVERIFY2(at >= 0, line);
        from = at + 1;
    }
}

void CommandLineTest::aMisuseIsExplainedOnStandardError_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("named");
    commandLine("--nosuchoption") << QByteArrayLiteral("nosuchoption");
    commandLine("-x") << QByteArrayLiteral("'x'");
    commandLine("-r file -x") << QByteArrayLiteral("'x'");
    commandLine("-f") << QByteArrayLiteral("-f");
    commandLine("--file") << QByteArrayLiteral("--file");
    commandLine("-p") << QByteArrayLiteral("-p");
    commandLine("-l") << QByteArrayLiteral("-l");
    commandLine("-r -p") << QByteArrayLiteral("-p");
}

void CommandLineTest::aMisuseIsExplainedOnStandardError()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, named);
    const Run result = run(arguments);
    QVERIFY2(result.errors.contains(named), result.errors.constData());
    QCOMPARE(result, fails(1, result.errors));
}

void CommandLineTest::theSurroundingsMakeNoDifference_data()
{
    QTest::addColumn<QStringList>("environment");
    const auto row = [](const char *name, const char *environment) { QTest::newRow(name) << words(environment); };
    row("no display", "");
    row("no display, C locale", "LC_ALL=C");
    row("no display, no locale", "LC_ALL LANG");
    row("empty display", "DISPLAY=");
    row("dead display", "DISPLAY=:77");
    row("dead display, C locale", "DISPLAY=:77 LC_ALL=C");
    row("dead Wayland display", "WAYLAND_DISPLAY=:77");
    row("dead Wayland session", "XDG_SESSION_TYPE=wayland");
    row("dead Wayland and X displays", "WAYLAND_DISPLAY=:77 DISPLAY=:77");
    row("dead Wayland and X displays of another desktop",
        "WAYLAND_DISPLAY=:77 DISPLAY=:77 XDG_CURRENT_DESKTOP=ubuntu:GNOME");
    row("no platform named", "QT_QPA_PLATFORM=");
    row("offscreen", "QT_QPA_PLATFORM=offscreen");
    row("offscreen, C locale", "QT_QPA_PLATFORM=offscreen LC_ALL=C");
    row("offscreen, dead display", "QT_QPA_PLATFORM=offscreen DISPLAY=:77");
    row("minimal", "QT_QPA_PLATFORM=minimal");
    row("no home", "HOME XDG_RUNTIME_DIR");
}

void CommandLineTest::theSurroundingsMakeNoDifference()
{
    QFETCH(QStringList, environment);
    QCOMPARE(run(onNoPort(), environment), exits(151, cannot_open));
    QCOMPARE(run(words("-r"), environment), exits(155, "File name not specified\n"));
    QCOMPARE(run(words("--version"), environment), exits(0, "JVX file loader 0.0.8\n"));
    QCOMPARE(run(words("--help"), environment), exits(0, run(words("--help")).output));
}

void CommandLineTest::aWaylandDisplayThatDoesNotAnswerMakesNoDifference()
{
    const QTemporaryDir directory; // with a file like the socket that a crashed compositor leaves
    files::store(directory.filePath(QStringLiteral("left")), {});
    QCOMPARE(run(words("--version"),
                 {QStringLiteral("XDG_RUNTIME_DIR=") + directory.path(), QStringLiteral("WAYLAND_DISPLAY=left")}),
        exits(0, "JVX file loader 0.0.8\n"));
}

// The framework's warnings do not reach standard error, but the messages that a user asks it for do.
void CommandLineTest::theFrameworkMayBeDebugged()
{
    const Run debugged = run(words("--version"), words("QT_DEBUG_PLUGINS=1"));
    QCOMPARE(debugged.code, 0);
    QCOMPARE(debugged.output, QByteArray("JVX file loader 0.0.8\n"));
    QVERIFY(debugged.errors.contains("qt.core.plugin"));
}

// The framework aborts the process if the user names a platform that does not exist; its message has to be printed.
void CommandLineTest::theLastWordsOfTheFrameworkPass()
{
    const QStringList command{QStringLiteral("-c"), QStringLiteral("ulimit -c 0; exec \"$@\""), QStringLiteral("sh")};
    Tool tool(QStringLiteral("sh"), command + QStringList{Tool::path()}, words("QT_QPA_PLATFORM=nonsense"));
    const Run result = tool.finish();
    QVERIFY2(result.errors.contains("no Qt platform plugin could be initialized"), result.errors.constData());
    QCOMPARE(result, fails(endedBy(SIGABRT), result.errors));
}

void CommandLineTest::aFullDiskBehindTheOutputIsIgnored()
{
    const QString full = QStringLiteral("/dev/full");
    if (!QFile::exists(full))
        QSKIP("No /dev/full here");
    const QStringList command{QStringLiteral("-c"), QStringLiteral("exec \"$@\" >/dev/full"), QStringLiteral("sh")};
    Tool tool(QStringLiteral("sh"), command + QStringList{Tool::path()} + onNoPort(), {});
    QCOMPARE(tool.finish(), exits(151, {}));
}

QTEST_GUILESS_MAIN(CommandLineTest)
#include "tst_commandline.moc"
