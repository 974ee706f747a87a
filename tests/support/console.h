#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QString>

/// What the tool prints, piece by piece, written down by hand.
namespace console {

/// Up to the first answer of the terminal on \a port.
QByteArray checking(const QString &port);

/// Up to and with the identification of the simulated terminal on \a port, as it is by default.
QByteArray identification(const QString &port);

/// The same in parts: what is printed before the first answer, then what is printed for each answer.
QByteArrayList identificationParts(const QString &port);

/// identificationParts() for a PlainTerminal.
QByteArrayList plainIdentificationParts(const QString &port);

/// When a file of this \a kind, a key, is about to be read.
QByteArray reading(const QByteArray &kind);

/// When the local file at \a path is about to be written as \a kind.
QByteArray writing(const QString &path, const QByteArray &kind);

/// When \a moved bytes of \a size are transferred.
QByteArray progressAt(qint64 moved, qint64 size);

/// For a whole file of \a size bytes that moves in pieces of \a piece bytes.
QByteArray progress(qint64 size, qint64 piece = 512);

/// At the end of a read into the local file at \a path, behind the progress.
QByteArray saved(const QString &path);

/// At the end of a write, behind the progress.
QByteArray written();

/// When the file that was written as \a kind is about to be applied.
QByteArray applying(const QByteArray &kind);

/// When the apply is acknowledged.
QByteArray completed();

/// When the tool closes \a port and begins to wait for the terminal that restarts, with completed() before it or not.
QByteArray waiting(const QString &port);

/// When \a port opens, at first or again.
QByteArray opened(const QString &port);

} // namespace console
