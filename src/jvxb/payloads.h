#pragma once

#include "file.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QDateTime>
#include <QString>

#include <optional>

/// The payloads of requests, answers and messages: what follows the command key in a body. The identification requests
/// have none. docs/protocol.md has the layouts, with offsets and sizes; integers are little-endian.
namespace jvxb {

/// The most bytes of a file that one request asks for or brings; an answer with fewer brings the last of the file.
inline constexpr quint32 max_piece_size = 512;

/// Asks for the next piece of a file, of at most max_piece_size bytes.
/// \param file kind of the file
/// \param handle 0 in the first request, then that of the answer before
/// \param offset bytes received so far
QByteArray readFileRequest(File file, quint32 handle, quint32 offset);

/// Brings the piece at \a offset: as many bytes as are left, at most max_piece_size.
/// \param file kind of the file
/// \param handle 0 in the first request, then that of the answer before
/// \param offset 0 to the size of \a data
/// \param data the whole file, whose size is cut to 32 bits
QByteArray writeFileRequest(File file, quint32 handle, quint32 offset, QByteArrayView data);

/// Asks to take a written file into use.
/// \param file kind of the file
/// \param checksum CRC-32 (IEEE 802.3) of the file
QByteArray applyFileRequest(File file, quint32 checksum);

/// Asks for the log mask \a mask.
QByteArray logEnableRequest(quint32 mask);

// Each parse() below takes a payload apart; it returns nothing if the payload is too short or not understood. Bytes
// behind the last field are ignored.

/// The terminal's software; fields that the terminal left out are empty.
struct SoftVersionAnswer {
    QString name;
    QString version;
    QString date;
    QString language;

    static std::optional<SoftVersionAnswer> parse(QByteArrayView payload);
};

struct HardVersionAnswer {
    quint64 bhr = 0; ///< hardware version word; 0 if the answer bears another tag than "BHR" or too few bytes

    static std::optional<HardVersionAnswer> parse(QByteArrayView payload);
};

struct SerialNumberAnswer {
    QString sn; ///< the IMEI as the terminal wrote it

    static std::optional<SerialNumberAnswer> parse(QByteArrayView payload);
};

/// What the answers to all file requests begin with. One whose status is an error may have any length, and only the
/// status of it counts: the other fields have their initial values then.
struct FileAnswer {
    quint8 status = 0; ///< "1" for success, any other byte is the terminal's error code
    File file = File::Unknown;

    [[nodiscard]] bool isSuccess() const { return status == '1'; }
};

/// What the answers to requests for a piece have in common.
struct PieceAnswer : FileAnswer {
    quint32 handle = 0; ///< to be sent back with the next request
    quint32 offset = 0; ///< of the piece in the file
    quint16 length = 0; ///< of the piece in bytes
};

struct ReadFileAnswer : PieceAnswer {
    quint32 full_size = 0;           ///< of the file, as the terminal announces it
    std::optional<QByteArray> piece; ///< nothing if the payload ends before it does

    static std::optional<ReadFileAnswer> parse(QByteArrayView payload);
};

/// Its length is the number of bytes accepted, which may be less than were sent.
struct WriteFileAnswer : PieceAnswer {
    static std::optional<WriteFileAnswer> parse(QByteArrayView payload);
};

struct ApplyFileAnswer : FileAnswer {
    static std::optional<ApplyFileAnswer> parse(QByteArrayView payload);
};

struct LogEnableAnswer {
    quint32 mask = 0; ///< now in force

    static std::optional<LogEnableAnswer> parse(QByteArrayView payload);
};

/// Which of the terminal's logs a record belongs to; log 14 carries lines of text.
enum class Log : quint8 {};

/// A record of the log, which the terminal sends on its own.
struct LogRecord {
    Log log{};
    quint8 type = 0;    ///< record type within the log
    QDateTime datetime; ///< in the local time zone
    QByteArray data;    ///< in log 14 a text in UTF-8, with or without a line end

    static std::optional<LogRecord> parse(QByteArrayView payload);
};

} // namespace jvxb
