#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>

#include <optional>

/// The files of the terminal, one per kind: in a directory, each named by its kind's key, or built in and in memory.
class FileStore {
public:
    static constexpr quint8 kind_count = 12;

    /// \a directory holds the files; an empty name stands for the built-in ones.
    explicit FileStore(QString directory);

    /// The name of \a kind, 0 to 11, for example "settings".
    static QString key(quint8 kind);

    /// The file of \a kind, 0 to 11; nothing when the terminal has none.
    [[nodiscard]] std::optional<QByteArray> content(quint8 kind) const;

    /// Replaces the file of \a kind, 0 to 11, as a whole. Returns false when it cannot be stored; the old one stands.
    [[nodiscard]] bool store(quint8 kind, const QByteArray &content);

private:
    [[nodiscard]] QString path(quint8 kind) const;

    QString _directory;
    QHash<quint8, QByteArray> _memory;
};
