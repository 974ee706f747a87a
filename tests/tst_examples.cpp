#include "localfiles.h"
#include "lock.h"
#include "simulatedterminal.h"
#include "testbed.h"
#include "tool.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <array>
#include <csignal>
#include <memory>
#include <vector>

/// The example scripts, in the shells that users have.
class ExamplesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void firmwareIsFlashedSafely();
    void flashSafelySaysWhichStepFailed_data();
    void flashSafelySaysWhichStepFailed();
    void flashSafelyBelievesWhatTheTerminalSaysNotTheExitCode_data();
    void flashSafelyBelievesWhatTheTerminalSaysNotTheExitCode();
    void flashSafelyRefusesABadCommandLine_data();
    void flashSafelyRefusesABadCommandLine();
    void flashSafelyFindsTheOneTerminal();
    void flashSafelyDoesNotChooseAmongSeveralTerminals();
    void flashSafelySaysWhatAnInterruptLeavesBehind_data();
    void flashSafelySaysWhatAnInterruptLeavesBehind();

    void flashAllFlashesEveryTerminalAndNothingElse();
    void flashAllTellsWhatAnInterruptLeavesBehind();
    void flashAllRefusesABadCommandLine();

    void listTerminalsAsksEveryTerminalAndNothingElse();
    void listTerminalsNamesPortsThatLast_data();
    void listTerminalsNamesPortsThatLast();

    void watchLogComesBackWithTheTerminal();
    void watchLogEndsWhereThereIsNothingToWatch();

private:
    QString path(const QString &name) const { return _directory->filePath(name); }
    QString own(const QString &shell) const;
    QStringList backups(const QString &shell) const;
    QString standIn(const QString &shell, const QByteArray &script) const;

    std::unique_ptr<QTemporaryDir> _directory;
};

namespace {

const QStringList shells{QStringLiteral("dash"), QStringLiteral("bash"), QStringLiteral("zsh")};
const QString imei = QStringLiteral("350000000000017");

QString example(const QString &name)
{
    return QStringLiteral(JVX_SOURCE_DIRECTORY "/examples/") + name;
}

/// The search path on which \a folder comes first and then the tool.
QString searchPath(const QString &folder = {})
{
    return QStringLiteral("PATH=") + folder + QLatin1Char(':') + QFileInfo(Tool::path()).path() + QLatin1Char(':')
        + qEnvironmentVariable("PATH");
}

/// Runs the example \a words in \a shell, in \a folder.
std::unique_ptr<Tool> start(
    const QString &shell, const QString &folder, const QStringList &words, const QString &stand_ins = {})
{
    const QString in_folder = QStringLiteral("cd \"$1\" && shift && exec \"$@\"");
    const QStringList command{QStringLiteral("-c"), in_folder, shell, folder, shell, example(words.first())};
    return std::make_unique<Tool>(
        QStringLiteral("sh"), command + words.mid(1), QStringList{searchPath(stand_ins), QStringLiteral("PS4=")});
}

QByteArray lastLine(const QByteArray &text)
{
    return text.trimmed().split('\n').last();
}

/// The line of \a text with this \a beginning, with one blank between its fields.
QString simplified(const QByteArray &text, const QString &beginning)
{
    for (const QString &line : QString::fromUtf8(text).split(QLatin1Char('\n'))) {
        if (line.startsWith(beginning))
            return line.simplified();
    }
    return {};
}

/// Two terminals and another device, whose port must not be opened.
class Bench {
public:
    explicit Bench(const char *first = "", const char *second = "")
        : terminals{SimulatedTerminal(words(first)), SimulatedTerminal(words(second)), SimulatedTerminal()}
        , testbed({terminalPort(0, "1-1"), terminalPort(1, "1-2"), {2, "1-3", "03eb", "6125"}})
    {
        for (int number = 0; number < 3; ++number) {
            testbed.connect(number, terminals.at(static_cast<size_t>(number)));
            link("by-id", number);
        }
    }

    ~Bench()
    {
        for (int number = 0; number < 3; ++number)
            removeLock(QStringLiteral("serial/by-id/") + linkName(number));
    }

    Bench(const Bench &) = delete;
    Bench &operator=(const Bench &) = delete;

    static QString linkName(int number) { return QStringLiteral("usb-JVX_") + portName(number); }

    /// Makes udev's link to that port in \a folder, for the runs to come.
    void link(const char *folder, int number)
    {
        links += QStringLiteral("mkdir -p $UMOCKDEV_DIR/dev/serial/%1; ln -s ../../%2 "
                                "$UMOCKDEV_DIR/dev/serial/%1/%3; ")
                     .arg(QLatin1String(folder), portName(number), linkName(number));
    }

    Tool start(const QString &shell, const QString &folder, const QStringList &words) const
    {
        const QString prelude = links + QStringLiteral("cd \"$1\"; shift; exec \"$@\"");
        const QStringList command{
            QStringLiteral("-c"), prelude, QStringLiteral("sh"), folder, shell, example(words[0])};
        return testbed.start(command + words.mid(1), {searchPath()}, QStringLiteral("sh"));
    }

    /// Whether the last request to the terminal of that number is one to write.
    bool isWritten(int number) const
    {
        const QByteArrayList requests = requestsTo(number);
        return !requests.isEmpty() && requests.last().startsWith(QByteArray("*!FW").toHex());
    }

    QByteArrayList requestsTo(int number) const { return terminals.at(static_cast<size_t>(number)).requests(); }

    std::array<SimulatedTerminal, 3> terminals;
    Testbed testbed;
    QString links;
};

} // namespace

void ExamplesTest::init()
{
    _directory = std::make_unique<QTemporaryDir>();
    for (const QString &shell : shells)
        QVERIFY(QDir(_directory->path()).mkdir(shell));
    files::store(path(QStringLiteral("new.bin")), files::sample(1300));
}

void ExamplesTest::cleanup()
{
    _directory.reset();
}

/// The folder that the example runs in.
QString ExamplesTest::own(const QString &shell) const
{
    return path(shell);
}

QStringList ExamplesTest::backups(const QString &shell) const
{
    return QDir(own(shell)).entryList({QStringLiteral("*.bin")}, QDir::Files);
}

/// Puts a script in the place of the tool, which it finds as $TOOL, for runs in \a shell. Returns its folder.
QString ExamplesTest::standIn(const QString &shell, const QByteArray &script) const
{
    const QString folder = path(shell + QStringLiteral("-stand-in"));
    QDir().mkpath(folder);
    const QString name = folder + QStringLiteral("/jvx-loader");
    files::store(name, "#!/bin/sh\nTOOL=" + Tool::path().toLocal8Bit() + '\n' + script);
    QFile::setPermissions(name, QFile::ReadOwner | QFile::ExeOwner);
    return folder;
}

void ExamplesTest::firmwareIsFlashedSafely()
{
    std::vector<std::unique_ptr<FilingTerminal>> terminals;
    std::vector<std::unique_ptr<Tool>> runs;
    for (const QString &shell : shells) {
        terminals.push_back(std::make_unique<FilingTerminal>(words("--next-version 1.5.0 --restart 0.3")));
        files::store(terminals.back()->own(QStringLiteral("firmware")), "old firmware");
        runs.push_back(start(shell, own(shell),
            {QStringLiteral("flash-safely"), QStringLiteral("firmware"), path(QStringLiteral("new.bin")),
                terminals.back()->port()}));
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        const QString &shell = shells[static_cast<int>(i)];
        const Run run = runs[i]->finish();
        QCOMPARE(lastLine(run.output),
            QByteArray("DONE, applied and checked: IMEI 350000000000017, version 1.4.2 -> 1.5.0"));
        QCOMPARE(run, exits(0, run.output));
        QCOMPARE(files::content(terminals[i]->own(QStringLiteral("firmware"))), files::sample(1300));
        static const QRegularExpression name(QStringLiteral("^350000000000017-firmware-\\d{8}-\\d{6}\\.bin$"));
        QCOMPARE(backups(shell).size(), 1);
        QVERIFY2(name.match(backups(shell).first()).hasMatch(), qPrintable(backups(shell).first()));
        QCOMPARE(files::content(own(shell) + QLatin1Char('/') + backups(shell).first()), QByteArray("old firmware"));
    }
}

void ExamplesTest::flashSafelySaysWhichStepFailed_data()
{
    QTest::addColumn<QByteArray>("terminal");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<bool>("without_backup");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("result");
    const auto row = [](const char *name, const char *terminal, const char *kind, int code, const char *result,
                         bool without_backup = false) {
        QTest::newRow(name) << QByteArray(terminal) << QString::fromLatin1(kind) << without_backup << code
                            << QByteArray(result);
    };
    const char *not_given
        = "FAILED, the terminal does not give 'keys' back (to go on all the same: --without-backup); ";
    row("silent", "--silent V", "keys", 2,
        "FAILED, the terminal is not identified; nothing was written: IMEI -, version - -> -");
    row("not given back", "--status FR:1=03", "keys", 3,
        (QByteArray(not_given) + "nothing was written: IMEI 350000000000017, version 1.4.2 -> -").constData());
    row("nothing given back", "--answer FR=0002", "keys", 3,
        (QByteArray(not_given) + "nothing was written: IMEI 350000000000017, version 1.4.2 -> -").constData());
    row("not given back, told to go on", "--status FR:1=03 --status FR:2=03 --restart 0.3", "keys", 0,
        "DONE, applied and checked: IMEI 350000000000017, version 1.4.2 -> 1.4.2", true);
    row("write refused", "--status FW:2=04", "keys", 4,
        "FAILED, the write did not come to its end; half of the file may be written, nothing is applied: "
        "IMEI 350000000000017, version 1.4.2 -> -");
    row("write that only seems to succeed", "--answer FW=0002", "keys", 4,
        "FAILED, the write did not come to its end; half of the file may be written, nothing is applied: "
        "IMEI 350000000000017, version 1.4.2 -> -");
    row("not given back the second time", "--status FR:2=03", "keys", 5,
        (QByteArray(not_given) + "the file is written, but not applied: IMEI 350000000000017, version 1.4.2 -> -")
            .constData());
    row("another content", "--answer FR=31020100000000000000030003000000616263", "keys", 5,
        "FAILED, what is read back differs; the file is written, but not applied: "
        "IMEI 350000000000017, version 1.4.2 -> -");
    row("second write refused", "--status FW:4=04", "keys", 6,
        "FAILED, the second write did not come to its end; half of the file may be written, nothing is applied: "
        "IMEI 350000000000017, version 1.4.2 -> -");
    row("apply refused", "--status FU:1=07", "keys", 6,
        "FAILED, the terminal does not apply the file; the file is written, but not applied: "
        "IMEI 350000000000017, version 1.4.2 -> -");
    row("apply not answered", "--silent FU", "keys", 7,
        "FAILED, the apply was not answered; the file may be applied: IMEI 350000000000017, version 1.4.2 -> 1.4.2");
    row("the same version", "--restart 0.3", "firmware", 8,
        "FAILED, the version is the same as before; the file is applied: "
        "IMEI 350000000000017, version 1.4.2 -> 1.4.2");
}

void ExamplesTest::flashSafelySaysWhichStepFailed()
{
    QFETCH(QByteArray, terminal);
    QFETCH(QString, kind);
    QFETCH(bool, without_backup);
    QFETCH(int, code);
    QFETCH(QByteArray, result);
    std::vector<std::unique_ptr<SimulatedTerminal>> terminals;
    std::vector<std::unique_ptr<Tool>> runs;
    for (const QString &shell : shells) {
        terminals.push_back(std::make_unique<SimulatedTerminal>(words(terminal)));
        QStringList arguments{QStringLiteral("flash-safely")};
        if (without_backup)
            arguments += QStringLiteral("--without-backup");
        arguments += {kind, path(QStringLiteral("new.bin")), terminals.back()->port()};
        runs.push_back(start(shell, own(shell), arguments));
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        const Run run = runs[i]->finish();
        QCOMPARE(lastLine(run.output), result);
        QCOMPARE(run, exits(code, run.output));
        QCOMPARE(backups(shells[static_cast<int>(i)]).size(), code > 3 ? 1 : 0);
    }
}

void ExamplesTest::flashSafelyBelievesWhatTheTerminalSaysNotTheExitCode_data()
{
    QTest::addColumn<QByteArray>("stand_in");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("result");
    QTest::newRow("applied, and slow to listen afterwards")
        << QByteArray("case \"$*\" in *' -a '*) \"$TOOL\" \"$@\"; echo 'Error: Timeout(-1)'; exit 255; esac\n"
                      "exec \"$TOOL\" \"$@\"\n")
        << 0 << QByteArray("DONE, applied and checked: IMEI 350000000000017, version 1.4.2 -> 1.4.2");
    QTest::newRow("applied, and not seen back")
        << QByteArray("case \"$*\" in *' -w -a '*) shift 4; \"$TOOL\" -p \"$port\" -w \"$@\"; "
                      "printf \"Apply file 'keys' ...\\nCompleted\\n\\nWaiting device ...\\n\"; exit 144; esac\n"
                      "exec \"$TOOL\" \"$@\"\n")
        << 7
        << QByteArray("FAILED, the terminal did not come back; the file is applied: "
                      "IMEI 350000000000017, version 1.4.2 -> -");
    QTest::newRow("another terminal afterwards")
        << QByteArray("case \"$*\" in *' -w -a '*) : >\"$0.applied\"; esac\n"
                      "[ -e \"$0.applied\" ] || exec \"$TOOL\" \"$@\"\n"
                      "\"$TOOL\" \"$@\" | sed 's/^IMEI: 3/IMEI: 4/'\n")
        << 7
        << QByteArray("FAILED, another terminal, 450000000000017, is on this port now; the file is applied: "
                      "IMEI 350000000000017, version 1.4.2 -> 1.4.2");
    QTest::newRow("a full disk")
        << QByteArray("\"$TOOL\" \"$@\" || exit\ncase \"$*\" in *' -r '*) for file; do :; done; : >\"$file\"; esac\n")
        << 3
        << QByteArray("FAILED, the terminal does not give 'keys' back (to go on all the same: --without-backup); "
                      "nothing was written: IMEI 350000000000017, version 1.4.2 -> -");
    QTest::newRow("the first answer lost") << QByteArray("[ -e \"$0.asked\" ] || { : >\"$0.asked\"; exit 255; }\n"
                                                         "case \"$*\" in *' -r '*) exit 3; esac\n"
                                                         "exec \"$TOOL\" \"$@\"\n")
                                           << 3
                                           << QByteArray("FAILED, the terminal does not give 'keys' back (to go on all "
                                                         "the same: --without-backup); nothing was written: "
                                                         "IMEI 350000000000017, version 1.4.2 -> -");
}

void ExamplesTest::flashSafelyBelievesWhatTheTerminalSaysNotTheExitCode()
{
    QFETCH(QByteArray, stand_in);
    QFETCH(int, code);
    QFETCH(QByteArray, result);
    std::vector<std::unique_ptr<SimulatedTerminal>> terminals;
    std::vector<std::unique_ptr<Tool>> runs;
    for (const QString &shell : shells) {
        terminals.push_back(std::make_unique<SimulatedTerminal>(words("--restart 0.3")));
        const QString port = terminals.back()->port();
        runs.push_back(start(shell, own(shell),
            {QStringLiteral("flash-safely"), QStringLiteral("keys"), path(QStringLiteral("new.bin")), port},
            standIn(shell, "port=" + port.toLocal8Bit() + '\n' + stand_in)));
    }
    for (const auto &tool : runs) {
        const Run run = tool->finish();
        QCOMPARE(lastLine(run.output), result);
        QCOMPARE(run, exits(code, run.output));
    }
}

void ExamplesTest::flashSafelyRefusesABadCommandLine_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("complaint");
    const QByteArray usage = "Usage: flash-safely [--without-backup] KIND FILE [PORT]\n";
    QTest::newRow("nothing") << QStringList() << usage;
    QTest::newRow("no kind") << QStringList{QStringLiteral("FILE")} << usage;
    QTest::newRow("an empty kind") << QStringList{QString(), QStringLiteral("FILE"), QStringLiteral("PORT")}
                                   << "No kind of file is named.\n" + usage;
    QTest::newRow("no file") << QStringList{QStringLiteral("keys")} << usage;
    QTest::newRow("a missing file") << words("keys nosuch PORT")
                                    << "There is no file 'nosuch' that can be read.\n" + usage;
    QTest::newRow("a folder") << words("keys . PORT") << "There is no file '.' that can be read.\n" + usage;
    QTest::newRow("an empty file") << words("keys /dev/null/../../EMPTY PORT") << QByteArray();
    QTest::newRow("too much") << words("keys FILE PORT more") << usage;
    QTest::newRow("an unknown kind") << words("nosuch FILE PORT") << QByteArray("There is no kind of file 'nosuch'.\n");
}

void ExamplesTest::flashSafelyRefusesABadCommandLine()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, complaint);
    const SimulatedTerminal terminal;
    files::store(path(QStringLiteral("empty.bin")), {});
    if (complaint.isEmpty()) {
        arguments[1] = path(QStringLiteral("empty.bin"));
        complaint = "The file '" + arguments[1].toLocal8Bit() + "' is empty: a terminal does not apply it.\n";
    }
    arguments.replaceInStrings(QStringLiteral("FILE"), path(QStringLiteral("new.bin")));
    arguments.replaceInStrings(QStringLiteral("PORT"), terminal.port());
    for (const QString &shell : shells) {
        const Run run = start(shell, own(shell), QStringList{QStringLiteral("flash-safely")} + arguments)->finish();
        QCOMPARE(run.errors, complaint);
        QCOMPARE(run.code, 1);
    }
    QCOMPARE(terminal.requests(), QByteArrayList());
}

void ExamplesTest::flashSafelyFindsTheOneTerminal()
{
    for (const QString &shell : shells) {
        const SimulatedTerminal terminal(words("--status FR:1=03"));
        Testbed testbed({terminalPort(3, "1-1"), {4, "1-2", "03eb", "6125"}, {5, "1-3", "03ec", "6124"}});
        testbed.connect(3, terminal);
        const Run run = testbed
                            .start({example(QStringLiteral("flash-safely")), QStringLiteral("keys"),
                                       path(QStringLiteral("new.bin"))},
                                {searchPath()}, shell)
                            .finish();
        QCOMPARE(run, exits(3, run.output));
        QVERIFY(run.output.contains("Serial port open: " + portName(3).toLatin1()));
    }
}

void ExamplesTest::flashSafelyDoesNotChooseAmongSeveralTerminals()
{
    const Bench bench;
    const QString link = QStringLiteral("/dev/serial/by-id/");
    const QString complaint = QStringLiteral("Several terminals are attached, name one of these:\n%1\n%2\n")
                                  .arg(link + Bench::linkName(0), link + Bench::linkName(1));
    for (const QString &shell : shells) {
        Tool tool = bench.start(shell, own(shell),
            {QStringLiteral("flash-safely"), QStringLiteral("keys"), path(QStringLiteral("new.bin"))});
        QCOMPARE(tool.finish(), fails(1, complaint.toLatin1()));
        QCOMPARE(bench.requestsTo(0) + bench.requestsTo(1), QByteArrayList());
    }
}

void ExamplesTest::flashSafelySaysWhatAnInterruptLeavesBehind_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("Ctrl+C") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void ExamplesTest::flashSafelySaysWhatAnInterruptLeavesBehind()
{
    QFETCH(int, signal);
    for (const QString &shell : shells) {
        const SimulatedTerminal terminal(words("--accept 0")); // so the write never ends
        const auto tool = start(shell, own(shell),
            {QStringLiteral("flash-safely"), QStringLiteral("keys"), path(QStringLiteral("new.bin")), terminal.port()});
        QVERIFY(tool->waitForOutput("0% completed (0/1300)"));
        if (signal == SIGINT)
            tool->signalAll(signal);
        else
            tool->process().terminate();
        const Run run = tool->finish();
        QCOMPARE(lastLine(run.output),
            QByteArray("INTERRUPTED; half of the file may be written, nothing is applied: "
                       "IMEI 350000000000017, version 1.4.2 -> -"));
        QCOMPARE(run.code, 130);
        QTRY_COMPARE(runOn(terminal.port()).code, 0); // nobody holds the port
    }
}

void ExamplesTest::flashAllFlashesEveryTerminalAndNothingElse()
{
    for (const QString &shell : shells) {
        const Bench bench("--next-version 1.5.0 --restart 0.3 --imei 1111", "--imei 2222 --status FW:1=04");
        const Run run
            = bench
                  .start(shell, own(shell),
                      {QStringLiteral("flash-all"), QStringLiteral("firmware"), path(QStringLiteral("new.bin"))})
                  .finish();
        QCOMPARE(run, exits(4, run.output));
        QVERIFY2(run.output.startsWith("Flashing 2 terminals."), run.output.constData());
        QCOMPARE(simplified(run.output, QStringLiteral("PORT")), QStringLiteral("PORT IMEI BEFORE AFTER RESULT"));
        QCOMPARE(simplified(run.output, Bench::linkName(0)),
            Bench::linkName(0) + QStringLiteral(" 1111 1.4.2 1.5.0 DONE, applied and checked"));
        QCOMPARE(simplified(run.output, Bench::linkName(1)),
            Bench::linkName(1)
                + QStringLiteral(" 2222 1.4.2 - FAILED, the write did not come to its end; half of the file may be "
                                 "written, nothing is applied"));
        QCOMPARE(run.output.count("usb-JVX"), 2);
        QCOMPARE(bench.requestsTo(2), QByteArrayList());
        QCOMPARE(QDir(own(shell)).entryList({QStringLiteral("flash-*-usb-JVX_*.log")}).size(), 2);
        QCOMPARE(backups(shell).size(), 2);
    }
}

void ExamplesTest::flashAllTellsWhatAnInterruptLeavesBehind()
{
    for (const QString &shell : shells) {
        const Bench bench("--accept 0 --imei 1111", "--accept 0 --imei 2222");
        Tool tool = bench.start(
            shell, own(shell), {QStringLiteral("flash-all"), QStringLiteral("keys"), path(QStringLiteral("new.bin"))});
        for (int number : {0, 1})
            QTRY_VERIFY_WITH_TIMEOUT(bench.isWritten(number), 10'000);
        tool.signalAll(SIGINT);
        Run run = tool.finish();
        for (int number : {0, 1}) {
            QCOMPARE(simplified(run.output, Bench::linkName(number)),
                Bench::linkName(number)
                    + QStringLiteral(" %1 1.4.2 - INTERRUPTED; half of the file may be written, nothing is applied")
                          .arg(number == 0 ? 1111 : 2222));
            QTRY_COMPARE(runOn(bench.terminals.at(static_cast<size_t>(number)).port()).code, 0);
        }
        QCOMPARE(run.errors, QByteArray());
    }
}

void ExamplesTest::flashAllRefusesABadCommandLine()
{
    const Bench bench;
    const QByteArray usage = "Usage: flash-all [--without-backup] KIND FILE\n";
    for (const QString &shell : shells) {
        const QString script = QStringLiteral("flash-all");
        QCOMPARE(bench.start(shell, own(shell), {script}).finish(), fails(1, usage));
        QCOMPARE(bench.start(shell, own(shell), {script, QStringLiteral("keys")}).finish(), fails(1, usage));
        QCOMPARE(bench.start(shell, own(shell), {script, QString(), path(QStringLiteral("new.bin"))}).finish(),
            fails(1, usage));
        QCOMPARE(bench.start(shell, own(shell), {script, QStringLiteral("keys"), QStringLiteral("nosuch")}).finish(),
            fails(1, "There is no file 'nosuch' that can be read.\n" + usage));
    }
    QCOMPARE(bench.requestsTo(0) + bench.requestsTo(1), QByteArrayList());
}

void ExamplesTest::listTerminalsAsksEveryTerminalAndNothingElse()
{
    const Bench bench("--imei 1111 --software-version 1.0", "--silent V");
    for (const QString &shell : shells) {
        const Run run = bench.start(shell, own(shell), {QStringLiteral("list-terminals")}).finish();
        QCOMPARE(run, exits(2, run.output));
        QCOMPARE(simplified(run.output, portName(0)),
            QStringLiteral("%1 /dev/serial/by-id/%2 1111 1.0").arg(portName(0), Bench::linkName(0)));
        QCOMPARE(simplified(run.output, portName(1)),
            QStringLiteral("%1 /dev/serial/by-id/%2 - Error: Timeout(-1)").arg(portName(1), Bench::linkName(1)));
        QCOMPARE(run.output.count('\n'), 2);
    }
    QCOMPARE(bench.requestsTo(2), QByteArrayList());
    for (const QString &shell : shells)
        QCOMPARE(Testbed().start({example(QStringLiteral("list-terminals"))}, {searchPath()}, shell).finish(),
            fails(1, "No terminal is attached.\n"));
}

void ExamplesTest::listTerminalsNamesPortsThatLast_data()
{
    QTest::addColumn<QByteArrayList>("first");
    QTest::addColumn<QByteArrayList>("second");
    QTest::addColumn<QString>("folder");
    const QByteArray by_id = "by-id";
    const QByteArray by_path = "by-path";
    QTest::newRow("all by-id") << QByteArrayList{by_id, by_path} << QByteArrayList{by_id, by_path}
                               << QStringLiteral("serial/by-id/usb-JVX_");
    QTest::newRow("one without by-id") << QByteArrayList{by_id, by_path} << QByteArrayList{by_path}
                                       << QStringLiteral("serial/by-path/usb-JVX_");
    QTest::newRow("no links") << QByteArrayList() << QByteArrayList() << QString();
}

void ExamplesTest::listTerminalsNamesPortsThatLast()
{
    QFETCH(QByteArrayList, first);
    QFETCH(QByteArrayList, second);
    QFETCH(QString, folder);
    Bench bench;
    bench.links.clear();
    for (const QByteArray &links : first)
        bench.link(links.constData(), 0);
    for (const QByteArray &links : second)
        bench.link(links.constData(), 1);
    const QString expected = QStringLiteral("/dev/%1%2\n/dev/%1%3\n").arg(folder, portName(0), portName(1));
    for (const QString &shell : shells)
        QCOMPARE(bench.start(shell, own(shell), {QStringLiteral("list-terminals"), QStringLiteral("--ports")}).finish(),
            exits(0, expected.toLatin1()));
    QCOMPARE(bench.requestsTo(0) + bench.requestsTo(1), QByteArrayList());
}

void ExamplesTest::watchLogComesBackWithTheTerminal()
{
    for (const QString &shell : shells) {
        // The terminal drops off behind its answer to the log mask, so its log comes only after the restart.
        const SimulatedTerminal terminal(words("--drop-at 4:after --restart 0.3 --log-rate 20"));
        const auto tool = start(shell, own(shell), {QStringLiteral("watch-log"), terminal.port()});
        QVERIFY(tool->waitForOutput("ignition on"));
        tool->signalAll(SIGINT);
        const Run run = tool->finish();
        QCOMPARE(run.code, 130);
        QCOMPARE(run.output.count("IMEI: "), 2);
        QCOMPARE(run.errors, "Waiting for the terminal on " + terminal.port().toLocal8Bit() + " ...\n");
        QTRY_COMPARE(runOn(terminal.port()).code, 0);
    }
}

void ExamplesTest::watchLogEndsWhereThereIsNothingToWatch()
{
    const QByteArray missing = "Failed to open serial port nosuch: No such file or directory\n";
    for (const QString &shell : shells) {
        QCOMPARE(start(shell, own(shell), {QStringLiteral("watch-log"), QStringLiteral("nosuch")})->finish(),
            exits(256 - 105, missing));
        QCOMPARE(Testbed().start({example(QStringLiteral("watch-log"))}, {searchPath()}, shell).finish(),
            fails(1, "No terminal is attached.\n"));
    }
}

QTEST_GUILESS_MAIN(ExamplesTest)
#include "tst_examples.moc"
