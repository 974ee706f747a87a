#include "installation.h"
#include "localfiles.h"

static const QString loader = QStringLiteral("jvx-loader");

/// The completions, in the shells that they are for.
class CompletionTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void theOptionsOfTheHelpAreOffered_data();
    void theOptionsOfTheHelpAreOffered();
    void theKindsOfFileOfTheHelpAreOffered_data() { shells(); }
    void theKindsOfFileOfTheHelpAreOffered();
    void thePortsAreOffered_data() { shells(); }
    void thePortsAreOffered();
    void whatIsOfferedGoesWithTheLine_data();
    void whatIsOfferedGoesWithTheLine();

private:
    static void shells();
    QStringList ofHelp(const QString &pattern, const QString &program = loader) const;
    QStringList offered(
        const QString &shell, const QString &words, const QString &begun, const QString &program = loader) const;
    void write(const QString &name, const QByteArray &content) const;

    std::optional<Installation> _installation;
    QTemporaryDir _home;
};

namespace {

// Each script makes its shell write the completions of $LINE to the file ~/offered. In bash and zsh it presses the keys
// that put all of them on the line, and then those that turn the line into a command which prints its words.

const QByteArray bash_script = R"(
    echo '. /usr/share/bash-completion/bash_completion' >~/start
    printf '%s\033*\001printf "%%s\\n" \005 >~/offered\nexit\n' "$LINE" | TERM=dumb bash --noprofile --rcfile ~/start -i
)";

const QByteArray zsh_script = R"(
    cat >~/start <<'END'
        fpath=($PREFIX/share/zsh/site-functions $fpath)
        autoload -U compinit
        compinit -u -d ~/dump
        zstyle ':completion:all:*' completer _all_matches _complete
        zstyle ':completion:all:*' insert true
        zle -C all complete-word _generic
        bindkey '^Xa' all
        bindkey '^A' beginning-of-line
        bindkey '^E' end-of-line
END
    cat >~/driver <<'END'
        zmodload zsh/zpty
        zpty shell TERM=dumb zsh -f -i
        zpty -w shell '. ~/start'
        zpty -n -w shell $LINE$'\030a\001print -rl -- \005 >~/offered; exit\n'
        while zpty -r shell output; do :; done
END
    zsh -f ~/driver
)";

const QByteArray fish_script = R"(
    fish --command 'complete --do-complete $LINE' | cut -f 1 >~/offered
)";

/// The serial ports that the shells see: two on USB, one of them known by its name, and one of another kind.
const QByteArray ports = "P: /devices/pci0000:00/usb1/1-1/tty/ttyACM3\nN: ttyACM3\nE: SUBSYSTEM=tty\n\n"
                         "P: /devices/pci0000:00/usb1/1-2/tty/ttyUSB0\nN: ttyUSB0\nE: SUBSYSTEM=tty\n\n"
                         "P: /devices/platform/tty/ttyS7\nN: ttyS7\nE: SUBSYSTEM=tty\n\n";
const QByteArray port_name = "mkdir -p $UMOCKDEV_DIR/dev/serial/by-id\n"
                             "ln -s ../../ttyACM3 $UMOCKDEV_DIR/dev/serial/by-id/usb-JVX_SN1-if00\n";

QStringList list(const char *words)
{
    return QString::fromLatin1(words).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

void CompletionTest::initTestCase()
{
    _installation.emplace(QStringLiteral("/usr"));
    write(QStringLiteral("ports.umockdev"), ports);
    write(QStringLiteral("bash"), port_name + "cd ~/local\n" + bash_script);
    write(QStringLiteral("zsh"), port_name + "cd ~/local\n" + zsh_script);
    write(QStringLiteral("fish"), port_name + "cd ~/local\n" + fish_script);
    QVERIFY(QDir(_home.path()).mkpath(QStringLiteral("local/folder")));
    write(QStringLiteral("local/settings.bin"), {});
    write(QStringLiteral("local/two words"), {});
}

void CompletionTest::shells()
{
    QTest::addColumn<QString>("shell");
    for (const QString &shell : list("bash zsh fish"))
        QTest::newRow(qPrintable(shell)) << shell;
}

void CompletionTest::write(const QString &name, const QByteArray &content) const
{
    files::store(_home.filePath(name), content);
}

/// What the groups of \a pattern capture in the help of \a program, sorted.
QStringList CompletionTest::ofHelp(const QString &pattern, const QString &program) const
{
    const QString help = run({_installation->path(QStringLiteral("bin/") + program), QStringLiteral("--help")},
        {QStringLiteral("QT_QPA_PLATFORM=minimal")})
                             .output;
    QStringList found;
    QRegularExpressionMatchIterator matches
        = QRegularExpression(pattern, QRegularExpression::MultilineOption).globalMatch(help);
    while (matches.hasNext())
        found += matches.next().capturedTexts().sliced(1);
    found.removeAll(QString());
    found.sort();
    return found;
}

/// What \a shell offers for the word \a begun that follows \a words of the command line of \a program, sorted.
QStringList CompletionTest::offered(
    const QString &shell, const QString &words, const QString &begun, const QString &program) const
{
    QStringList line{program};
    line += list(words.toLatin1().constData());
    const qsizetype words_before = line.size();
    line += begun;
    run({QStringLiteral("umockdev-run"), QStringLiteral("-d"), _home.filePath(QStringLiteral("ports.umockdev")),
            QStringLiteral("--"), QStringLiteral("sh"), _home.filePath(shell)},
        {QStringLiteral("LINE=") + line.join(QLatin1Char(' ')), QStringLiteral("HOME=") + _home.path(),
            QStringLiteral("PREFIX=") + _installation->path({}),
            QStringLiteral("XDG_DATA_DIRS=") + _installation->path(QStringLiteral("share:/usr/share")),
            QStringLiteral("PATH=") + _installation->path(QStringLiteral("bin:")) + qEnvironmentVariable("PATH")});

    QStringList result = QString::fromUtf8(files::content(_home.filePath(QStringLiteral("offered"))))
                             .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (!QFile::remove(_home.filePath(QStringLiteral("offered"))))
        QTest::qFail(qPrintable(QStringLiteral("no answer from ") + shell), __FILE__, __LINE__);
    if (shell != QStringLiteral("fish")) {
        result = result.mid(words_before);
        result.removeAll(begun); // stays on the line when nothing is offered
    }
    // Some shells end a folder with a slash, or show a value together with its option.
    result.replaceInStrings(QRegularExpression(QStringLiteral("/$|^--file=")), QString());
    result.sort();
    return result;
}

void CompletionTest::theOptionsOfTheHelpAreOffered_data()
{
    QTest::addColumn<QString>("shell");
    QTest::addColumn<QString>("program");
    QTest::addColumn<QString>("begun");
    for (const QString &shell : list("bash zsh fish")) {
        QTest::addRow("jvx-loader in %s", qPrintable(shell)) << shell << loader << QStringLiteral("-");
        QTest::addRow("jvx-simulator in %s", qPrintable(shell))
            << shell << QStringLiteral("jvx-simulator") << QStringLiteral("--");
    }
}

void CompletionTest::theOptionsOfTheHelpAreOffered()
{
    QFETCH(QString, shell);
    QFETCH(QString, program);
    QFETCH(QString, begun);
    // "  -p, --port <name>  Serial port"
    QStringList expected = ofHelp(QStringLiteral("^  (-\\w)?(?:, )?(--[\\w-]+)"), program);
    expected.removeIf([&](const QString &option) { return !option.startsWith(begun); });
    QVERIFY(expected.size() > 10);
    QCOMPARE(offered(shell, QString(), begun, program), expected);
}

void CompletionTest::theKindsOfFileOfTheHelpAreOffered()
{
    QFETCH(QString, shell);
    // "   6 | fls-firmware    Firmware of fuel level sensor"
    const QStringList expected = ofHelp(QStringLiteral("^ +\\d+ \\| (\\S+)"));
    QCOMPARE(expected.size(), 12);
    QCOMPARE(offered(shell, QStringLiteral("-f"), QString()), expected);
    QCOMPARE(offered(shell, QStringLiteral("--file"), QString()), expected);
}

void CompletionTest::thePortsAreOffered()
{
    QFETCH(QString, shell);
    const QStringList expected = list("/dev/serial/by-id/usb-JVX_SN1-if00 ttyACM3 ttyUSB0");
    QCOMPARE(offered(shell, QStringLiteral("-p"), QString()), expected);
    QCOMPARE(offered(shell, QStringLiteral("--port"), QString()), expected);
}

void CompletionTest::whatIsOfferedGoesWithTheLine_data()
{
    QTest::addColumn<QString>("shell");
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("begun");
    QTest::addColumn<QStringList>("expected");
    const QStringList local{QStringLiteral("folder"), QStringLiteral("settings.bin"), QStringLiteral("two words")};
    for (const QString &shell : list("bash zsh fish")) {
        const auto row = [&](const char *words, const char *begun, const QStringList &expected) {
            QTest::addRow("%s: %s|%s", qPrintable(shell), words, begun)
                << shell << QString::fromLatin1(words) << QString::fromLatin1(begun) << expected;
        };
        row("-f", "fls", list("fls-archive fls-firmware"));
        row("", "--file=fls", list("fls-archive fls-firmware"));
        row("-p", "ttyU", list("ttyUSB0"));
        row("-p", "./set", list("./settings.bin"));
        row("-l", "", {});
        row("--log", "", {});
        row("-r -f keys", "", local);
        row("-a -m -p ttyACM3 --log=4000 -w", "set", list("settings.bin"));
        row("-w settings.bin", "two", {});
    }
}

void CompletionTest::whatIsOfferedGoesWithTheLine()
{
    QFETCH(QString, shell);
    QFETCH(QString, words);
    QFETCH(QString, begun);
    QFETCH(QStringList, expected);
    QCOMPARE(offered(shell, words, begun), expected);
}

QTEST_GUILESS_MAIN(CompletionTest)
#include "tst_completion.moc"
