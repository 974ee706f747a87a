#include "console.h"
#include "localfiles.h"
#include "packets.h"
#include "plainterminal.h"
#include "simulatedterminal.h"
#include "tool.h"

#include <QFile>
#include <QTest>

#include <algorithm>

/// The line is cut at every packet of every job; tool and terminal are processes of their own.
class CutsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theLineIsCut_data();
    void theLineIsCut();
    void anAnswerAndTheCutAreOne_data();
    void anAnswerAndTheCutAreOne();
    void aCutEndsTheRunOnce_data();
    void aCutEndsTheRunOnce();
    void aStuckRequestTimesOut_data();
    void aStuckRequestTimesOut();
    void theLineIsCutWhileAnAnswerIsDue();
    void theLineIsCutWhileTheLogIsMonitored();
};

namespace {

enum class Job { Read, Write, Apply };

/// What is special about the cut.
enum class Cut {
    Clean,
    InPieces,   ///< what the terminal still answers, it answers in pieces
    HalfAnswer, ///< the terminal gets no further than half of an answer
};

constexpr int port_error = 256 - 110;
constexpr int file_size = 1300;
constexpr int identification_packets = 3;
constexpr int pieces = (file_size + 511) / 512;
constexpr int file_packets = identification_packets + pieces;
constexpr int apply_packet = file_packets + 1;

/// The identification, the file, perhaps the apply, and the log mask.
int packetsOf(Job job)
{
    return file_packets + (job == Job::Apply ? 1 : 0) + 1;
}

QByteArray fileContent()
{
    return files::sample(file_size);
}

QStringList argumentsOf(Job job, const QString &port, const QString &local)
{
    static constexpr const char *options[] = {"-f settings -r", "-f settings -w", "-f settings -a -w"};
    return argumentsOn(port, options[static_cast<int>(job)], local);
}

/// What the tool prints of the job itself, in parts: what comes before the first piece, then what each answer adds.
QByteArrayList jobParts(Job job, const QString &port, const QString &local)
{
    QByteArrayList parts{job == Job::Read ? console::reading("settings") : console::writing(local, "settings"),
        "\r39% completed (512/1300)", "\r78% completed (1024/1300)", "\r100% completed (1300/1300)"};
    parts.last() += job == Job::Read ? console::saved(local) : console::written();
    if (job == Job::Apply) {
        parts.last() += console::applying("settings");
        parts += console::completed() + console::waiting(port) + console::opened(port);
    }
    return parts + QByteArrayList{QByteArray()}; // the log mask is set without a word
}

/// What a run prints, in parts: what comes before the first answer, then what each answer adds.
QByteArrayList runParts(QByteArrayList identification, const QByteArrayList &job)
{
    identification.last() += job.first();
    return identification + job.mid(1);
}

QByteArrayList runParts(Job job, const SimulatedTerminal &terminal, const QString &local)
{
    return runParts(console::identificationParts(terminal.port()), jobParts(job, terminal.port(), local));
}

QByteArrayList runParts(Job job, const PlainTerminal &terminal, const QString &local)
{
    return runParts(console::plainIdentificationParts(terminal.port()), jobParts(job, terminal.port(), local));
}

/// A run on a line that is cut when \a front is printed. A cut during a transfer leaves the progress line open, so the
/// error does not always begin a line.
Run brokenOff(const QByteArray &front)
{
    return exits(port_error, front + "Error: ...\n");
}

/// Half of what the terminal would answer to the request with this number; the payload does not matter.
QByteArray halfAnswer(Job job, int packet)
{
    QByteArrayList keys{"#V", "#H", "#S"};
    for (int piece = 0; piece < pieces; ++piece)
        keys += job == Job::Read ? "@FR" : "@FW";
    if (job == Job::Apply)
        keys += "@FU";
    keys += "@LOG";
    const QByteArray answer = packets::packet('*' + keys.value(packet - 1) + ":BHR:" + QByteArray(40, '1'));
    return answer.first(answer.size() / 2);
}

/// One way to cut one job.
struct Case {
    Job job = Job::Read;
    int packet = 0; ///< the cut is at this one, counted from 1
    bool after = false;
    Cut cut = Cut::Clean;

    /// Whether the terminal comes back after the cut: it restarts after an apply, and the cut is that restart or later.
    bool restarts() const { return job == Job::Apply && (packet > apply_packet || isTheRestart()); }

    /// Whether the cut is nothing but the restart that follows an apply anyway.
    bool isTheRestart() const { return job == Job::Apply && packet == apply_packet && after; }

    bool isBeyondTheEnd() const { return packet > packetsOf(job); }

    /// How many answers the tool gets.
    int answers() const
    {
        return isTheRestart() ? packetsOf(job) : std::min(after ? packet : packet - 1, packetsOf(job));
    }

    /// How many requests the terminal gets.
    int requests() const { return isTheRestart() ? packetsOf(job) : std::min(packet, packetsOf(job)); }

    bool succeeds() const { return answers() == packetsOf(job); }

    /// The terminal has the whole file as soon as it has handled the last piece, the tool when it has the answer.
    bool fileArrives() const { return answers() >= file_packets; }

    QStringList options() const
    {
        QStringList list{QStringLiteral("--drop-at"),
            QStringLiteral("%1:%2").arg(packet).arg(after ? QLatin1String("after") : QLatin1String("before"))};
        list += restarts() ? QStringList{QStringLiteral("--restart"), QStringLiteral("1")}
                           : QStringList{QStringLiteral("--no-return")};
        if (cut == Cut::InPieces)
            list += {QStringLiteral("--split"), QStringLiteral("16")};
        if (cut == Cut::HalfAnswer)
            list += {QStringLiteral("--restart-junk"), QString::fromLatin1(halfAnswer(job, packet).toHex())};
        return list;
    }
};

void addRow(const char *name, const Case &row)
{
    static constexpr const char *cuts[] = {"", ", in pieces", ", half an answer"};
    QTest::addRow("%s, %s packet %d%s%s", name, row.after ? "after" : "before", row.packet,
        cuts[static_cast<int>(row.cut)], row.isBeyondTheEnd() ? ", which never comes" : "")
        << row;
}

/// Every packet of the job and one more.
void addRows(const char *name, Job job)
{
    for (int packet = 1; packet <= packetsOf(job) + 1; ++packet) {
        for (const bool after : {false, true}) {
            Case row{job, packet, after, Cut::Clean};
            addRow(name, row);
            row.cut = after ? Cut::InPieces : Cut::HalfAnswer;
            // Not with a restart, which takes 5 s and has tests of its own.
            if (!row.restarts() && !row.isBeyondTheEnd())
                addRow(name, row);
        }
    }
}

/// Checks a run on a port that vanished with the last of so many \a answers, which may be lost or not; \a parts is what
/// a whole run prints.
void compareCut(const Run &run, const QByteArrayList &parts, int answers)
{
    const Run lost = brokenOff(parts.mid(0, answers).join());
    const Run read = brokenOff(parts.mid(0, answers + 1).join());
    const Run finished = exits(0, parts.join());
    const bool is_last = answers == parts.size() - 1;
    if (run != lost && (run != finished || !is_last))
        QCOMPARE(run, read);
}

/// Answers \a count requests; the port vanishes with the last answer.
void answerAndVanish(PlainTerminal &terminal, int count)
{
    for (int answered = 1; answered < count; ++answered)
        terminal.send(terminal.answerTo(terminal.request()));
    terminal.send(terminal.answerTo(terminal.request()));
    terminal.vanish();
}

} // namespace

Q_DECLARE_METATYPE(Case)

void CutsTest::theLineIsCut_data()
{
    QTest::addColumn<Case>("row");
    addRows("read", Job::Read);
    addRows("write", Job::Write);
    addRows("apply", Job::Apply);
}

void CutsTest::theLineIsCut()
{
    QFETCH(const Case, row);
    FilingTerminal terminal(row.options());
    const QString local = terminal.path(QStringLiteral("local.bin"));
    const QString own = terminal.own(QStringLiteral("settings"));
    const QString source = row.job == Job::Read ? own : local;
    const QString target = row.job == Job::Read ? local : own;
    files::store(source, fileContent());
    files::store(target, "old");

    const Run run = Tool(argumentsOf(row.job, terminal.port(), local)).finish();
    const QByteArray printed = runParts(row.job, terminal, local).mid(0, row.answers() + 1).join();
    QCOMPARE(withoutReason(run), row.succeeds() ? exits(0, printed) : brokenOff(printed));
    QVERIFY2(run.milliseconds < (row.restarts() ? 15'000 : 5'000), QByteArray::number(run.milliseconds).constData());
    QCOMPARE(files::content(source), fileContent());
    QCOMPARE(files::content(target), row.fileArrives() ? fileContent() : QByteArray("old"));
    QCOMPARE(terminal.requests().size(), row.requests());
}

void CutsTest::anAnswerAndTheCutAreOne_data()
{
    QTest::addColumn<Job>("job");
    QTest::addColumn<int>("answers");
    for (const Job job : {Job::Read, Job::Write}) {
        for (int answers = 1; answers <= packetsOf(job); ++answers)
            QTest::addRow("%s, answer %d", job == Job::Read ? "read" : "write", answers) << job << answers;
    }
}

// When the line goes away together with the last answer, the tool may or may not get that answer, and may notice before
// it writes its next request or while it does.
void CutsTest::anAnswerAndTheCutAreOne()
{
    QFETCH(const Job, job);
    QFETCH(const int, answers);
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    const QByteArray before = job == Job::Read ? "old" : fileContent();
    files::store(local, before);
    PlainTerminal terminal(fileContent());
    const QByteArrayList parts = runParts(job, terminal, local);

    Tool tool(argumentsOf(job, terminal.port(), local));
    answerAndVanish(terminal, answers);
    const Run run = withoutReason(tool.finish());
    compareCut(run, parts, answers);
    if (QTest::currentTestFailed())
        return;
    const bool saved = run.output.contains("File saved");
    QCOMPARE(files::content(local), saved ? fileContent() : before);
}

void CutsTest::aCutEndsTheRunOnce_data()
{
    QTest::addColumn<int>("answers");
    QTest::newRow("with the software version") << 1;
    QTest::newRow("with the second piece") << identification_packets + 2;
}

// A port that is gone goes on reporting errors, from its reading and from its writing side.
void CutsTest::aCutEndsTheRunOnce()
{
    QFETCH(const int, answers);
    constexpr int repetitions = 30;
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        PlainTerminal terminal(fileContent());
        Tool tool(argumentsOf(Job::Read, terminal.port(), local));
        answerAndVanish(terminal, answers);
        compareCut(withoutReason(tool.finish()), runParts(Job::Read, terminal, local), answers);
        if (QTest::currentTestFailed())
            return;
        QVERIFY(!QFile::exists(local));
    }
}

void CutsTest::aStuckRequestTimesOut_data()
{
    QTest::addColumn<Job>("job");
    QTest::addColumn<int>("request");
    QTest::newRow("software version") << Job::Read << 1;
    QTest::newRow("serial number") << Job::Read << identification_packets;
    QTest::newRow("first piece of a read") << Job::Read << identification_packets + 1;
    QTest::newRow("last piece of a read") << Job::Read << file_packets;
    QTest::newRow("last piece of a write") << Job::Write << file_packets;
    QTest::newRow("apply") << Job::Apply << apply_packet;
    QTest::newRow("log mask") << Job::Write << packetsOf(Job::Write);
}

// A request that the line does not take is no error of the port: the tool waits for the answer, which does not come.
void CutsTest::aStuckRequestTimesOut()
{
    QFETCH(const Job, job);
    QFETCH(const int, request);
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    files::store(local, fileContent());
    PlainTerminal terminal(fileContent());
    if (request == 1)
        terminal.jam();
    Tool tool(argumentsOf(job, terminal.port(), local));
    for (int answer = 1; answer < request; ++answer) {
        const QByteArray packet = terminal.answerTo(terminal.request());
        if (answer == request - 1)
            terminal.jam();
        terminal.send(packet);
    }
    const bool is_piece = request > identification_packets && request <= file_packets;
    const QByteArray printed = runParts(job, terminal, local).mid(0, request).join();
    QCOMPARE(tool.finish(), exits(255, printed + (is_piece ? "\n\n" : "") + "Error: Timeout(-1)\n"));
}

void CutsTest::theLineIsCutWhileAnAnswerIsDue()
{
    FilingTerminal terminal(words("--silent FW"));
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(local, fileContent());
    Tool tool(argumentsOf(Job::Write, terminal.port(), local));
    QTRY_COMPARE(terminal.requests().size(), identification_packets + 1);
    terminal.unplug();
    const QByteArray printed = runParts(Job::Write, terminal, local).mid(0, identification_packets + 1).join();
    QCOMPARE(withoutReason(tool.finish()), brokenOff(printed));
}

void CutsTest::theLineIsCutWhileTheLogIsMonitored()
{
    // The last of these records follows the answer to the mask.
    SimulatedTerminal terminal(words("--log-always --log-start 1699920000")); // midnight
    Tool tool(argumentsOn(terminal.port(), "-m"), words("TZ=UTC0"));
    QVERIFY(tool.waitForOutput("in a text\n"));
    terminal.unplug();
    const QByteArray record("00:00:00 007 [14] #5 @JVX in a text\n");
    QCOMPARE(withoutReason(tool.finish()), brokenOff(console::identification(terminal.port()) + record));
}

QTEST_GUILESS_MAIN(CutsTest)
#include "tst_cuts.moc"
