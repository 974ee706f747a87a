#include "localfiles.h"
#include "lock.h"
#include "simulatedterminal.h"
#include "testbed.h"
#include "tool.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <utility>

/// What the README shows: every command that stands behind a "$" is run, and has to print what stands below it.
class ReadmeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void whatIsShownIsWhatIsPrinted_data();
    void whatIsShownIsWhatIsPrinted();
    void thePageAboutFlashingIsTheOneOfTheReadme();
    void theContentsNameTheHeadings();
};

namespace {

const QString source = QStringLiteral(JVX_SOURCE_DIRECTORY "/");

QString readme()
{
    return QString::fromUtf8(files::content(source + QStringLiteral("README.md")));
}

/// A command, and the lines that are shown below it.
struct Shown {
    QString command;
    QStringList lines;
};

/// The part of the README below a heading, up to the next one of any level.
struct Section {
    QString heading;
    QList<Shown> commands;
};

/// Adds the commands, and what is shown below them, of the code at \a lines[at], which is indented by \a indent blanks.
void addCode(Section &section, const QStringList &lines, qsizetype at, qsizetype indent)
{
    static const QString prompt = QStringLiteral("$ ");
    const QString blanks(indent, QLatin1Char(' '));
    for (; at < lines.size() && (lines[at].isEmpty() || lines[at].startsWith(blanks)); ++at) {
        const QString line = lines[at].mid(indent);
        if (line.startsWith(prompt))
            section.commands.append({line.sliced(prompt.size()), {}});
        else
            section.commands.last().lines += line;
    }
}

QList<Section> sections()
{
    static const QRegularExpression heading(QStringLiteral("^##+ (.*)$"));
    static const QRegularExpression first_command(QStringLiteral("^( {4,})\\$ "));
    QList<Section> sections;
    const QStringList lines = readme().split(QLatin1Char('\n'));
    bool in_code = false;
    for (qsizetype at = 0; at < lines.size(); ++at) {
        if (const auto match = heading.match(lines[at]); match.hasMatch())
            sections.append({match.captured(1), {}});
        const auto match = first_command.match(lines[at]);
        if (match.hasMatch() && !in_code)
            addCode(sections.last(), lines, at, match.capturedLength(1));
        in_code
            = (in_code || match.hasMatch()) && (lines[at].isEmpty() || lines[at].startsWith(QStringLiteral("    ")));
    }
    sections.removeIf([](const Section &section) { return section.commands.isEmpty(); });
    return sections;
}

/// \a text as a terminal shows it in the end, with names, times and numbers that differ from run to run replaced, and
/// one blank where there are several.
QStringList normalized(const QString &text)
{
    static const QList<std::pair<QRegularExpression, QString>> changing{
        {QRegularExpression(QStringLiteral("ttyACM\\d*(\\d)")), QStringLiteral("ttyACM\\1")},
        {QRegularExpression(QStringLiteral("usb-JVX_\\d*(\\d)-if00")), QStringLiteral("usb-JVX_\\1-if00")},
        {QRegularExpression(QStringLiteral("\\d\\d:\\d\\d:\\d\\d \\d{3}")), QStringLiteral("TIME")},
        {QRegularExpression(QStringLiteral("\\] #\\d+ ")), QStringLiteral("] #N ")},
        {QRegularExpression(QStringLiteral("\\d{8}-\\d{6}")), QStringLiteral("DATE")},
        {QRegularExpression(QStringLiteral("\\S*/terminal\\b(-\\d+)?")), QStringLiteral("/terminal")},
    };
    QStringList lines;
    for (const QString &line : text.split(QLatin1Char('\n'))) {
        const QString ended = line.endsWith(QLatin1Char('\r')) ? line.chopped(1) : line;
        QString shown = ended.section(QLatin1Char('\r'), -1).simplified();
        for (const auto &[pattern, replacement] : changing)
            shown.replace(pattern, replacement);
        lines += shown;
    }
    while (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    while (!lines.isEmpty() && lines.first().isEmpty())
        lines.removeFirst();
    return lines;
}

/// Whether \a printed is what \a shown says, in which a line of three dots stands for any lines.
bool matches(const QStringList &printed, const QStringList &shown)
{
    QString pattern;
    for (const QString &line : shown)
        pattern += line == QStringLiteral("...") ? QStringLiteral("(?:.*\\n)*")
                                                 : QRegularExpression::escape(line) + QLatin1Char('\n');
    const QString text = printed.isEmpty() ? QString() : printed.join(QLatin1Char('\n')) + QLatin1Char('\n');
    return QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(text).hasMatch();
}

/// \a command as the test runs it: stopped after 2 s if it would go on for ever, and ./run by its path.
QString runnable(const QString &command)
{
    if (command == QStringLiteral("jvx-loader -m") || command.startsWith(QStringLiteral("watch-log")))
        return QStringLiteral("timeout 2 ") + command;
    if (command.startsWith(QStringLiteral("./run")))
        return source + command.sliced(2);
    return command;
}

const QString mark = QStringLiteral("--8<--\n");

QString script(const Section &section)
{
    QString text = QStringLiteral("exec 2>&1\n");
    for (const Shown &shown : section.commands)
        text += QStringLiteral("printf '%s\\n' --8'<'--\n") + runnable(shown.command) + QLatin1Char('\n');
    return text;
}

int terminalsFor(const Section &section)
{
    if (section.heading == QStringLiteral("Try it"))
        return 0;
    return section.heading == QStringLiteral("Several terminals") ? 2 : 1;
}

/// Shell code that makes udev's links to the ports and, in the folder $1, lets the shell $2 run the script $3.
QString prelude(int terminals)
{
    QString text = QStringLiteral("mkdir -p $UMOCKDEV_DIR/dev/serial/by-id; ");
    for (int number = 0; number < terminals; ++number) {
        const QString port = portName(number);
        text += QStringLiteral("ln -s ../../%1 $UMOCKDEV_DIR/dev/serial/by-id/usb-JVX_%2-if00; ")
                    .arg(port, QString(port).remove(QStringLiteral("ttyACM")));
    }
    return text + QStringLiteral("cd \"$1\"; exec \"$2\" \"$3\"");
}

} // namespace

void ReadmeTest::whatIsShownIsWhatIsPrinted_data()
{
    QTest::addColumn<QString>("heading");
    QTest::addColumn<QString>("shell");
    const QList<Section> all = sections();
    QCOMPARE(all.size(), 11);
    for (const Section &section : all) {
        for (const char *shell : {"dash", "bash", "zsh"})
            QTest::addRow("%s, in %s", qPrintable(section.heading), shell)
                << section.heading << QString::fromLatin1(shell);
    }
}

void ReadmeTest::whatIsShownIsWhatIsPrinted()
{
    QFETCH(QString, heading);
    QFETCH(QString, shell);
    Section section;
    for (const Section &candidate : sections()) {
        if (candidate.heading == heading)
            section = candidate;
    }
    const QStringList options = words("--next-version 1.5.0 --restart 0.3 --log-rate 4");
    const SimulatedTerminal first(options);
    const SimulatedTerminal second(options + words("--imei 350000000000025"));
    const int terminals = terminalsFor(section);
    Testbed testbed(QList{terminalPort(0, "1-1"), terminalPort(1, "1-2")}.first(terminals));
    if (terminals > 0)
        testbed.connect(0, first);
    if (terminals > 1)
        testbed.connect(1, second);
    const QTemporaryDir folder;
    const QTemporaryDir other;
    files::store(folder.filePath(QStringLiteral("new.bin")), files::sample(3000));
    files::store(folder.filePath(QStringLiteral("settings.bin")), files::sample(1300));
    if (section.heading == QStringLiteral("With one command"))
        QVERIFY(QFile::remove(folder.filePath(QStringLiteral("settings.bin"))));
    files::store(other.filePath(QStringLiteral("script")), script(section).toUtf8());

    const QString path = QStringLiteral("PATH=%1:%2examples:%3")
                             .arg(QFileInfo(Tool::path()).path(), source, qEnvironmentVariable("PATH"));
    const Run run = testbed
                        .start({QStringLiteral("-c"), prelude(terminals), QStringLiteral("sh"), folder.path(), shell,
                                   other.filePath(QStringLiteral("script"))},
                            {path}, QStringLiteral("sh"))
                        .finish();
    for (int number = 0; number < terminals; ++number)
        removeLock(
            QStringLiteral("serial/by-id/usb-JVX_%1-if00").arg(portName(number).remove(QStringLiteral("ttyACM"))));

    const QStringList printed = QString::fromUtf8(run.output).split(mark).sliced(1);
    QCOMPARE(printed.size(), section.commands.size());
    for (qsizetype i = 0; i < printed.size(); ++i) {
        const Shown &shown = section.commands[i];
        const QStringList lines = normalized(printed[i]);
        QVERIFY2(matches(lines, normalized(shown.lines.join(QLatin1Char('\n')))),
            qPrintable(shown.command + QStringLiteral(" prints:\n") + lines.join(QLatin1Char('\n'))));
    }
}

void ReadmeTest::thePageAboutFlashingIsTheOneOfTheReadme()
{
    const QString page = QString::fromUtf8(files::content(source + QStringLiteral("docs/flash-safely.md")));
    QVERIFY(page.startsWith(QStringLiteral("# Flash safely\n\n> **Before you write**\n")));
    QVERIFY(readme().contains(QStringLiteral("\n#") + page));
}

void ReadmeTest::theContentsNameTheHeadings()
{
    QStringList headings;
    QStringList contents;
    for (const QString &line : readme().split(QLatin1Char('\n'))) {
        if (line.startsWith(QStringLiteral("## ")))
            headings += line.sliced(3);
        else if (line.startsWith(QStringLiteral("- [")))
            contents += line.section(QLatin1Char('['), 1).section(QLatin1Char(']'), 0, 0);
    }
    QVERIFY(headings.size() > 5);
    QCOMPARE(contents, headings);
}

QTEST_GUILESS_MAIN(ReadmeTest)
#include "tst_readme.moc"
