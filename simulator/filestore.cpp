#include "filestore.h"

#include <QDir>
#include <QFile>
#include <QSaveFile>

#include <array>

namespace {

constexpr quint8 settings_kind = 0;

struct Kind {
    const char *key;
    qsizetype built_in_size; ///< bytes; around, at and far from multiples of a piece's 512
};

constexpr std::array<Kind, FileStore::kind_count> kinds = {{
    {"settings", 1300},
    {"firmware", 20011},
    {"keys", 96},
    {"road-acc", 4096},
    {"can-decode", 777},
    {"tachograph-ddd", 12800},
    {"fls-firmware", 5003},
    {"complexevents", 512},
    {"fls-archive", 1024},
    {"can-scripts", 640},
    {"epo", 9001},
    {"user-firmware", 513},
}};

/// Lines like "parameter.007 = 259", cut at \a size bytes.
QByteArray builtInText(qsizetype size)
{
    QByteArray text("# Settings of the terminal\n");
    for (int number = 0; text.size() < size; ++number)
        text.append(
            QStringLiteral("parameter.%1 = %2\n").arg(number, 3, 10, QLatin1Char('0')).arg(number * 37).toUtf8());
    return text.first(size);
}

/// Every byte value, in an order that differs from kind to kind and from piece to piece.
QByteArray builtInBytes(quint8 kind, qsizetype size)
{
    QByteArray bytes(size, '\0');
    for (qsizetype i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 31 + i / 256 * 7 + qsizetype{kind} * 17) & 0xFF);
    return bytes;
}

QByteArray builtIn(quint8 kind)
{
    const qsizetype size = kinds.at(kind).built_in_size;
    return kind == settings_kind ? builtInText(size) : builtInBytes(kind, size);
}

QHash<quint8, QByteArray> allBuiltIn()
{
    QHash<quint8, QByteArray> files;
    for (quint8 kind = 0; kind < FileStore::kind_count; ++kind)
        files.insert(kind, builtIn(kind));
    return files;
}

} // namespace

FileStore::FileStore(QString directory)
    : _directory(std::move(directory))
{
    static const QHash<quint8, QByteArray> built_in = allBuiltIn();
    if (_directory.isEmpty())
        _memory = built_in;
}

QString FileStore::key(quint8 kind)
{
    return QString::fromLatin1(kinds.at(kind).key);
}

std::optional<QByteArray> FileStore::content(quint8 kind) const
{
    if (_directory.isEmpty())
        return _memory.value(kind);
    QFile file(path(kind));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return file.readAll();
}

bool FileStore::store(quint8 kind, const QByteArray &content)
{
    if (_directory.isEmpty()) {
        _memory.insert(kind, content);
        return true;
    }
    QSaveFile file(path(kind));
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && file.commit();
}

QString FileStore::path(quint8 kind) const
{
    return QDir(_directory).filePath(key(kind));
}
