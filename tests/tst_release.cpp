#include "installation.h"
#include "localfiles.h"

/// What packaging/releasable lets through: a clean, tagged tree that agrees on its version.
class ReleaseTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void whatIsWrongIsSaid_data();
    void whatIsWrongIsSaid();
};

// Copies the sources, writes a new CHANGELOG.md, lets the row change and commit all that, and judges the result.
static const QString making = QStringLiteral(R"(set -e
    cd "$1"
    cp --parents -r CMakeLists.txt packaging/debian/changelog packaging/releasable packaging/man \
        packaging/invalid.jvx.jvx_loader.metainfo.xml "$2"
    cd "$2"
    version=$(sed -n 's/^project(jvx-loader VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
    printf '# Changes\n\n## Unreleased\n\n## %s - 2026-01-02\n\n- It is new.\n' "$version" >CHANGELOG.md
    commit() {
        git init --quiet .
        git add .
        git -c user.name=n -c user.email=e -c commit.gpgsign=false commit --quiet --message=release
        git tag "${1-v$version}"
    }
    eval "$3"
    packaging/releasable
)");

void ReleaseTest::whatIsWrongIsSaid_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("said");
    const auto row = [](const char *change, const char *said) {
        QTest::newRow(change) << QString::fromLatin1(change) << QString::fromLatin1(said);
    };
    row("commit", "");
    row("commit; echo >new", "There are changes that are not committed.\n");
    row("commit; echo >>CHANGELOG.md", "There are changes that are not committed.\n");
    row("commit v0", "The commit has no tag v" JVX_VERSION ".\n");
    row("sed -i '/^## Un/a - More.' CHANGELOG.md; commit", "CHANGELOG.md has changes that are unreleased.\n");
    row("sed -i 's/ - 2026.*//' CHANGELOG.md; commit",
        "CHANGELOG.md has no dated section of version " JVX_VERSION ".\n"
        "CHANGELOG.md says nothing of version " JVX_VERSION ".\n");
    row("sed -i '/^- /d' CHANGELOG.md; commit", "CHANGELOG.md says nothing of version " JVX_VERSION ".\n");
    row("sed -i '1s/(.*)/(9.9-1)/' packaging/debian/changelog; commit",
        "packaging/debian/changelog is of version 9.9, CMakeLists.txt of " JVX_VERSION ".\n");
    row("sed -i 's/<release version=\"[^\"]*/<release version=\"9.9/' packaging/*.xml; commit",
        "packaging/invalid.jvx.jvx_loader.metainfo.xml is of version 9.9, CMakeLists.txt of " JVX_VERSION ".\n");
    row("sed -i 's/^\\.Os.*/.Os/' packaging/man/jvx-simulator.1; commit",
        "packaging/man/jvx-simulator.1 is of version unknown, CMakeLists.txt of " JVX_VERSION ".\n");
}

void ReleaseTest::whatIsWrongIsSaid()
{
    QFETCH(QString, change);
    QFETCH(QString, said);
    const QTemporaryDir directory;
    const Ended ended = run({QStringLiteral("sh"), QStringLiteral("-c"), making, QStringLiteral("sh"),
        QStringLiteral(JVX_SOURCE_DIRECTORY), directory.path(), change});
    QCOMPARE(ended.output, said);
    QCOMPARE(ended.code, said.isEmpty() ? 0 : 1);
}

QTEST_GUILESS_MAIN(ReleaseTest)
#include "tst_release.moc"
