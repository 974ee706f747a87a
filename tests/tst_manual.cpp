#include "installation.h"
#include "localfiles.h"

/// The manual pages, against the executables and the sources.
class ManualTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { _installation.emplace(QStringLiteral("/usr")); }

    void aPageIsWithoutFault_data() { pages(); }
    void aPageIsWithoutFault();
    void aPageHasItsSections_data() { pages(); }
    void aPageHasItsSections();
    void aPageHasTheOptionsOfTheHelp_data() { pages(); }
    void aPageHasTheOptionsOfTheHelp();
    void thePageHasTheKindsOfFileOfTheHelp();
    void thePageHasTheExitCodesOfTheSources();
    void thePageGivesEveryExitCodeAsAShellSeesIt();
    void thePageOfTheSimulatedTerminalHasItsExitCodes();
    void thePageNamesTheInstalledRule();

private:
    static void pages();
    QString page(const QString &name) const;
    QString help(const QString &name) const;

    std::optional<Installation> _installation;
};

namespace {

const QString loader = QStringLiteral("jvx-loader");
const QString simulator = QStringLiteral("jvx-simulator");

/// What the first group of \a pattern captures in every line of \a text, sorted.
QStringList captured(const QString &text, const QString &pattern)
{
    QStringList found;
    QRegularExpressionMatchIterator matches
        = QRegularExpression(pattern, QRegularExpression::MultilineOption).globalMatch(text);
    while (matches.hasNext())
        found += matches.next().captured(1).simplified();
    found.sort();
    return found;
}

/// The section of the page \a text that has this \a heading.
QString section(const QString &text, const QString &heading)
{
    static const QString until_next_heading = QStringLiteral("^%1$(.*?)(?=^\\S|\\z)");
    return QRegularExpression(until_next_heading.arg(heading),
        QRegularExpression::MultilineOption | QRegularExpression::DotMatchesEverythingOption)
        .match(text)
        .captured(1);
}

QString source(const char *name)
{
    return QString::fromUtf8(files::content(QStringLiteral(JVX_SOURCE_DIRECTORY "/") + QLatin1String(name)));
}

} // namespace

void ManualTest::pages()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("jvx-loader") << loader;
    QTest::newRow("jvx-simulator") << simulator;
}

/// The page with every paragraph on one line. Every version of mandoc lays it out like that; man differs.
QString ManualTest::page(const QString &name) const
{
    static const QRegularExpression overstruck(QStringLiteral(".\\x08"));
    return run({QStringLiteral("mandoc"), QStringLiteral("-T"), QStringLiteral("utf8"), QStringLiteral("-O"),
                   QStringLiteral("indent=5,width=1000"),
                   _installation->path(QStringLiteral("share/man/man1/%1.1").arg(name))})
        .output.remove(overstruck);
}

QString ManualTest::help(const QString &name) const
{
    return run({_installation->path(QStringLiteral("bin/") + name), QStringLiteral("--help")},
        {QStringLiteral("QT_QPA_PLATFORM=minimal")})
        .output;
}

void ManualTest::aPageIsWithoutFault()
{
    QFETCH(QString, name);
    const QString path = _installation->path(QStringLiteral("share/man/man1/%1.1").arg(name));

    // Which other pages are known depends on the machine.
    QStringList remarks = run({QStringLiteral("mandoc"), QStringLiteral("-T"), QStringLiteral("lint"), path})
                              .output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    remarks.removeIf([](const QString &line) { return line.contains(QStringLiteral("referenced manual not found")); });
    // The footer is to show whose page it is, and of which version.
    remarks.removeIf(
        [](const QString &line) { return line.contains(QStringLiteral("operating system explicitly specified")); });
    QCOMPARE(remarks, QStringList());

    const Ended man = run({QStringLiteral("man"), QStringLiteral("--warnings"), QStringLiteral("--local-file"), path},
        {QStringLiteral("MANWIDTH=80"), QStringLiteral("LC_ALL=C.UTF-8"), QStringLiteral("MANPAGER=cat")});
    QCOMPARE(man.code, 0);
    QCOMPARE(man.errors, QString());
}

void ManualTest::aPageHasItsSections()
{
    QFETCH(QString, name);
    const QString text = page(name);
    QStringList headings{QStringLiteral("NAME"), QStringLiteral("SYNOPSIS"), QStringLiteral("DESCRIPTION"),
        QStringLiteral("OPTIONS"), QStringLiteral("FILES"), QStringLiteral("EXIT STATUS"), QStringLiteral("EXAMPLES"),
        QStringLiteral("DIAGNOSTICS"), QStringLiteral("SEE ALSO")};
    if (name == loader)
        headings += {QStringLiteral("ENVIRONMENT"), QStringLiteral("CAVEATS")};
    for (const QString &heading : std::as_const(headings))
        QVERIFY2(!section(text, heading).trimmed().isEmpty(), qPrintable(heading));
}

void ManualTest::aPageHasTheOptionsOfTheHelp()
{
    QFETCH(QString, name);
    // "  -p, --port <name>  Serial port" and "     -p, --port name"
    const QStringList of_help = captured(
        help(name).remove(QRegularExpression(QStringLiteral("[<>]"))), QStringLiteral("^  (-\\S.*?)(?:  .*)?$"));
    QVERIFY(of_help.size() > 5);
    QCOMPARE(
        captured(section(page(name), QStringLiteral("OPTIONS")), QStringLiteral("^     (-\\S.*?)(?:  .*)?$")), of_help);
}

void ManualTest::thePageHasTheKindsOfFileOfTheHelp()
{
    // "    6 | fls-firmware    Firmware of ..." and "   6     fls-firmware    firmware of ..."
    const QStringList of_help
        = captured(help(loader).remove(QLatin1Char('|')), QStringLiteral("^ +(\\d+ +\\S+)  +\\S.*$"));
    QCOMPARE(of_help.size(), 12);
    QCOMPARE(captured(section(page(loader), QStringLiteral("OPTIONS")), QStringLiteral("^ +(\\d+ +\\S+)  +\\S.*$")),
        of_help);
}

void ManualTest::thePageHasTheExitCodesOfTheSources()
{
    QStringList of_sources = captured(source("src/main.cpp") + source("src/device.cpp"),
        QStringLiteral("^ *(?:constexpr int )?\\w+ = (-1\\d\\d)\\b"));
    QCOMPARE(of_sources.size(), 9);
    of_sources += captured(source("src/jvxb.h"), QStringLiteral("^ *(?:Timeout|UnknownResponse) = (-\\d)\\b"));
    of_sources.sort();
    QCOMPARE(captured(section(page(loader), QStringLiteral("EXIT STATUS")), QStringLiteral("^     (-\\d+) \\(")),
        of_sources);
}

void ManualTest::thePageGivesEveryExitCodeAsAShellSeesIt()
{
    static const QRegularExpression entry(QStringLiteral("^     (-?\\d+)(?: to (-?\\d+))? \\((\\d+)(?: to (\\d+))?\\)"),
        QRegularExpression::MultilineOption);
    QRegularExpressionMatchIterator entries = entry.globalMatch(section(page(loader), QStringLiteral("EXIT STATUS")));
    int count = 0;
    for (; entries.hasNext(); ++count) {
        const QRegularExpressionMatch match = entries.next();
        QCOMPARE(match.captured(3).toInt(), match.captured(1).toInt() & 0xFF);
        QCOMPARE(match.captured(4).toInt(), match.captured(2).toInt() & 0xFF);
    }
    QCOMPARE(count, 15);
}

void ManualTest::thePageOfTheSimulatedTerminalHasItsExitCodes()
{
    const QStringList of_source
        = captured(source("simulator/main.cpp"), QStringLiteral("^constexpr int exit_?\\w+ = (\\d+);"));
    QCOMPARE(of_source.size(), 3);
    QCOMPARE(captured(section(page(simulator), QStringLiteral("EXIT STATUS")), QStringLiteral("^     (\\d+)\\b")),
        of_source);
}

void ManualTest::thePageNamesTheInstalledRule()
{
    const QStringList named
        = captured(section(page(loader), QStringLiteral("FILES")), QStringLiteral("^     (\\S+\\.rules)"));
    QCOMPARE(named.size(), 1);
    QCOMPARE(named, _installation->files().filter(QStringLiteral(".rules")));
}

QTEST_GUILESS_MAIN(ManualTest)
#include "tst_manual.moc"
