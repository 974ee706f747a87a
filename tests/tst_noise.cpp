#include "console.h"
#include "localfiles.h"
#include "packets.h"
#include "plainterminal.h"
#include "sanitizers.h"
#include "simulatedterminal.h"
#include "tool.h"

#include <QDeadlineTimer>
#include <QRandomGenerator>
#include <QTest>
#include <QtEndian>

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>
#include <memory>
#include <vector>

// What the tool can see of a bad line, and what not:
//
// The checksums of header and body are the exclusive or of their bytes. One wrong bit, or any odd number of wrong bits
// in the same position of a byte, is seen. Two wrong bits in the same position of two bytes cancel out, and swapped
// bytes are not noticed. The simulated line flips one bit of a header and one bit of a body at most.
//
// Answers carry no sequence number; key and direction are all that ties them to a request. The position in a read
// answer is not checked: an answer that comes twice is taken for the next piece, and a whole but wrong file is saved.
// A write answer that comes twice makes the tool send the next piece twice. Answers to nothing pending are ignored.
// So the runs here that must move the right data have no doubled answers on a read; these have tests of their own.

/// The tool on lines with all kinds of faults at once; tool and terminal are processes of their own.
class NoiseTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void onABadLineTheDataAreRightOrTheRunFails_data();
    void onABadLineTheDataAreRightOrTheRunFails();
    void someRunsGetThroughAndSomeDoNot();

    void whatStandsBeforeAnAnswerIsSkipped_data();
    void whatStandsBeforeAnAnswerIsSkipped();
    void aDamagedAnswerIsNotTaken_data();
    void aDamagedAnswerIsNotTaken();

    void aDoubledReadAnswerIsTakenForTheNextPiece_data();
    void aDoubledReadAnswerIsTakenForTheNextPiece();
    void aDoubledWriteAnswerSendsTheNextPieceTwice();
    void aPieceSentTwiceIsRefusedByAStrictTerminal();
    void aDoubledAnswerToASingleRequestIsIgnored_data();
    void aDoubledAnswerToASingleRequestIsIgnored();

private:
    int _through = 0;
    int _failed = 0;
};

namespace {

constexpr int side_by_side = 8;
constexpr int runs_per_row = 40;

constexpr int timeout = 256 - 1;
constexpr int port_error = 256 - 110;
constexpr int out_of_order = 3;        // the simulated terminal's status
constexpr int largest_any_status = 15; // of those that --error-rate draws

enum class Job { Read, Write, Apply };

/// A file, and the faults of the line that it has to get over; the same for the same seed.
struct Mix {
    Mix(Job job_of_mix, quint32 seed_of_mix)
        : job(job_of_mix)
        , seed(seed_of_mix)
        , _generator(seed_of_mix)
    {
        content = files::sample(chooseSize(), seed);
        chooseKind();
        chooseWays();
        chooseFaults();
        if (job != Job::Read)
            chooseFaultsOfWrites();
        if (oneIn(6))
            chooseCut();
    }

    const Job job;
    const quint32 seed;
    QByteArray content;
    QString kind = QStringLiteral("settings");
    QStringList options;

    bool has(const char *option) const { return options.contains(QLatin1String(option)); }

    /// Whether \a code may end a run with these faults.
    bool allows(int code) const
    {
        if (code == port_error) // also when the answer to an apply is lost and the terminal restarts
            return has("--drop-at") || job == Job::Apply;
        if (code == out_of_order && has("--duplicate"))
            return true;
        if (code > 0 && code <= largest_any_status)
            return has("--error-rate");
        return code == 0 || code == timeout;
    }

    /// Whether an answer may get lost, or come too late. Otherwise only a busy machine explains a time-out.
    bool losesAnswers() const
    {
        static constexpr std::array faults{
            "--garbage", "--damage-header", "--damage-body", "--lose", "--late", "--duplicate", "--drop-at"};
        return std::any_of(faults.begin(), faults.end(), [this](const char *fault) { return has(fault); });
    }

    /// Whether the terminal may complain so. When an answer comes twice, the tool sends the next piece twice, and the
    /// terminal refuses the second copy. No other fault makes the tool send a request that is wrong.
    bool allowsComplaint(const QByteArray &line) const
    {
        return has("--duplicate")
            && (line.contains(": wrong offset: ") || line.contains(": handle of no transfer under way: "));
    }

    QByteArray toText() const
    {
        static constexpr std::array names{"read", "write", "apply"};
        return QByteArray(names[static_cast<size_t>(job)]) + ", seed " + QByteArray::number(seed) + ", "
            + QByteArray::number(content.size()) + " bytes of " + kind.toLatin1() + ", "
            + options.join(QLatin1Char(' ')).toLatin1();
    }

private:
    bool oneIn(int count) { return _generator.bounded(count) == 0; }

    int between(int least, int most) { return _generator.bounded(least, most + 1); }

    qsizetype chooseSize()
    {
        static constexpr std::array sizes{0, 1, 511, 512, 513, 1024, 1300, 2048};
        return oneIn(2) ? sizes[static_cast<size_t>(between(0, 7))] : between(1, 3000);
    }

    void chooseKind()
    {
        if (job == Job::Apply && oneIn(2))
            kind = QStringLiteral("firmware");
    }

    void add(const char *option, const QString &value)
    {
        options += QLatin1String(option);
        options += value;
    }

    void add(const char *option, int value) { add(option, QString::number(value)); }

    void addRate(const char *option, int least, int most)
    {
        if (oneIn(3))
            add(option, between(least, most));
    }

    /// Adds options that are no faults: a correct tool succeeds with them.
    void chooseWays()
    {
        add("--seed", static_cast<int>(seed));
        add("--restart", QStringLiteral("0.5"));
        if (oneIn(3))
            add("--latency", between(1, 60));
        if (oneIn(2))
            add("--split",
                oneIn(4)       ? QStringLiteral("every")
                    : oneIn(2) ? QStringLiteral("random")
                               : QString::number(between(2, 64)));
        if (oneIn(3))
            options += QStringLiteral("--log-always");
        if (oneIn(4))
            add("--log-rate", between(10, 2000));
        addRate("--foreign-rate", 1, 5);
    }

    void chooseFaults()
    {
        addRate("--garbage", 1, 64);
        addRate("--damage-header", 6, 40);
        addRate("--damage-body", 6, 40);
        addRate("--lose", 10, 50);
        addRate("--error-rate", 4, 20);
    }

    void chooseFaultsOfWrites()
    {
        addRate("--accept", 100, 512);
        addRate("--duplicate", 2, 10);
        if (oneIn(4))
            add("--late", QStringLiteral("%1:%2").arg(between(3, 20)).arg(between(10, 700)));
        if (oneIn(4))
            options += QStringLiteral("--restart-before-answer");
    }

    void chooseCut()
    {
        add("--drop-at",
            QStringLiteral("%1:%2")
                .arg(between(1, 12))
                .arg(oneIn(2) ? QLatin1String("before") : QLatin1String("after")));
        if (job != Job::Apply) // after an apply the tool would wait for a minute
            options += QStringLiteral("--no-return");
    }

    QRandomGenerator _generator;
};

/// One run of the tool on a line of its own. Starts at once.
class NoisyRun {
public:
    explicit NoisyRun(Mix mix)
        : _mix(std::move(mix))
        , _terminal(_mix.options)
        , _local(_terminal.path(QStringLiteral("local.bin")))
        , _own(_terminal.own(_mix.kind))
    {
        files::store(_mix.job == Job::Read ? _own : _local, _mix.content);
        files::store(_mix.job == Job::Read ? _local : _own, "old");
        _tool = std::make_unique<Tool>(arguments());
    }

    /// Whether the tool has ended or should have.
    bool hasEnded() { return _tool->hasEnded() || _clock.hasExpired(); }

    /// What is wrong with the way in which the run ended; empty if nothing is.
    QByteArray verdict()
    {
        _run = _tool->finish(1ms);
        for (const QByteArray &fault : {faultOfCode(), faultOfOutput(), faultOfFiles(), faultOfTime(), complaints()}) {
            if (!fault.isEmpty())
                return _mix.toText() + "\n" + fault + "\nexit code " + QByteArray::number(_run.code) + ", output:\n"
                    + _run.output + "\n";
        }
        return {};
    }

    bool gotThrough() const { return _run.code == 0; }

    bool timedOutForNothing() const { return _run.code == timeout && !_mix.losesAnswers(); }

private:
    QStringList arguments() const
    {
        static constexpr std::array options{"-r", "-w", "-a -w"};
        return argumentsOn(_terminal.port(), options[static_cast<size_t>(_mix.job)], _local)
            + QStringList{QStringLiteral("-f"), _mix.kind};
    }

    QByteArray faultOfCode() const
    {
        return _mix.allows(_run.code) ? QByteArray() : QByteArrayLiteral("no fault explains this exit code");
    }

    /// Nothing on standard error, and an error that is told once and last, or not at all.
    QByteArray faultOfOutput() const
    {
        if (!_run.errors.isEmpty())
            return "on standard error: " + _run.errors;
        if (_run.output.count("Error: ") != (gotThrough() ? 0 : 1))
            return QByteArrayLiteral("not one error for one failure");
        if (!gotThrough() && _run.output.sliced(_run.output.indexOf("Error: ")).count('\n') != 1)
            return QByteArrayLiteral("the error is not the last line");
        return {};
    }

    /// A file is the old one or the new one, never half of either, and the new one if the tool says so.
    QByteArray faultOfFiles() const
    {
        const bool reads = _mix.job == Job::Read;
        if (files::content(reads ? _own : _local) != _mix.content)
            return QByteArrayLiteral("the source has changed");
        const QByteArray target = files::content(reads ? _local : _own);
        if (target != _mix.content && target != "old")
            return "wrong data: " + target.toHex();
        if (gotThrough() && target != _mix.content)
            return QByteArrayLiteral("exit code 0, but nothing was moved");
        if (reads && (target == _mix.content) != _run.output.contains("File saved to"))
            return QByteArrayLiteral("saved or not, the output tells otherwise");
        return {};
    }

    /// No request waits longer than its time-out. The last one is not recorded if the terminal was gone by then.
    QByteArray faultOfTime() const
    {
        const QByteArrayList requests = _terminal.requests();
        const auto pieces = std::count_if(
            requests.cbegin(), requests.cend(), [](const QByteArray &body) { return body.startsWith("2a214657"); });
        const bool writes = _mix.job != Job::Read;
        const qint64 limit = 500 * (requests.size() - pieces + 1) + 5000 * (pieces + (writes ? 1 : 0))
            + (_mix.job == Job::Apply ? 10'000 : 0) + slack;
        return _run.milliseconds <= limit ? QByteArray() : "took " + QByteArray::number(_run.milliseconds) + " ms";
    }

    QByteArray complaints()
    {
        for (const QByteArray &line : _terminal.complaints()) {
            if (!_mix.allowsComplaint(line))
                return line;
        }
        return {};
    }

    static constexpr qint64 slack = is_sanitized ? 10'000 : 5'000; // of a busy machine

    const Mix _mix;
    FilingTerminal _terminal;
    const QString _local;
    const QString _own;
    std::unique_ptr<Tool> _tool;
    QDeadlineTimer _clock{60s};
    Run _run;
};

/// What the tool shows when \a moved bytes of 1300 are transferred.
QByteArray progress(int moved)
{
    return console::progressAt(moved, 1300);
}

QByteArray identification(const PlainTerminal &terminal)
{
    return console::plainIdentificationParts(terminal.port()).join();
}

/// Answers all requests up to the one for the log mask, which comes last. A request is answered twice if \a isDoubled
/// is true for its body and its number, counted from 1. Returns the requests.
QByteArrayList serve(PlainTerminal &terminal, const std::function<bool(const QByteArray &, qsizetype)> &isDoubled)
{
    QByteArrayList requests;
    do {
        requests += terminal.request();
        const QByteArray answer = terminal.answerTo(requests.constLast());
        terminal.send(isDoubled(requests.constLast(), requests.size()) ? answer + answer : answer);
    } while (!requests.constLast().isEmpty() && !requests.constLast().startsWith("*!LOG"));
    return requests;
}

/// The offsets that requests of \a key ask for or bring.
QList<int> offsets(const QByteArrayList &requests, const char *key)
{
    QList<int> list;
    for (const QByteArray &request : requests) {
        if (request.startsWith(key))
            list += qFromLittleEndian<int>(request.constData() + 9);
    }
    return list;
}

} // namespace

void NoiseTest::onABadLineTheDataAreRightOrTheRunFails_data()
{
    QTest::addColumn<int>("job");
    QTest::addColumn<quint32>("first");
    // A soak takes other seeds.
    const auto start = static_cast<quint32>(std::max(1, qEnvironmentVariableIntValue("JVX_NOISE_FIRST_SEED")));
    const auto rows = [start](const char *name, Job job, quint32 count) {
        for (quint32 first = start; first < start + count; first += runs_per_row)
            QTest::addRow("%s, seeds %u to %u", name, first, first + runs_per_row - 1)
                << static_cast<int>(job) << first;
    };
    rows("read", Job::Read, is_sanitized ? 40 : 160);
    rows("write", Job::Write, is_sanitized ? 40 : 120);
    rows("apply", Job::Apply, 40);
}

void NoiseTest::onABadLineTheDataAreRightOrTheRunFails()
{
    QFETCH(const int, job);
    QFETCH(const quint32, first);
    std::vector<std::unique_ptr<NoisyRun>> runs;
    int faulty = 0;
    int timed_out_for_nothing = 0;
    for (quint32 seed = first; seed < first + runs_per_row || !runs.empty();) {
        if (runs.size() < side_by_side && seed < first + runs_per_row)
            runs.push_back(std::make_unique<NoisyRun>(Mix(static_cast<Job>(job), seed++)));
        const auto ended = std::partition(runs.begin(), runs.end(), [](const auto &run) { return !run->hasEnded(); });
        for (auto run = ended; run != runs.end(); ++run) {
            const QByteArray verdict = (*run)->verdict();
            if (!verdict.isEmpty())
                qWarning("%d: %s", ++faulty, verdict.constData());
            ++((*run)->gotThrough() ? _through : _failed);
            timed_out_for_nothing += (*run)->timedOutForNothing() ? 1 : 0;
        }
        runs.erase(ended, runs.end());
    }
    QCOMPARE(faulty, 0);
    QVERIFY2(timed_out_for_nothing <= runs_per_row / 10, QByteArray::number(timed_out_for_nothing).constData());
}

// Otherwise the faults would be too many or too few to tell anything.
void NoiseTest::someRunsGetThroughAndSomeDoNot()
{
    const int all = _through + _failed;
    if (all == 0)
        QSKIP("needs the runs before");
    qInfo("%d runs of %d got through", _through, all);
    QVERIFY(_through > all / 5);
    QVERIFY(_failed > all / 5);
}

void NoiseTest::whatStandsBeforeAnAnswerIsSkipped_data()
{
    using Junk = std::function<QByteArray(const QByteArray &)>;
    QTest::addColumn<Junk>("junk");
    const auto fixed = [](const QByteArray &bytes) { return Junk([bytes](const QByteArray &) { return bytes; }); };
    QTest::newRow("nothing") << fixed({});
    QTest::newRow("random bytes") << fixed(files::sample(100));
    QTest::newRow("the beginning of a magic") << fixed("@JV");
    QTest::newRow("a magic") << fixed("@JVX");
    QTest::newRow("a magic and some bytes") << fixed("@JVX" + QByteArray(7, 'x'));
    QTest::newRow("a log record") << fixed(packets::log_record);
    QTest::newRow("the answer to another request") << fixed(packets::packet("*@FR1"));
    QTest::newRow("the answer with a wrong header sum") << Junk(packets::withWrongHeaderSum);
    QTest::newRow("the answer with a wrong body sum")
        << Junk([](const QByteArray &answer) { return packets::withWrongBodySum(answer.mid(16)); });
    QTest::newRow("half of the answer") << Junk(
        [](const QByteArray &answer) { return answer.first(answer.size() / 2); });
    QTest::newRow("the header of the answer") << Junk([](const QByteArray &answer) { return answer.first(16); });
}

void NoiseTest::whatStandsBeforeAnAnswerIsSkipped()
{
    QFETCH(const std::function<QByteArray(const QByteArray &)>, junk);
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    files::store(local, files::sample(1300));

    PlainTerminal terminal;
    Tool tool(argumentsOn(terminal.port(), "-w -f settings", local));
    QByteArray request;
    do {
        request = terminal.request();
        const QByteArray answer = terminal.answerTo(request);
        terminal.send(junk(answer) + answer);
    } while (!request.isEmpty() && !request.startsWith("*!LOG"));
    const Run run = tool.finish();
    QCOMPARE(run,
        exits(0,
            identification(terminal) + console::writing(local, "settings") + progress(512) + progress(1024)
                + progress(1300) + console::written()));
}

void NoiseTest::aDamagedAnswerIsNotTaken_data()
{
    QTest::addColumn<QByteArray>("answer");
    const QByteArray answer = packets::software_answer;
    QTest::newRow("wrong header sum") << packets::withWrongHeaderSum(answer);
    QTest::newRow("wrong body sum") << packets::withWrongBodySum(answer.mid(16));
    for (int i = 0; i < answer.size(); i += 3) {
        QByteArray damaged = answer;
        damaged[i] = static_cast<char>(damaged[i] ^ (1 << i % 8));
        QTest::addRow("wrong bit in byte %d", i) << damaged;
    }
}

void NoiseTest::aDamagedAnswerIsNotTaken()
{
    QFETCH(const QByteArray, answer);
    PlainTerminal terminal;
    Tool tool(argumentsOn(terminal.port()));
    QCOMPARE(terminal.request(), QByteArray("*?V"));
    terminal.send(answer);
    const Run run = tool.finish();
    QCOMPARE(
        run, exits(timeout, console::plainIdentificationParts(terminal.port()).constFirst() + "Error: Timeout(-1)\n"));
    QVERIFY(run.milliseconds >= 500);
}

void NoiseTest::aDoubledReadAnswerIsTakenForTheNextPiece_data()
{
    QTest::addColumn<int>("doubled");
    QTest::addColumn<QList<int>>("pieces");
    QTest::addColumn<QList<int>>("asked");
    // With one piece held twice the tool does not wait for the last one, and cuts the file to its size.
    QTest::newRow("first piece") << 1 << QList<int>{0, 0, 512} << QList<int>{0, 512, 1024};
    QTest::newRow("second piece") << 2 << QList<int>{0, 512, 512} << QList<int>{0, 512, 1024};
    // Nothing waits for a piece any more when the last one comes again.
    QTest::newRow("last piece") << 3 << QList<int>{0, 512, 1024} << QList<int>{0, 512, 1024};
}

void NoiseTest::aDoubledReadAnswerIsTakenForTheNextPiece()
{
    QFETCH(const int, doubled);
    QFETCH(const QList<int>, pieces);
    QFETCH(const QList<int>, asked);
    const QByteArray content = files::sample(1300);
    QByteArray expected;
    for (const int offset : pieces)
        expected += content.mid(offset, 512);
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));

    PlainTerminal terminal(content);
    Tool tool(argumentsOn(terminal.port(), "-r -f settings", local));
    const QByteArrayList requests
        = serve(terminal, [doubled](const QByteArray &, qsizetype number) { return number == 3 + doubled; });
    const Run run = tool.finish();
    QCOMPARE(run,
        exits(0,
            identification(terminal) + console::reading("settings") + progress(512) + progress(1024) + progress(1300)
                + console::saved(local)));
    QCOMPARE(files::content(local), expected.first(1300));
    QCOMPARE(offsets(requests, "*!FR"), asked);
}

// The terminal acknowledges each copy of a piece, so that after one doubled answer every piece is sent twice.
void NoiseTest::aDoubledWriteAnswerSendsTheNextPieceTwice()
{
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    files::store(local, files::sample(1300));

    PlainTerminal terminal;
    Tool tool(argumentsOn(terminal.port(), "-w -f settings", local));
    const QByteArrayList requests = serve(terminal, [](const QByteArray &, qsizetype number) { return number == 4; });
    const Run run = tool.finish();
    QCOMPARE(run,
        exits(0,
            identification(terminal) + console::writing(local, "settings") + progress(512) + progress(512)
                + progress(1024) + progress(1024) + progress(1300) + console::written()));
    QCOMPARE(offsets(requests, "*!FW"), QList<int>({0, 512, 512, 1024, 1024}));
    QCOMPARE(requests.mid(4, 1), requests.mid(5, 1));
    QCOMPARE(requests.mid(6, 1), requests.mid(7, 1));
}

void NoiseTest::aPieceSentTwiceIsRefusedByAStrictTerminal()
{
    FilingTerminal terminal(words("--duplicate 1"));
    const QString local = terminal.path(QStringLiteral("local.bin"));
    const QString own = terminal.own(QStringLiteral("settings"));
    files::store(local, files::sample(1300));
    files::store(own, "old");
    QCOMPARE(runOn(terminal.port(), "-w -f settings", local),
        exits(out_of_order,
            console::identification(terminal.port()) + console::writing(local, "settings") + progress(512)
                + progress(512) + progress(1024) + progress(1024) + console::written() + "Error: 3\n"));
    // The third piece may still be on its way when the refusal of the second one ends the run.
    const QByteArray content = files::content(own);
    QVERIFY(content == "old" || content == files::sample(1300));
    QVERIFY(terminal.complaints().join().contains(": wrong offset: "));
}

void NoiseTest::aDoubledAnswerToASingleRequestIsIgnored_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<bool>("applies");
    for (const char *request : {"*?V", "*?H", "*?S", "*!LOG"})
        QTest::newRow(request) << QByteArray(request) << false;
    QTest::newRow("*!FU") << QByteArray("*!FU") << true; // the port closes between the two
    QTest::newRow("all of them") << QByteArray("*") << false;
}

void NoiseTest::aDoubledAnswerToASingleRequestIsIgnored()
{
    QFETCH(const QByteArray, request);
    QFETCH(const bool, applies);
    const QTemporaryDir directory;
    const QString local = directory.filePath(QStringLiteral("local.bin"));
    files::store(local, "123456789");

    PlainTerminal terminal;
    Tool tool(argumentsOn(terminal.port(), applies ? "-w -a -f settings" : "-w -f settings", local));
    const QByteArrayList requests
        = serve(terminal, [&request](const QByteArray &body, qsizetype) { return body.startsWith(request); });
    const Run run = tool.finish();
    const QByteArray written
        = identification(terminal) + console::writing(local, "settings") + console::progress(9) + console::written();
    const QByteArray restarted = console::applying("settings") + console::completed()
        + console::waiting(terminal.port()) + console::opened(terminal.port());
    QCOMPARE(run, exits(0, applies ? written + restarted : written));
    QCOMPARE(requests.size(), 3 + 1 + (applies ? 1 : 0) + 1);
}

QTEST_GUILESS_MAIN(NoiseTest)
#include "tst_noise.moc"
