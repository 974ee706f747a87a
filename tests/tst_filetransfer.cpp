#include "console.h"
#include "localfiles.h"
#include "sanitizers.h"
#include "simulatedterminal.h"
#include "tool.h"

#include <QFile>
#include <QTest>

/// The tool reads and writes files of a terminal; both are processes of their own, on either end of a pseudo-terminal.
class FileTransferTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aFileIsReadWhole_data() { addSizes(); }
    void aFileIsReadWhole();
    void aFileIsWrittenWhole_data() { addSizes(); }
    void aFileIsWrittenWhole();
    void theProgressIsRewrittenInPlace();
    void aPieceIsWrittenWhereTheOneBeforeEnded();
    void aFileOfEveryKindIsRead_data();
    void aFileOfEveryKindIsRead();
    void theDefaultKindIsUserFirmware();

    void savingOverALongerFileLeavesTheBytesRead();
    void theAnnouncedSizeDecidesWhenAReadIsOver_data();
    void theAnnouncedSizeDecidesWhenAReadIsOver();
    void piecesLargerThanAskedForAreTaken();
    void readingExcludesWriting();
    void onlyTheFirstPathCounts();
    void oddPathsComeOutUnchanged_data();
    void oddPathsComeOutUnchanged();

    void aRefusedReadLeavesTheLocalFileAlone_data();
    void aRefusedReadLeavesTheLocalFileAlone();
    void aRefusedWriteLeavesTheOldFileAlone_data();
    void aRefusedWriteLeavesTheOldFileAlone();
    void aStatusOfZeroReadsAsNoError();
    void aStatusOfZeroCountsAsWritten();
    void anAnswerForAnotherKindIsIgnored_data();
    void anAnswerForAnotherKindIsIgnored();
    void aSilentTerminalTimesOut_data();
    void aSilentTerminalTimesOut();

    void aPathThatCannotBeSavedToEndsTheRun();
    void aLocalFileThatCannotBeReadEndsTheRun_data();
    void aLocalFileThatCannotBeReadEndsTheRun();
    void aLocalFileThatIsTooLargeEndsTheRun();
    void aPipeMayBringTheFile();
    void aPipeThatBringsTooMuchEndsTheRun();
    void fewerBytesAcceptedThanSentAreSentAgain();

    void anApplyCarriesTheChecksum();
    void aRefusedApplyEndsTheRun();
    void anApplyWithoutAnswerEndsTheRun_data();
    void anApplyWithoutAnswerEndsTheRun();
    void aFileWithChecksumZeroIsNotApplied_data();
    void aFileWithChecksumZeroIsNotApplied();

private:
    static void addSizes();
};

using files::content;
using files::sample;
using files::store;

namespace {

constexpr int timeout = 256 - 1;
constexpr int file_error = 256 - 111;

/// A terminal with files, and runs of the tool with a local file on it.
class FileTerminal : public FilingTerminal {
public:
    using FilingTerminal::FilingTerminal;

    QString local() const { return path(QStringLiteral("local.bin")); }

    QString settings() const { return own(QStringLiteral("settings")); }

    Run run(const char *options) const { return runOn(port(), options, local()); }

    /// A run that prints \a behind after the identification.
    Run ends(int code, const QByteArray &behind) const { return exits(code, console::identification(port()) + behind); }

    /// How many requests came after the identification.
    qsizetype furtherRequests() const { return requests().size() - 3; }
};

QByteArray errorLine(const QByteArray &error)
{
    return "Error: " + error + "\n";
}

QByteArray accessError(const QString &path, const QByteArray &reason)
{
    return errorLine("Failed to access to file '" + path.toLocal8Bit() + "' (" + reason + ")");
}

/// How a transfer ends that fails on the way.
QByteArray brokenOff(const QByteArray &error)
{
    return "\n\n" + errorLine(error);
}

} // namespace

void FileTransferTest::addSizes()
{
    QTest::addColumn<qsizetype>("size");
    for (const int size : {0, 1, 511, 512, 513, 1024, 1025, 1024 * 1024})
        QTest::addRow("%d bytes", size) << qsizetype{size};
}

void FileTransferTest::aFileIsReadWhole()
{
    QFETCH(qsizetype, size);
    FileTerminal terminal;
    store(terminal.settings(), sample(size));
    QCOMPARE(terminal.run("-r -f settings"),
        terminal.ends(0, console::reading("settings") + console::progress(size) + console::saved(terminal.local())));
    QCOMPARE(content(terminal.local()), sample(size));
}

void FileTransferTest::aFileIsWrittenWhole()
{
    QFETCH(qsizetype, size);
    FileTerminal terminal;
    store(terminal.local(), sample(size));
    QCOMPARE(terminal.run("-w -f can-scripts"),
        terminal.ends(
            0, console::writing(terminal.local(), "can-scripts") + console::progress(size) + console::written()));
    QCOMPARE(content(terminal.own(QStringLiteral("can-scripts"))), sample(size));
    QCOMPARE(terminal.requests().constLast(), log_mask_request);
}

void FileTransferTest::theProgressIsRewrittenInPlace()
{
    FileTerminal terminal;
    store(terminal.local(), sample(1300));
    QCOMPARE(terminal.run("-w -f settings"),
        terminal.ends(0,
            console::writing(terminal.local(), "settings")
                + "\r39% completed (512/1300)\r78% completed (1024/1300)\r100% completed (1300/1300)\n\n"));
}

void FileTransferTest::aPieceIsWrittenWhereTheOneBeforeEnded()
{
    FileTerminal terminal;
    store(terminal.local(), sample(1300));
    QCOMPARE(terminal.run("-w -f settings").code, 0);
    // Handle 0 and offset 0 at first; then the handle of the answer before and the position that it acknowledged.
    const QByteArrayList requests = terminal.requests();
    QCOMPARE(requests.size(), 3 + 3 + 1);
    const QByteArray front = "2a214657"
                             "00";
    QVERIFY(requests[3].startsWith(front
        + "00000000"
          "00000000"
          "0002"
          "14050000"));
    QVERIFY(requests[4].startsWith(front));
    QVERIFY(requests[4].mid(18).startsWith("00020000"
                                           "0002"
                                           "14050000"));
    QVERIFY(requests[5].mid(18).startsWith("00040000"
                                           "1401"
                                           "14050000"));
    QVERIFY(requests[4].mid(10, 8) != "00000000");
    QCOMPARE(requests[5].mid(10, 8), requests[4].mid(10, 8));
}

void FileTransferTest::aFileOfEveryKindIsRead_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("request");
    const QByteArrayList keys{"settings", "firmware", "keys", "road-acc", "can-decode", "tachograph-ddd",
        "fls-firmware", "complexevents", "fls-archive", "can-scripts", "epo", "user-firmware"};
    for (int kind = 0; kind < keys.size(); ++kind) {
        const QByteArray request = "2a214652" + QByteArray(1, static_cast<char>(kind)).toHex()
            + "00000000"
              "00000000"
              "0002";
        QTest::newRow(keys[kind].constData()) << QString::fromLatin1(keys[kind]) << keys[kind] << request;
        QTest::addRow("%d", kind) << QString::number(kind) << keys[kind] << request;
    }
    QTest::newRow("256") << QStringLiteral("256") << QByteArray("settings")
                         << QByteArray("2a214652"
                                       "00"
                                       "00000000"
                                       "00000000"
                                       "0002");
}

void FileTransferTest::aFileOfEveryKindIsRead()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, key);
    QFETCH(QByteArray, request);
    FileTerminal terminal;
    const QByteArray text = "of " + key;
    store(terminal.own(QString::fromLatin1(key)), text);
    const Run run = Tool(argumentsOn(terminal.port(), "-r -f") + QStringList{kind, terminal.local()}).finish();
    QCOMPARE(run,
        terminal.ends(0, console::reading(key) + console::progress(text.size()) + console::saved(terminal.local())));
    QCOMPARE(content(terminal.local()), text);
    QCOMPARE(terminal.requests().value(3), request);
}

void FileTransferTest::theDefaultKindIsUserFirmware()
{
    FileTerminal terminal;
    store(terminal.own(QStringLiteral("user-firmware")), "the user's");
    const Run run = Tool(argumentsOn(terminal.port(), "-r", terminal.local()) + words("ignored")).finish();
    QCOMPARE(run,
        terminal.ends(0, console::reading("user-firmware") + console::progress(10) + console::saved(terminal.local())));
    QCOMPARE(content(terminal.local()), QByteArray("the user's"));
}

void FileTransferTest::savingOverALongerFileLeavesTheBytesRead()
{
    FileTerminal terminal;
    store(terminal.settings(), "short");
    store(terminal.local(), sample(5000));
    QCOMPARE(terminal.run("-r -f settings"),
        terminal.ends(0, console::reading("settings") + console::progress(5) + console::saved(terminal.local())));
    QCOMPARE(content(terminal.local()), QByteArray("short"));
}

void FileTransferTest::theAnnouncedSizeDecidesWhenAReadIsOver_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QString>("announced");
    QTest::addColumn<int>("received");
    QTest::addColumn<QByteArray>("lines");
    const auto row = [](const char *name, int size, const char *announced, int received, const char *lines) {
        QTest::newRow(name) << size << QString::fromLatin1(announced) << received << QByteArray(lines);
    };
    row("more than delivered", 1000, "5000", 1000, "\r10% completed (512/5000)\r100% completed (1000/1000)");
    row("less than delivered", 1024, "1000", 1000, "\r51% completed (512/1000)\r100% completed (1000/1000)");
    row("one piece of two", 1024, "512", 512, "\r100% completed (512/512)");
    row("nothing", 1024, "0", 0, "\r100% completed (0/0)");
    row("4294967295, which is -1", 1000, "4294967295", 1000,
        "\r-51200% completed (512/-1)\r100% completed (1000/1000)");
    row("2147483648, the smallest int", 1000, "2147483648", 1000,
        "\r0% completed (512/-2147483648)\r100% completed (1000/1000)");
}

void FileTransferTest::theAnnouncedSizeDecidesWhenAReadIsOver()
{
    QFETCH(int, size);
    QFETCH(QString, announced);
    QFETCH(int, received);
    QFETCH(QByteArray, lines);
    FileTerminal terminal({QStringLiteral("--announce"), announced});
    store(terminal.own(QStringLiteral("epo")), sample(size));
    QCOMPARE(terminal.run("-r -f epo"),
        terminal.ends(0, console::reading("epo") + lines + console::saved(terminal.local())));
    QCOMPARE(content(terminal.local()), sample(size).first(received));
}

void FileTransferTest::piecesLargerThanAskedForAreTaken()
{
    FileTerminal terminal(words("--piece 600"));
    store(terminal.own(QStringLiteral("epo")), sample(1300));
    QCOMPARE(terminal.run("-r -f epo"),
        terminal.ends(0, console::reading("epo") + console::progress(1300, 600) + console::saved(terminal.local())));
    QCOMPARE(content(terminal.local()), sample(1300));
}

void FileTransferTest::readingExcludesWriting()
{
    FileTerminal terminal;
    store(terminal.settings(), "the terminal's");
    store(terminal.local(), "the user's");
    QCOMPARE(terminal.run("-w -r -a -f settings"),
        terminal.ends(0, console::reading("settings") + console::progress(14) + console::saved(terminal.local())));
    QCOMPARE(content(terminal.local()), QByteArray("the terminal's"));
    QCOMPARE(content(terminal.settings()), QByteArray("the terminal's"));
    QCOMPARE(terminal.furtherRequests(), 1 + 1);
}

void FileTransferTest::onlyTheFirstPathCounts()
{
    FileTerminal terminal;
    const QString other = terminal.path(QStringLiteral("other.bin"));
    store(terminal.local(), "first");
    store(other, "second");
    const auto run = [&](const char *options) {
        return Tool(argumentsOn(terminal.port(), options, terminal.local()) + QStringList{other}).finish();
    };
    QCOMPARE(run("-w -f settings"),
        terminal.ends(0, console::writing(terminal.local(), "settings") + console::progress(5) + console::written()));
    QCOMPARE(content(terminal.settings()), QByteArray("first"));
    QCOMPARE(run("-r -f settings"),
        terminal.ends(0, console::reading("settings") + console::progress(5) + console::saved(terminal.local())));
    QCOMPARE(content(other), QByteArray("second"));
}

void FileTransferTest::oddPathsComeOutUnchanged_data()
{
    QTest::addColumn<QString>("name");
    for (const char *name : {"with blanks .bin", "%1", "%2 %1 %L3 %n", "\xC3\xA9\xE2\x82\xAC\xE6\x96\x87.bin"})
        QTest::newRow(name) << QString::fromUtf8(name);
}

void FileTransferTest::oddPathsComeOutUnchanged()
{
    QFETCH(QString, name);
    FileTerminal terminal;
    store(terminal.settings(), "text");
    const QString local = terminal.path(name);
    QCOMPARE(runOn(terminal.port(), "-r -f settings", local),
        terminal.ends(0, console::reading("settings") + console::progress(4) + console::saved(local)));
    QCOMPARE(content(local), QByteArray("text"));
    QCOMPARE(runOn(terminal.port(), "-w -f settings", local),
        terminal.ends(0, console::writing(local, "settings") + console::progress(4) + console::written()));
    const QString missing = terminal.path(QStringLiteral("no/") + name);
    QCOMPARE(runOn(terminal.port(), "-w -f settings", missing),
        terminal.ends(file_error, accessError(missing, "No such file or directory")));
}

static void addStatusRows()
{
    QTest::addColumn<int>("request");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("printed");
    const auto row = [](int request, int status, const char *printed) {
        QTest::addRow("%02x at piece %d", static_cast<unsigned>(status), request)
            << request << status << QByteArray(printed);
    };
    row(1, 0x01, "1");
    row(1, 0x30, "48");
    row(2, 0x02, "2");
    row(2, 0x7F, "127");
    row(1, 0x80, "Unknown(-128)");
    row(2, 0xC8, "Unknown(-56)");
    row(1, 0xFD, "Unknown(-3)");
    row(1, 0xFE, "Unknown response(-2)");
    row(1, 0xFF, "Timeout(-1)");
}

/// The option for a terminal that answers the request \a number of \a key with \a status.
static QStringList refusal(const char *key, int number, int status)
{
    return {QStringLiteral("--status"),
        QStringLiteral("%1:%2=%3").arg(QLatin1String(key)).arg(number).arg(status, 2, 16, QLatin1Char('0'))};
}

void FileTransferTest::aRefusedReadLeavesTheLocalFileAlone_data()
{
    addStatusRows();
}

void FileTransferTest::aRefusedReadLeavesTheLocalFileAlone()
{
    QFETCH(int, request);
    QFETCH(int, status);
    QFETCH(QByteArray, printed);
    FileTerminal terminal(refusal("FR", request, status));
    store(terminal.settings(), sample(1300));
    store(terminal.local(), "old");
    const QByteArray progress = request == 1 ? QByteArray() : console::progressAt(512, 1300);
    QCOMPARE(terminal.run("-r -f settings"),
        terminal.ends(status, console::reading("settings") + progress + brokenOff(printed)));
    QCOMPARE(content(terminal.local()), QByteArray("old"));
}

void FileTransferTest::aRefusedWriteLeavesTheOldFileAlone_data()
{
    addStatusRows();
}

void FileTransferTest::aRefusedWriteLeavesTheOldFileAlone()
{
    QFETCH(int, request);
    QFETCH(int, status);
    QFETCH(QByteArray, printed);
    FileTerminal terminal(refusal("FW", request, status));
    store(terminal.settings(), "old");
    store(terminal.local(), sample(1300));
    const QByteArray progress = request == 1 ? QByteArray() : console::progressAt(512, 1300);
    QCOMPARE(terminal.run("-w -a -f settings"),
        terminal.ends(status, console::writing(terminal.local(), "settings") + progress + brokenOff(printed)));
    QCOMPARE(content(terminal.settings()), QByteArray("old"));
}

void FileTransferTest::aStatusOfZeroReadsAsNoError()
{
    FileTerminal terminal(refusal("FR", 2, 0));
    store(terminal.settings(), sample(1300));
    QCOMPARE(terminal.run("-r -f settings"),
        terminal.ends(
            0, console::reading("settings") + console::progressAt(512, 1300) + console::saved(terminal.local())));
    QCOMPARE(content(terminal.local()), QByteArray()); // the piece that came before is dropped
}

void FileTransferTest::aStatusOfZeroCountsAsWritten()
{
    FileTerminal terminal(refusal("FW", 1, 0));
    store(terminal.settings(), "old");
    store(terminal.local(), sample(1300));
    QCOMPARE(terminal.run("-w -f settings"),
        terminal.ends(0, console::writing(terminal.local(), "settings") + console::written()));
    QCOMPARE(content(terminal.settings()), QByteArray("old"));
    QCOMPARE(terminal.furtherRequests(), 1 + 1);
}

void FileTransferTest::anAnswerForAnotherKindIsIgnored_data()
{
    QTest::addColumn<QString>("foreign");
    QTest::addColumn<bool>("reads");
    QTest::newRow("first read answer") << QStringLiteral("FR:1") << true;
    QTest::newRow("second read answer") << QStringLiteral("FR:2") << true;
    QTest::newRow("first write answer") << QStringLiteral("FW:1") << false;
    QTest::newRow("last write answer") << QStringLiteral("FW:3") << false;
}

void FileTransferTest::anAnswerForAnotherKindIsIgnored()
{
    QFETCH(QString, foreign);
    QFETCH(bool, reads);
    FileTerminal terminal({QStringLiteral("--foreign"), foreign});
    store(terminal.local(), reads ? "old" : sample(1300));
    store(terminal.settings(), reads ? sample(1300) : "old");
    const QByteArray begin = reads ? console::reading("settings") : console::writing(terminal.local(), "settings");
    const QByteArray end = reads ? console::saved(terminal.local()) : console::written();
    QCOMPARE(terminal.run(reads ? "-r -f settings" : "-w -f settings"),
        terminal.ends(0, begin + console::progress(1300) + end));
    QCOMPARE(content(terminal.local()), sample(1300));
    QCOMPARE(content(terminal.settings()), sample(1300));
}

void FileTransferTest::aSilentTerminalTimesOut_data()
{
    QTest::addColumn<bool>("reads");
    QTest::addColumn<int>("time");
    QTest::newRow("read") << true << 500;
    QTest::newRow("write") << false << 5000;
}

void FileTransferTest::aSilentTerminalTimesOut()
{
    QFETCH(bool, reads);
    QFETCH(int, time);
    FileTerminal terminal(words(reads ? "--silent FR" : "--silent FW"));
    store(terminal.settings(), "old");
    store(terminal.local(), "new");
    const Run run = terminal.run(reads ? "-r -f settings" : "-w -f settings");
    const QByteArray begin = reads ? console::reading("settings") : console::writing(terminal.local(), "settings");
    QCOMPARE(run, terminal.ends(timeout, begin + brokenOff("Timeout(-1)")));
    QVERIFY(run.milliseconds >= time);
    QCOMPARE(content(terminal.local()), QByteArray("new"));
    QCOMPARE(content(terminal.settings()), QByteArray("old"));
}

void FileTransferTest::aPathThatCannotBeSavedToEndsTheRun()
{
    FileTerminal terminal;
    store(terminal.settings(), sample(100));
    const QString missing = terminal.path(QStringLiteral("no such directory/local.bin"));
    QCOMPARE(runOn(terminal.port(), "-r -f settings", missing),
        terminal.ends(file_error,
            console::reading("settings") + console::progress(100) + "\n\n"
                + accessError(missing, "No such file or directory")));
    QVERIFY(!QFile::exists(missing));
    QCOMPARE(terminal.furtherRequests(), 1); // the log mask is not set any more
}

void FileTransferTest::aLocalFileThatCannotBeReadEndsTheRun_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("no such file") << QStringLiteral("/no/such/file") << QByteArray("No such file or directory");
    QTest::newRow("no name") << QString() << QByteArray("No file name specified");
    QTest::newRow("a directory") << QStringLiteral("/") << QByteArray("file to open is a directory");
    // Can be opened, but not read: nothing of it may be written to the terminal.
    QTest::newRow("a file that fails half-way") << QStringLiteral("/proc/self/mem") << QByteArray("Input/output error");
}

void FileTransferTest::aLocalFileThatCannotBeReadEndsTheRun()
{
    QFETCH(QString, path);
    QFETCH(QByteArray, reason);
    FileTerminal terminal;
    const Run run = Tool(argumentsOn(terminal.port(), "-w -a -f settings") + QStringList{path}).finish();
    QCOMPARE(run, terminal.ends(file_error, accessError(path, reason)));
    QCOMPARE(terminal.furtherRequests(), 0);
}

void FileTransferTest::aLocalFileThatIsTooLargeEndsTheRun()
{
    FileTerminal terminal;
    store(terminal.local(), {});
    QVERIFY(QFile::resize(terminal.local(), 0x80000000)); // takes no space
    QCOMPARE(
        terminal.run("-w -a -f settings"), terminal.ends(file_error, accessError(terminal.local(), "File too large")));
    QCOMPARE(terminal.furtherRequests(), 0);
}

/// A run of the tool that writes to the terminal what the shell's \a command prints, from standard input.
static Run writeOutputOf(const char *command, const FileTerminal &terminal)
{
    const QString line = QStringLiteral("{ %1; } | \"$@\"").arg(QLatin1String(command));
    const QStringList shell{QStringLiteral("-c"), line, QStringLiteral("sh"), Tool::path()};
    return Tool(
        QStringLiteral("sh"), shell + argumentsOn(terminal.port(), "-w -f settings", QStringLiteral("/dev/stdin")), {})
        .finish(120s);
}

void FileTransferTest::aPipeMayBringTheFile()
{
    FileTerminal terminal;
    const Run run = writeOutputOf("printf 12345; sleep 0.2; printf 6789", terminal);
    QCOMPARE(run,
        terminal.ends(
            0, console::writing(QStringLiteral("/dev/stdin"), "settings") + console::progress(9) + console::written()));
    QCOMPARE(content(terminal.settings()), QByteArray("123456789"));
}

// The size of a pipe is known only when it has been read.
void FileTransferTest::aPipeThatBringsTooMuchEndsTheRun()
{
    if (is_sanitized)
        QSKIP("This takes 2 GiB, and many more with the sanitizer.");
    FileTerminal terminal;
    const Run run = writeOutputOf("head -c 4294968596 /dev/zero", terminal); // 4 GiB and 1300 bytes
    QCOMPARE(run, terminal.ends(file_error, accessError(QStringLiteral("/dev/stdin"), "File too large")));
    QCOMPARE(terminal.furtherRequests(), 0);
}

void FileTransferTest::fewerBytesAcceptedThanSentAreSentAgain()
{
    FileTerminal terminal(words("--accept 200"));
    store(terminal.local(), sample(1300));
    QCOMPARE(terminal.run("-w -f settings"),
        terminal.ends(
            0, console::writing(terminal.local(), "settings") + console::progress(1300, 200) + console::written()));
    QCOMPARE(content(terminal.settings()), sample(1300));
}

/// What a run prints that writes and applies a local file of \a size bytes, up to the answer to the apply.
static QByteArray applying(const FileTerminal &terminal, int size, const QByteArray &kind)
{
    return console::writing(terminal.local(), kind) + console::progress(size) + console::written()
        + console::applying(kind);
}

void FileTransferTest::anApplyCarriesTheChecksum()
{
    FileTerminal terminal(refusal("FU", 1, 5)); // else the tool would wait for a restart
    store(terminal.local(), "123456789");
    QCOMPARE(terminal.run("-w -a -f keys"), terminal.ends(5, applying(terminal, 9, "keys") + errorLine("5")));
    // 0xCBF43926, the check value of CRC-32
    QCOMPARE(terminal.requests().constLast(),
        QByteArray("2a214655"
                   "02"
                   "00000000"
                   "2639f4cb"));
}

void FileTransferTest::aRefusedApplyEndsTheRun()
{
    // Firmware may be applied without an answer, but a refusal ends the run.
    FileTerminal terminal(refusal("FU", 1, 0x30));
    store(terminal.local(), "new");
    QCOMPARE(terminal.run("-w -a -f firmware"), terminal.ends(48, applying(terminal, 3, "firmware") + errorLine("48")));
    QCOMPARE(terminal.furtherRequests(), 1 + 1);
}

// Only the terminal's own firmware may restart it without an answer.
void FileTransferTest::anApplyWithoutAnswerEndsTheRun_data()
{
    QTest::addColumn<QByteArray>("kind");
    for (const char *kind : {"settings", "fls-firmware", "user-firmware"})
        QTest::newRow(kind) << QByteArray(kind);
}

void FileTransferTest::anApplyWithoutAnswerEndsTheRun()
{
    QFETCH(QByteArray, kind);
    FileTerminal terminal(words("--silent FU"));
    store(terminal.local(), "new");
    QCOMPARE(terminal.run("-w -a -f " + kind),
        terminal.ends(timeout, applying(terminal, 3, kind.constData()) + errorLine("Timeout(-1)")));
    QCOMPARE(terminal.furtherRequests(), 1 + 1);
}

void FileTransferTest::aFileWithChecksumZeroIsNotApplied_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("9d0ad96d") << QByteArray::fromHex("9d0ad96d"); // zlib: crc32() of these four bytes is 0
}

void FileTransferTest::aFileWithChecksumZeroIsNotApplied()
{
    QFETCH(QByteArray, bytes);
    FileTerminal terminal;
    store(terminal.local(), bytes);
    QCOMPARE(terminal.run("-w -a -f settings"),
        terminal.ends(
            0, console::writing(terminal.local(), "settings") + console::progress(bytes.size()) + console::written()));
    QCOMPARE(terminal.furtherRequests(), 1 + 1);
}

QTEST_GUILESS_MAIN(FileTransferTest)
#include "tst_filetransfer.moc"
