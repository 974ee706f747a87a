#pragma once

#include <QByteArray>
#include <QString>

/// Files of a test, on either side of the line.
namespace files {

/// Bytes that a mix-up of any two pieces would change; the same for the same \a seed and \a size.
QByteArray sample(qsizetype size, quint32 seed = 1);

/// All bytes of the file at \a path; "(no file)" if there is none.
QByteArray content(const QString &path);

/// Makes the file at \a path hold \a bytes and nothing else.
void store(const QString &path, const QByteArray &bytes);

} // namespace files
