#pragma once

#include <QDirIterator>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The installed files, checked with the programs that use them on a user's system.

/// What became of a program that was run to its end.
struct Ended {
    int code; ///< exit code, -1 if it could not be run or crashed
    QString output;
    QString errors;
};

/// Runs \a command, a program and its arguments, with \a variables ("NAME=value") in addition to the environment.
inline Ended run(QStringList command, const QStringList &variables = {}, const QByteArray &input = {})
{
    QProcess process;
    QStringList environment = QProcess::systemEnvironment();
    environment += variables; // the last value of a variable counts
    process.setEnvironment(environment);
    const QString program = command.takeFirst();
    process.start(program, command);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
    }
    return {process.exitStatus() == QProcess::NormalExit && process.error() == QProcess::UnknownError
            ? process.exitCode()
            : -1,
        QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
}

/// The build under test, installed below a folder that is removed with the object.
class Installation {
public:
    /// \param prefix absolute folder of the system that is installed for
    explicit Installation(const QString &prefix)
        : _prefix(prefix)
    {
        const Ended install = run({QStringLiteral("cmake"), QStringLiteral("--install"),
                                      QStringLiteral(JVX_BINARY_DIRECTORY), QStringLiteral("--prefix"), prefix},
            {QStringLiteral("DESTDIR=") + _root.path()});
        if (install.code != 0)
            qFatal("cannot install: %s", qUtf8Printable(install.errors));
    }

    /// The path of what is installed as \a name, relative to the prefix.
    QString path(const QString &name) const { return _root.path() + _prefix + QLatin1Char('/') + name; }

    /// All installed files, as absolute paths of the system that is installed for, sorted.
    QStringList files() const
    {
        QStringList files;
        QDirIterator iterator(_root.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (iterator.hasNext())
            files += iterator.next().sliced(_root.path().size());
        files.sort();
        return files;
    }

private:
    QTemporaryDir _root;
    QString _prefix;
};
