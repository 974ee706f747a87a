#include "harness.h"

#include <QRegularExpression>

#include <algorithm>

/// The tool reads and writes files of a terminal; both are processes of their own, on either end of a pseudo-terminal.
class TestFiles : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aFileIsReadWhole_data() { addSizes(); }
    void aFileIsReadWhole();
    void aFileIsWrittenWhole_data() { addSizes(); }
    void aFileIsWrittenWhole();
    void theProgressIsRewrittenInPlace();
    void aFileOfEveryKindIsRead_data();
    void aFileOfEveryKindIsRead();
    void theDefaultKindIsUserFirmware();

    void savingOverALongerFileLeavesTheBytesRead();
    void announcedSizes_data();
    void announcedSizes();
    void piecesLargerThanAskedForAreTaken();
    void readingExcludesWriting();
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
    void fewerBytesAcceptedThanSentAreSentAgain();

    void anApplyCarriesTheChecksum();
    void aRefusedApplyEndsTheRun();
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

/// The progress of a file of \a size bytes that moves in pieces of \a piece bytes.
QByteArray progress(qint64 size, qint64 piece = 512)
{
    if (size == 0)
        return "\r100% completed (0/0)";
    QByteArray lines;
    for (qint64 moved = std::min(piece, size);; moved = std::min(moved + piece, size)) {
        lines += "\r" + QByteArray::number(moved * 100 / size) + "% completed (" + QByteArray::number(moved) + "/"
            + QByteArray::number(size) + ")";
        if (moved == size)
            return lines;
    }
}

/// A terminal whose files are in a directory, and what the tool says to it.
struct FileTerminal : FilingTerminal {
    using FilingTerminal::FilingTerminal;

    Run run(const QStringList &arguments) const
    {
        return Tool(QStringList{QStringLiteral("-p"), port()} + arguments).finish();
    }
};

QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '));
}

QByteArray saved(const QString &path)
{
    return "\n\nFile saved to '" + path.toLocal8Bit() + "'\n";
}

QByteArray writing(const QString &path, const char *key)
{
    return "Writing file '" + path.toLocal8Bit() + "' to '" + key + "' ...\n";
}

} // namespace

void TestFiles::addSizes()
{
    QTest::addColumn<qsizetype>("size");
    for (const int size : {0, 1, 511, 512, 513, 1024, 1025, 1024 * 1024})
        QTest::addRow("%d bytes", size) << qsizetype{size};
}

void TestFiles::aFileIsReadWhole()
{
    QFETCH(qsizetype, size);
    FileTerminal terminal;
    store(terminal.own(QStringLiteral("settings")), sample(size));
    const QString local = terminal.path(QStringLiteral("local.bin"));

    const Run run = terminal.run(words("-r -f settings") + QStringList{local});
    QCOMPARE(run.output, identificationOn(terminal) + "Reading file 'settings' ...\n" + progress(size) + saved(local));
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 0);
    QCOMPARE(content(local), sample(size));
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::aFileIsWrittenWhole()
{
    QFETCH(qsizetype, size);
    FileTerminal terminal;
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, sample(size));

    const Run run = terminal.run(words("-w -f can-scripts") + QStringList{local});
    QCOMPARE(run.output, identificationOn(terminal) + writing(local, "can-scripts") + progress(size) + "\n\n");
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 0);
    QCOMPARE(content(terminal.own(QStringLiteral("can-scripts"))), sample(size));
    QCOMPARE(terminal.requests().constLast(), QByteArray("2a214c4f4700400000")); // the log mask comes last
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::theProgressIsRewrittenInPlace()
{
    FileTerminal terminal;
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, sample(1300));
    const Run run = terminal.run(words("-w -f settings") + QStringList{local});
    QCOMPARE(run.output,
        identificationOn(terminal) + writing(local, "settings")
            + "\r39% completed (512/1300)\r78% completed (1024/1300)\r100% completed (1300/1300)\n\n");
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
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::aFileOfEveryKindIsRead_data()
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

void TestFiles::aFileOfEveryKindIsRead()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, key);
    QFETCH(QByteArray, request);
    FileTerminal terminal;
    store(terminal.own(QString::fromLatin1(key)), "of " + key);
    const QString local = terminal.path(QStringLiteral("local.bin"));
    const Run run = terminal.run({QStringLiteral("-r"), QStringLiteral("-f"), kind, local});
    QVERIFY2(run.output.contains("\nReading file '" + key + "' ...\n"), run.output.constData());
    QCOMPARE(run.code, 0);
    QCOMPARE(content(local), "of " + key);
    QCOMPARE(terminal.requests().value(3), request);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::theDefaultKindIsUserFirmware()
{
    FileTerminal terminal;
    store(terminal.own(QStringLiteral("user-firmware")), "the user's");
    const QString local = terminal.path(QStringLiteral("local.bin"));
    QCOMPARE(terminal.run({QStringLiteral("-r"), local, QStringLiteral("ignored")}).code, 0);
    QCOMPARE(content(local), QByteArray("the user's"));
}

void TestFiles::savingOverALongerFileLeavesTheBytesRead()
{
    FileTerminal terminal;
    store(terminal.own(QStringLiteral("settings")), "short");
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, sample(5000));
    QCOMPARE(terminal.run(words("-r -f settings") + QStringList{local}).code, 0);
    QCOMPARE(content(local), QByteArray("short"));
}

void TestFiles::announcedSizes_data()
{
    QTest::addColumn<qsizetype>("size");
    QTest::addColumn<QString>("announced");
    QTest::addColumn<qsizetype>("received");
    QTest::addColumn<QByteArray>("lines");
    QTest::newRow("more than delivered") << qsizetype{1000} << QStringLiteral("5000") << qsizetype{1000}
                                         << QByteArray("\r10% completed (512/5000)\r100% completed (1000/1000)");
    QTest::newRow("less than delivered") << qsizetype{1024} << QStringLiteral("1000") << qsizetype{1000}
                                         << QByteArray("\r51% completed (512/1000)\r100% completed (1000/1000)");
    QTest::newRow("one piece of two") << qsizetype{1024} << QStringLiteral("512") << qsizetype{512}
                                      << QByteArray("\r100% completed (512/512)");
    QTest::newRow("nothing") << qsizetype{1024} << QStringLiteral("0") << qsizetype{0}
                             << QByteArray("\r100% completed (0/0)");
    QTest::newRow("4294967295, which is -1") << qsizetype{1000} << QStringLiteral("4294967295") << qsizetype{1000}
                                             << QByteArray("\r-51200% completed (512/-1)\r100% completed (1000/1000)");
    QTest::newRow("2147483648, the smallest int")
        << qsizetype{1000} << QStringLiteral("2147483648") << qsizetype{1000}
        << QByteArray("\r0% completed (512/-2147483648)\r100% completed (1000/1000)");
}

void TestFiles::announcedSizes()
{
    QFETCH(qsizetype, size);
    QFETCH(QString, announced);
    QFETCH(qsizetype, received);
    QFETCH(QByteArray, lines);
    FileTerminal terminal({QStringLiteral("--announce"), announced});
    store(terminal.own(QStringLiteral("epo")), sample(size));
    const QString local = terminal.path(QStringLiteral("local.bin"));
    const Run run = terminal.run(words("-r -f epo") + QStringList{local});
    QCOMPARE(run.output, identificationOn(terminal) + "Reading file 'epo' ...\n" + lines + saved(local));
    QCOMPARE(run.code, 0);
    QCOMPARE(content(local), sample(size).first(received));
}

void TestFiles::piecesLargerThanAskedForAreTaken()
{
    FileTerminal terminal({QStringLiteral("--piece"), QStringLiteral("600")});
    store(terminal.own(QStringLiteral("epo")), sample(1300));
    const QString local = terminal.path(QStringLiteral("local.bin"));
    const Run run = terminal.run(words("-r -f epo") + QStringList{local});
    QCOMPARE(run.output, identificationOn(terminal) + "Reading file 'epo' ...\n" + progress(1300, 600) + saved(local));
    QCOMPARE(content(local), sample(1300));
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::readingExcludesWriting()
{
    FileTerminal terminal;
    store(terminal.own(QStringLiteral("settings")), "the terminal's");
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, "the user's");
    const Run run = terminal.run(words("-w -r -a -f settings") + QStringList{local});
    QVERIFY(run.output.endsWith(saved(local)));
    QCOMPARE(run.code, 0);
    QCOMPARE(content(local), QByteArray("the terminal's"));
    QCOMPARE(content(terminal.own(QStringLiteral("settings"))), QByteArray("the terminal's"));
    QCOMPARE(terminal.requests().size(), 3 + 1 + 1);
}

void TestFiles::oddPathsComeOutUnchanged_data()
{
    QTest::addColumn<QString>("name");
    for (const char *name : {"with blanks .bin", "%1", "%2 %1 %L3 %n", "\xC3\xA9\xE2\x82\xAC\xE6\x96\x87.bin"})
        QTest::newRow(name) << QString::fromUtf8(name);
}

void TestFiles::oddPathsComeOutUnchanged()
{
    QFETCH(QString, name);
    FileTerminal terminal;
    store(terminal.own(QStringLiteral("settings")), "text");
    const QString local = terminal.path(name);
    const Run read = terminal.run(words("-r -f settings") + QStringList{local});
    QVERIFY2(read.output.endsWith(saved(local)), read.output.constData());
    QCOMPARE(content(local), QByteArray("text"));
    const Run write = terminal.run(words("-w -f settings") + QStringList{local});
    QVERIFY2(write.output.contains("\n" + writing(local, "settings")), write.output.constData());
    const QString missing = terminal.path(QStringLiteral("no/") + name);
    const Run failed = terminal.run(words("-w -f settings") + QStringList{missing});
    QVERIFY2(failed.output.endsWith(
                 "\nError: Failed to access to file '" + missing.toLocal8Bit() + "' (No such file or directory)\n"),
        failed.output.constData());
}

static void addStatusRows(const char *key)
{
    QTest::addColumn<QString>("refusal");
    QTest::addColumn<QByteArray>("printed");
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<int>("code");
    const auto row = [key](int request, int status, const char *printed) {
        const QByteArray lines = request == 1 ? QByteArray() : QByteArray("\r39% completed (512/1300)");
        QTest::addRow("%02x at piece %d", static_cast<unsigned>(status), request)
            << QStringLiteral("%1:%2=%3").arg(QLatin1String(key)).arg(request).arg(status, 2, 16, QLatin1Char('0'))
            << QByteArray(printed) << lines << status;
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

void TestFiles::aRefusedReadLeavesTheLocalFileAlone_data()
{
    addStatusRows("FR");
}

void TestFiles::aRefusedReadLeavesTheLocalFileAlone()
{
    QFETCH(QString, refusal);
    QFETCH(QByteArray, printed);
    QFETCH(QByteArray, lines);
    QFETCH(int, code);
    FileTerminal terminal({QStringLiteral("--status"), refusal});
    store(terminal.own(QStringLiteral("settings")), sample(1300));
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, "old");
    const Run run = terminal.run(words("-r -f settings") + QStringList{local});
    QCOMPARE(run.output,
        identificationOn(terminal) + "Reading file 'settings' ...\n" + lines + "\n\nError: " + printed + "\n");
    QCOMPARE(run.code, code);
    QCOMPARE(content(local), QByteArray("old"));
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::aRefusedWriteLeavesTheOldFileAlone_data()
{
    addStatusRows("FW");
}

void TestFiles::aRefusedWriteLeavesTheOldFileAlone()
{
    QFETCH(QString, refusal);
    QFETCH(QByteArray, printed);
    QFETCH(QByteArray, lines);
    QFETCH(int, code);
    FileTerminal terminal({QStringLiteral("--status"), refusal});
    store(terminal.own(QStringLiteral("settings")), "old");
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, sample(1300));
    const Run run = terminal.run(words("-w -a -f settings") + QStringList{local});
    QCOMPARE(
        run.output, identificationOn(terminal) + writing(local, "settings") + lines + "\n\nError: " + printed + "\n");
    QCOMPARE(run.code, code);
    QCOMPARE(content(terminal.own(QStringLiteral("settings"))), QByteArray("old"));
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::aStatusOfZeroReadsAsNoError()
{
    FileTerminal terminal({QStringLiteral("--status"), QStringLiteral("FR:2=00")});
    store(terminal.own(QStringLiteral("settings")), sample(1300));
    const QString local = terminal.path(QStringLiteral("local.bin"));
    const Run run = terminal.run(words("-r -f settings") + QStringList{local});
    QCOMPARE(run.output,
        identificationOn(terminal) + "Reading file 'settings' ...\n\r39% completed (512/1300)" + saved(local));
    QCOMPARE(run.code, 0);
    QCOMPARE(content(local), QByteArray()); // the error decides, and what came before it is dropped
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::aStatusOfZeroCountsAsWritten()
{
    FileTerminal terminal({QStringLiteral("--status"), QStringLiteral("FW:1=00")});
    store(terminal.own(QStringLiteral("settings")), "old");
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, sample(1300));
    const Run run = terminal.run(words("-w -f settings") + QStringList{local});
    QCOMPARE(run.output, identificationOn(terminal) + writing(local, "settings") + "\n\n");
    QCOMPARE(run.code, 0);
    QCOMPARE(content(terminal.own(QStringLiteral("settings"))), QByteArray("old"));
    QCOMPARE(terminal.requests().size(), 3 + 1 + 1);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::anAnswerForAnotherKindIsIgnored_data()
{
    QTest::addColumn<QString>("foreign");
    QTest::addColumn<QString>("option");
    QTest::newRow("first read answer") << QStringLiteral("FR:1") << QStringLiteral("-r");
    QTest::newRow("second read answer") << QStringLiteral("FR:2") << QStringLiteral("-r");
    QTest::newRow("first write answer") << QStringLiteral("FW:1") << QStringLiteral("-w");
    QTest::newRow("last write answer") << QStringLiteral("FW:3") << QStringLiteral("-w");
}

void TestFiles::anAnswerForAnotherKindIsIgnored()
{
    QFETCH(QString, foreign);
    QFETCH(QString, option);
    FileTerminal terminal({QStringLiteral("--foreign"), foreign});
    const QString local = terminal.path(QStringLiteral("local.bin"));
    for (const QString &path : {local, terminal.own(QStringLiteral("settings"))})
        store(path, sample(1300));
    const Run run = terminal.run({option, QStringLiteral("-f"), QStringLiteral("settings"), local});
    QVERIFY2(run.output.contains(progress(1300)), run.output.constData());
    QCOMPARE(run.code, 0);
    QCOMPARE(content(local), sample(1300));
    QCOMPARE(content(terminal.own(QStringLiteral("settings"))), sample(1300));
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::aSilentTerminalTimesOut_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("option");
    QTest::addColumn<int>("time");
    QTest::newRow("read") << QStringLiteral("FR") << QStringLiteral("-r") << 500;
    QTest::newRow("write") << QStringLiteral("FW") << QStringLiteral("-w") << 5000;
}

void TestFiles::aSilentTerminalTimesOut()
{
    QFETCH(QString, key);
    QFETCH(QString, option);
    QFETCH(int, time);
    FileTerminal terminal({QStringLiteral("--silent"), key});
    store(terminal.own(QStringLiteral("settings")), "old");
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, "new");
    const Run run = terminal.run({option, QStringLiteral("-f"), QStringLiteral("settings"), local});
    QVERIFY2(run.output.endsWith(" ...\n\n\nError: Timeout(-1)\n"), run.output.constData());
    QCOMPARE(run.code, 255);
    QVERIFY(run.milliseconds >= time);
    QCOMPARE(content(local), QByteArray("new"));
    QCOMPARE(content(terminal.own(QStringLiteral("settings"))), QByteArray("old"));
}

void TestFiles::aPathThatCannotBeSavedToEndsTheRun()
{
    FileTerminal terminal;
    store(terminal.own(QStringLiteral("settings")), sample(100));
    const QString local = terminal.path(QStringLiteral("no such directory/local.bin"));
    const Run run = terminal.run(words("-r -f settings") + QStringList{local});
    QCOMPARE(run.output,
        identificationOn(terminal) + "Reading file 'settings' ...\n" + progress(100) + "\n\n"
            + "Error: Failed to access to file '" + local.toLocal8Bit() + "' (No such file or directory)\n");
    QCOMPARE(run.code, 256 - 111);
    QVERIFY(!QFile::exists(local));
    QCOMPARE(terminal.requests().size(), 3 + 1); // the log mask is not set any more
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::aLocalFileThatCannotBeReadEndsTheRun_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("reason");
    QTest::newRow("no such file") << QStringLiteral("/no/such/file") << QStringLiteral("No such file or directory");
    QTest::newRow("no name") << QString() << QStringLiteral(".+");
    QTest::newRow("a directory") << QStringLiteral("/") << QStringLiteral(".+");
    // Opens, and then fails to be read: what came of it is not to be written.
    QTest::newRow("a file that fails half-way")
        << QStringLiteral("/proc/self/mem") << QStringLiteral("Input/output error");
}

void TestFiles::aLocalFileThatCannotBeReadEndsTheRun()
{
    QFETCH(QString, path);
    QFETCH(QString, reason);
    FileTerminal terminal;
    const Run run = terminal.run(words("-w -a -f settings") + QStringList{path});
    const QByteArray front
        = identificationOn(terminal) + "Error: Failed to access to file '" + path.toLocal8Bit() + "' (";
    QVERIFY2(run.output.startsWith(front), run.output.constData());
    const QRegularExpression rest(QStringLiteral("^%1\\)\n$").arg(reason));
    QVERIFY2(rest.match(QString::fromLocal8Bit(run.output.sliced(front.size()))).hasMatch(), run.output.constData());
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, 256 - 111);
    QCOMPARE(terminal.requests().size(), 3);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::fewerBytesAcceptedThanSentAreSentAgain()
{
    FileTerminal terminal({QStringLiteral("--accept"), QStringLiteral("200")});
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, sample(1300));
    const Run run = terminal.run(words("-w -f settings") + QStringList{local});
    QCOMPARE(run.output, identificationOn(terminal) + writing(local, "settings") + progress(1300, 200) + "\n\n");
    QCOMPARE(run.code, 0);
    QCOMPARE(content(terminal.own(QStringLiteral("settings"))), sample(1300));
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::anApplyCarriesTheChecksum()
{
    FileTerminal terminal({QStringLiteral("--status"), QStringLiteral("FU:1=05")});
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, "123456789");
    const Run run = terminal.run(words("-w -a -f keys") + QStringList{local});
    // 0xCBF43926, the check value of CRC-32
    QCOMPARE(terminal.requests().constLast(),
        QByteArray("2a214655"
                   "02"
                   "00000000"
                   "2639f4cb"));
    QVERIFY2(run.output.endsWith("\n\nApply file 'keys' ...\nError: 5\n"), run.output.constData());
    QCOMPARE(run.code, 5);
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestFiles::aRefusedApplyEndsTheRun()
{
    // Firmware is excused only for not answering.
    FileTerminal terminal({QStringLiteral("--status"), QStringLiteral("FU:1=30")});
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, "new");
    const Run run = terminal.run(words("-w -a -f firmware") + QStringList{local});
    QVERIFY2(run.output.endsWith("\n\nApply file 'firmware' ...\nError: 48\n"), run.output.constData());
    QCOMPARE(run.code, 48);
}

void TestFiles::anApplyWithoutAnswerEndsTheRun()
{
    FileTerminal terminal({QStringLiteral("--silent"), QStringLiteral("FU")});
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, "new");
    const Run run = terminal.run(words("-w -a -f settings") + QStringList{local});
    QVERIFY2(run.output.endsWith("\n\nApply file 'settings' ...\nError: Timeout(-1)\n"), run.output.constData());
    QCOMPARE(run.code, 255);
}

void TestFiles::aFileWithChecksumZeroIsNotApplied_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("9d0ad96d") << QByteArray::fromHex("9d0ad96d"); // zlib: crc32() of these four bytes is 0
}

void TestFiles::aFileWithChecksumZeroIsNotApplied()
{
    QFETCH(QByteArray, bytes);
    FileTerminal terminal;
    const QString local = terminal.path(QStringLiteral("local.bin"));
    store(local, bytes);
    const Run run = terminal.run(words("-w -a -f settings") + QStringList{local});
    QCOMPARE(run.output, identificationOn(terminal) + writing(local, "settings") + progress(bytes.size()) + "\n\n");
    QCOMPARE(run.code, 0);
    QCOMPARE(terminal.requests().size(), 3 + 1 + 1);
    QCOMPARE(terminal.finish(), QByteArray());
}

QTEST_GUILESS_MAIN(TestFiles)
#include "tst_files.moc"
