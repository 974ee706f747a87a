#include "harness.h"

/// The line is cut at every packet of every job; tool and terminal are processes of their own.
class TestCuts : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theLineIsCut_data();
    void theLineIsCut();
    void anAnswerAndTheCutAreOne_data();
    void anAnswerAndTheCutAreOne();
    void aCutEndsTheRunOnce_data();
    void aCutEndsTheRunOnce();
    void theLineIsCutWhileARequestIsStuck();
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
    QStringList arguments{QStringLiteral("-p"), port, QStringLiteral("-f"), QStringLiteral("settings"),
        job == Job::Read ? QStringLiteral("-r") : QStringLiteral("-w"), local};
    if (job == Job::Apply)
        arguments += QStringLiteral("-a");
    return arguments;
}

/// What the tool prints of the job itself, in the parts that one answer after the other adds; the first part is from
/// before the first piece.
QByteArrayList jobParts(Job job, const QByteArray &port, const QByteArray &local)
{
    QByteArrayList parts{job == Job::Read ? QByteArray("Reading file 'settings' ...\n")
                                          : "Writing file '" + local + "' to 'settings' ...\n",
        "\r39% completed (512/1300)", "\r78% completed (1024/1300)", "\r100% completed (1300/1300)\n\n"};
    if (job == Job::Read)
        parts.last() += "File saved to '" + local + "'\n";
    if (job == Job::Apply) {
        parts.last() += "Apply file 'settings' ...\n";
        parts += "Completed\n\nSerial port closed: " + port + "\nWaiting device ...\n\rSerial port open: " + port
            + "\n\n";
    }
    return parts + QByteArrayList{QByteArray()}; // the log mask is set without a word
}

/// What a run prints, in the parts that one answer after the other adds.
QByteArrayList runParts(QByteArrayList identification, const QByteArrayList &job)
{
    identification.last() += job.first();
    return identification + job.mid(1);
}

QByteArrayList runParts(Job job, const SimulatedTerminal &terminal, const QString &local)
{
    const QByteArray port = terminal.port().toLocal8Bit();
    const QByteArrayList identification{checkingOn(terminal),
        "\nDevice: JVX terminal\nVersion: 1.4.2\nDate: 2026-03-01\nLanguage: en\n", "BHR: 0x10a2b3c4d5\n",
        "IMEI: 350000000000017\n\n"};
    return runParts(identification, jobParts(job, port, local.toLocal8Bit()));
}

/// Whether \a output is \a front and then one error, which is the end of it. The error of a port has the text of the
/// system. A cut during a transfer leaves the progress line open, so the error does not always begin a line.
bool endsWithOneError(const QByteArray &output, const QByteArray &front)
{
    const QByteArray error = output.mid(front.size());
    return output.startsWith(front) && error.startsWith("Error: ") && error.size() > 8 && error.count('\n') == 1
        && error.endsWith('\n') && output.count("Error: ") == 1;
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

    /// The terminal restarts after an apply; it has to come back when the cut is not before that.
    bool restarts() const { return job == Job::Apply && (packet > apply_packet || isTheRestart()); }

    /// Then the cut is nothing but what an apply leads to anyway.
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
            // Waiting for a restart takes 5 s, and it has tests of its own for these.
            if (!row.restarts() && !row.isBeyondTheEnd())
                addRow(name, row);
        }
    }
}

/// Answers \a count requests; the port vanishes with the last answer.
void answerAndVanish(PlainTerminal &terminal, int count)
{
    for (int answered = 1; answered < count; ++answered)
        terminal.send(terminal.answerTo(terminal.request()));
    const QByteArray last = terminal.answerTo(terminal.request());
    terminal.send(last);
    terminal.vanish();
}

} // namespace

Q_DECLARE_METATYPE(Case)

void TestCuts::theLineIsCut_data()
{
    QTest::addColumn<Case>("row");
    addRows("read", Job::Read);
    addRows("write", Job::Write);
    addRows("apply", Job::Apply);
}

void TestCuts::theLineIsCut()
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
    const QByteArray front = runParts(row.job, terminal, local).mid(0, row.answers() + 1).join();
    if (row.succeeds())
        QCOMPARE(run.output, front);
    else
        QVERIFY2(endsWithOneError(run.output, front), run.output.constData());
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, row.succeeds() ? 0 : port_error);
    QVERIFY2(run.milliseconds < (row.restarts() ? 15'000 : 5'000), QByteArray::number(run.milliseconds).constData());
    QCOMPARE(files::content(source), fileContent());
    QCOMPARE(files::content(target), row.fileArrives() ? fileContent() : QByteArray("old"));
    QCOMPARE(terminal.requests().size(), row.requests());
    QCOMPARE(terminal.finish(), QByteArray());
}

void TestCuts::anAnswerAndTheCutAreOne_data()
{
    QTest::addColumn<Job>("job");
    QTest::addColumn<int>("answers");
    for (const Job job : {Job::Read, Job::Write}) {
        for (int answers = 1; answers <= packetsOf(job); ++answers)
            QTest::addRow("%s, answer %d", job == Job::Read ? "read" : "write", answers) << job << answers;
    }
}

// A line that goes away together with the last answer may take it along or not, and may find the tool between the
// answer and its next request or in the middle of writing that.
void TestCuts::anAnswerAndTheCutAreOne()
{
    QFETCH(const Job, job);
    QFETCH(const int, answers);
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    const QByteArray before = job == Job::Read ? "old" : fileContent();
    files::store(local, before);
    PlainTerminal terminal(fileContent());
    const QByteArrayList parts
        = runParts(plainIdentification(terminal), jobParts(job, terminal.portName(), local.toLocal8Bit()));

    Tool tool(argumentsOf(job, terminal.port(), local));
    answerAndVanish(terminal, answers);
    const Run run = tool.finish();
    const bool finished = run.code == 0 && answers == packetsOf(job);
    const bool lost = endsWithOneError(run.output, parts.mid(0, answers).join());
    const bool read = endsWithOneError(run.output, parts.mid(0, answers + 1).join());
    QVERIFY2(finished || ((lost || read) && run.code == port_error), run.output.constData());
    QCOMPARE(run.errors, QByteArray());
    const bool saved = run.output.contains("File saved");
    QCOMPARE(files::content(local), saved ? fileContent() : before);
}

void TestCuts::aCutEndsTheRunOnce_data()
{
    QTest::addColumn<int>("answers");
    QTest::newRow("with the software version") << 1;
    QTest::newRow("with the second piece") << identification_packets + 2;
}

// A port that is gone goes on reporting errors, from its reading and from its writing side.
void TestCuts::aCutEndsTheRunOnce()
{
    QFETCH(const int, answers);
    constexpr int repetitions = 30;
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        PlainTerminal terminal(fileContent());
        Tool tool(argumentsOf(Job::Read, terminal.port(), local));
        answerAndVanish(terminal, answers);
        const Run run = tool.finish();
        QVERIFY2(run.output.count("Error: ") == 1 && run.output.endsWith('\n'), run.output.constData());
        QCOMPARE(run.errors, QByteArray());
        QCOMPARE(run.code, port_error);
        QVERIFY(!QFile::exists(local));
    }
}

// Reading and writing fail in the same turn of the event loop.
void TestCuts::theLineIsCutWhileARequestIsStuck()
{
    constexpr int repetitions = 30;
    for (int repetition = 0; repetition < repetitions; ++repetition) {
        PlainTerminal terminal;
        const QByteArrayList parts = plainIdentification(terminal);
        Tool tool({QStringLiteral("-p"), terminal.port()});
        const QByteArray answer = terminal.answerTo(terminal.request());
        terminal.jam();
        terminal.send(answer);
        QVERIFY(tool.waitForOutput(parts[1]));
        QTest::qSleep(10); // for the next request to get stuck
        terminal.vanish();
        const Run run = tool.finish();
        QVERIFY2(endsWithOneError(run.output, parts[0] + parts[1]), run.output.constData());
        QCOMPARE(run.errors, QByteArray());
        QCOMPARE(run.code, port_error);
    }
}

void TestCuts::theLineIsCutWhileAnAnswerIsDue()
{
    FilingTerminal terminal({QStringLiteral("--silent"), QStringLiteral("FW")});
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(local, fileContent());
    Tool tool(argumentsOf(Job::Write, terminal.port(), local));
    QTRY_COMPARE(terminal.requests().size(), identification_packets + 1);
    QCOMPARE(terminal.finish(), QByteArray());
    const Run run = tool.finish();
    const QByteArray front = runParts(Job::Write, terminal, local).mid(0, identification_packets + 1).join();
    QVERIFY2(endsWithOneError(run.output, front), run.output.constData());
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, port_error);
}

void TestCuts::theLineIsCutWhileTheLogIsMonitored()
{
    SimulatedTerminal terminal;
    Tool tool({QStringLiteral("-p"), terminal.port(), QStringLiteral("-m")});
    QTRY_COMPARE(terminal.requests().size(), identification_packets + 1);
    QTest::qWait(100); // for the answer to the last one
    QCOMPARE(terminal.finish(), QByteArray());
    const Run run = tool.finish();
    QVERIFY2(endsWithOneError(run.output, identificationOn(terminal)), run.output.constData());
    QCOMPARE(run.errors, QByteArray());
    QCOMPARE(run.code, port_error);
}

QTEST_GUILESS_MAIN(TestCuts)
#include "tst_cuts.moc"
