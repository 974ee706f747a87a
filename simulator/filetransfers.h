#pragma once

#include "filestore.h"

#include <QByteArray>
#include <QHash>
#include <QString>

#include <optional>

/// What the terminal does about one request.
struct Reply {
    std::optional<QByteArray> payload; ///< of the answer; none: no answer
    QString complaint;                 ///< what is wrong with the request, empty: nothing
    bool restarts = false;             ///< whether the terminal restarts after the answer
};

struct TransferSettings {
    QString directory;                ///< where the files are; empty: built-in ones
    qsizetype accept = 512;           ///< bytes taken at most of each written piece
    qsizetype piece = 512;            ///< bytes served at most in each read piece
    std::optional<quint32> announced; ///< full size told in read answers in place of the true one
};

/// The terminal's side of reading, writing and applying files. A file travels in pieces under a handle that the
/// terminal gives out with the first one; one read and one write may be under way at a time.
///
/// Payloads, integers little-endian, sizes in brackets:
///
///     read    file (1), handle (4), offset (4), maximum length (2)
///     answer  status (1), file (1), handle (4), offset (4), length (2), full size (4), data (length)
///     write   file (1), handle (4), offset (4), length (2), total size (4), data (length)
///     answer  status (1), file (1), handle (4), offset (4), accepted length (2)
///     apply   file (1), handle (4), CRC-32 of the file (4)
///     answer  status (1), file (1), zero (4)
///
/// A refusal is answered with a status other than "1" and the file, 2 bytes in all.
class FileTransfers {
public:
    static constexpr qsizetype read_request_size = 1 + 4 + 4 + 2;
    static constexpr qsizetype write_request_size = 1 + 4 + 4 + 2 + 4; ///< without data
    static constexpr qsizetype apply_request_size = 1 + 4 + 4;
    static constexpr qsizetype piece_size = 512; ///< of a piece as the tool asks for it or sends it

    explicit FileTransfers(const TransferSettings &settings);

    /// \a payload of read_request_size bytes.
    Reply read(const QByteArray &payload);
    /// \a payload of write_request_size bytes or more.
    Reply write(const QByteArray &payload);
    /// \a payload of apply_request_size bytes.
    Reply apply(const QByteArray &payload);

    /// Forgets the transfers under way; a write that is cut off so leaves the old file in place.
    void forget();

    /// The refusal of a request for the file \a kind.
    static QByteArray refusal(quint8 status, quint8 kind);

private:
    struct Transfer {
        quint8 kind = 0;
        quint32 handle = 0;
        quint32 position = 0; ///< bytes served or accepted so far
        quint32 size = 0;     ///< bytes announced
        QByteArray content;   ///< read: the whole file; write: the bytes accepted so far
    };

    Reply openRead(quint8 kind, quint32 offset);
    Reply servePiece();
    Reply openWrite(quint8 kind, const QByteArray &payload);
    Reply acceptPiece(const QByteArray &payload);

    static QString faultOf(const std::optional<Transfer> &transfer, quint8 kind, quint32 handle, quint32 offset);

    const TransferSettings _settings;
    FileStore _store;
    quint32 _last_handle = 0xA1B2C300; ///< all four bytes differ, to show one that is lost or swapped
    std::optional<Transfer> _read;
    std::optional<Transfer> _write;
    QHash<quint8, quint32> _written_checksums; ///< CRC-32 of the files written completely and not applied yet
};
