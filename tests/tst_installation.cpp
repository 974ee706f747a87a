#include "installation.h"
#include "localfiles.h"

/// What `cmake --install` installs.
class InstallationTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyFileHasItsPlace_data();
    void everyFileHasItsPlace();
    void whatADocumentLinksToIsInstalledWithIt_data();
    void whatADocumentLinksToIsInstalledWithIt();
    void noFileKnowsTheBuildTree();
    void theExecutablesRun_data();
    void theExecutablesRun();
    void softwareCentresAcceptTheDescription();
    void theDescriptionIsOfThisVersion();
};

static const QString metainfo = QStringLiteral("share/metainfo/invalid.jvx.jvx_loader.metainfo.xml");

void InstallationTest::everyFileHasItsPlace_data()
{
    QTest::addColumn<QString>("prefix");
    QTest::newRow("/usr") << QStringLiteral("/usr");
    QTest::newRow("/opt/jvx") << QStringLiteral("/opt/jvx");
}

void InstallationTest::everyFileHasItsPlace()
{
    QFETCH(QString, prefix);
    const QString doc = prefix + QStringLiteral("/share/doc/jvx-loader/");
    const QStringList expected{
        prefix + QStringLiteral("/bin/jvx-loader"),
        prefix + QStringLiteral("/bin/jvx-simulator"),
        prefix + QStringLiteral("/lib/udev/rules.d/70-jvx-loader.rules"),
        prefix + QStringLiteral("/share/bash-completion/completions/jvx-loader"),
        prefix + QStringLiteral("/share/bash-completion/completions/jvx-simulator"),
        doc + QStringLiteral("CHANGELOG.md"),
        doc + QStringLiteral("LICENSE"),
        doc + QStringLiteral("README.md"),
        doc + QStringLiteral("examples/flash-all"),
        doc + QStringLiteral("examples/flash-safely"),
        doc + QStringLiteral("examples/list-terminals"),
        doc + QStringLiteral("examples/watch-log"),
        prefix + QStringLiteral("/share/fish/vendor_completions.d/jvx-loader.fish"),
        prefix + QStringLiteral("/share/fish/vendor_completions.d/jvx-simulator.fish"),
        prefix + QStringLiteral("/share/man/man1/jvx-loader.1"),
        prefix + QStringLiteral("/share/man/man1/jvx-simulator.1"),
        prefix + QStringLiteral("/share/metainfo/invalid.jvx.jvx_loader.metainfo.xml"),
        prefix + QStringLiteral("/share/zsh/site-functions/_jvx-loader"),
        prefix + QStringLiteral("/share/zsh/site-functions/_jvx-simulator"),
    };
    QStringList files = Installation(prefix).files();
    files.removeIf([&](const QString &file) { return file.startsWith(doc + QStringLiteral("docs/")); });
    QCOMPARE(files, expected);
}

void InstallationTest::whatADocumentLinksToIsInstalledWithIt_data()
{
    QTest::addColumn<QString>("document");
    for (const char *name : {"README.md", "docs/architecture.md", "docs/flash-safely.md", "docs/performance.md",
             "docs/protocol.md", "docs/windows.md"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

void InstallationTest::whatADocumentLinksToIsInstalledWithIt()
{
    QFETCH(QString, document);
    const Installation installation(QStringLiteral("/usr"));
    const QString path = installation.path(QStringLiteral("share/doc/jvx-loader/") + document);
    const QString text = QString::fromUtf8(files::content(path));
    QVERIFY(text.startsWith(QLatin1Char('#')));
    static const QRegularExpression link(QStringLiteral("\\]\\(([^)#:]+)"));
    QRegularExpressionMatchIterator links = link.globalMatch(text);
    QVERIFY(links.hasNext() || document != QStringLiteral("README.md"));
    while (links.hasNext()) {
        const QString target = QFileInfo(path).path() + QLatin1Char('/') + links.next().captured(1);
        QVERIFY2(QFileInfo::exists(target), qPrintable(target));
    }
}

void InstallationTest::noFileKnowsTheBuildTree()
{
    const Installation installation(QStringLiteral("/usr"));
    const QStringList files = installation.files();
    QVERIFY(!files.isEmpty());
    for (const QString &file : files) {
        const QByteArray content = files::content(installation.path(file.sliced(sizeof "/usr")));
        QVERIFY2(content != "(no file)", qPrintable(file));
        QVERIFY2(!content.contains(JVX_SOURCE_DIRECTORY), qPrintable(file));
    }
}

void InstallationTest::theExecutablesRun_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("version");
    QTest::newRow("the tool") << QStringLiteral("jvx-loader") << QStringLiteral("JVX file loader " JVX_VERSION "\n");
    QTest::newRow("the simulated terminal")
        << QStringLiteral("jvx-simulator") << QStringLiteral("jvx-simulator " JVX_VERSION "\n");
}

void InstallationTest::theExecutablesRun()
{
    QFETCH(QString, name);
    QFETCH(QString, version);
    const Installation installation(QStringLiteral("/usr"));
    const Ended ended = run({installation.path(QStringLiteral("bin/") + name), QStringLiteral("--version")},
        {QStringLiteral("QT_QPA_PLATFORM=minimal")});
    QCOMPARE(ended.code, 0);
    QCOMPARE(ended.output, version);
}

void InstallationTest::softwareCentresAcceptTheDescription()
{
    const Installation installation(QStringLiteral("/usr"));
    const Ended validation = run({QStringLiteral("appstreamcli"), QStringLiteral("validate"),
        QStringLiteral("--no-net"), QStringLiteral("--no-color"), installation.path(metainfo)});
    QVERIFY2(validation.code == 0, qPrintable(validation.output));
    QVERIFY2(!validation.output.contains(QStringLiteral("\nW:")), qPrintable(validation.output));
}

void InstallationTest::theDescriptionIsOfThisVersion()
{
    const Installation installation(QStringLiteral("/usr"));
    const QString text = QString::fromUtf8(files::content(installation.path(metainfo)));
    QCOMPARE(text.section(QStringLiteral("<release version=\""), 1, 1).section(QLatin1Char('"'), 0, 0),
        QStringLiteral(JVX_VERSION));
    for (const QString &file : installation.files().filter(QStringLiteral("/bin/")))
        QVERIFY2(
            text.contains(QStringLiteral("<binary>%1</binary>").arg(QFileInfo(file).fileName())), qPrintable(file));
    QVERIFY(text.contains(QStringLiteral("<modalias>usb:v03EBp6124d*</modalias>")));
}

QTEST_GUILESS_MAIN(InstallationTest)
#include "tst_installation.moc"
