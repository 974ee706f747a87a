#include "jvxb/payloads.h"

#include "jvxb/field.h"

#include <QStringList>

#include <algorithm>

namespace jvxb {

// ---- layouts ------------------------------------------------------------------------------------------------------

namespace {

// Identification answers are texts in the local 8-bit encoding, but for the word; each begins with the separator.
constexpr char separator = ':';

namespace hard_version {
constexpr QByteArrayView tag = ":BHR:"; // at offset 0
constexpr Field<quint64> bhr{5};
} // namespace hard_version

namespace read_request {
constexpr Field<quint8> file{0};
constexpr Field<quint32> handle{1};
constexpr Field<quint32> offset{5};
constexpr Field<quint16> max_length{9};
constexpr qsizetype size = max_length.end();
} // namespace read_request

namespace write_request {
constexpr Field<quint8> file{0};
constexpr Field<quint32> handle{1};
constexpr Field<quint32> offset{5};
constexpr Field<quint16> length{9};
constexpr Field<quint32> full_size{11};
constexpr qsizetype size = full_size.end(); // the piece follows
} // namespace write_request

namespace apply_request {
constexpr Field<quint8> file{0};
constexpr Field<quint32> handle{1}; // always 0
constexpr Field<quint32> checksum{5};
constexpr qsizetype size = checksum.end();
} // namespace apply_request

namespace file_answer {
constexpr Field<quint8> status{0};
constexpr Field<quint8> file{1};
} // namespace file_answer

namespace piece_answer {
constexpr Field<quint32> handle{2};
constexpr Field<quint32> offset{6};
constexpr Field<quint16> length{10};
constexpr qsizetype min_size = length.end();
} // namespace piece_answer

namespace read_answer {
constexpr Field<quint32> full_size{12};
constexpr qsizetype piece_offset = full_size.end();
} // namespace read_answer

namespace apply_answer {
constexpr qsizetype min_size = 6; // 4 bytes of no meaning behind status and file
} // namespace apply_answer

namespace log_mask { // request and answer
constexpr Field<quint32> mask{0};
constexpr qsizetype size = mask.end();
} // namespace log_mask

namespace log_record {
constexpr Field<quint8> log{0};
constexpr Field<quint32> seconds{1};      // since 1970-01-01 00:00:00 UTC
constexpr Field<quint16> milliseconds{5}; // to add, 1000 and more included
constexpr Field<quint8> type{7};
constexpr qsizetype data_offset = type.end();
} // namespace log_record

/// The text of an identification answer.
std::optional<QString> textOf(QByteArrayView payload)
{
    if (!payload.startsWith(separator))
        return {};
    return QString::fromLocal8Bit(payload.sliced(1));
}

/// An \a Answer with the fields of a FileAnswer; nothing for a success of less than \a min_size bytes, at least 2.
template <typename Answer>
std::optional<Answer> fileAnswer(QByteArrayView payload, qsizetype min_size)
{
    Answer answer;
    if (payload.isEmpty())
        return {};
    answer.status = file_answer::status.of(payload);
    if (!answer.isSuccess())
        return answer;
    if (payload.size() < min_size)
        return {};
    answer.file = static_cast<File>(file_answer::file.of(payload));
    return answer;
}

/// An \a Answer with the fields of a PieceAnswer.
template <typename Answer>
std::optional<Answer> pieceAnswer(QByteArrayView payload)
{
    std::optional<Answer> answer = fileAnswer<Answer>(payload, piece_answer::min_size);
    if (answer && answer->isSuccess()) {
        answer->handle = piece_answer::handle.of(payload);
        answer->offset = piece_answer::offset.of(payload);
        answer->length = piece_answer::length.of(payload);
    }
    return answer;
}

} // namespace

// ---- requests -----------------------------------------------------------------------------------------------------

QByteArray readFileRequest(File file, quint32 handle, quint32 offset)
{
    QByteArray payload(read_request::size, '\0');
    read_request::file.put(payload, static_cast<quint8>(file));
    read_request::handle.put(payload, handle);
    read_request::offset.put(payload, offset);
    read_request::max_length.put(payload, quint16{max_piece_size});
    return payload;
}

QByteArray writeFileRequest(File file, quint32 handle, quint32 offset, QByteArrayView data)
{
    const auto full_size = static_cast<quint32>(data.size());
    const quint32 length = std::min(full_size - offset, max_piece_size);
    QByteArray payload(write_request::size, '\0');
    write_request::file.put(payload, static_cast<quint8>(file));
    write_request::handle.put(payload, handle);
    write_request::offset.put(payload, offset);
    write_request::length.put(payload, static_cast<quint16>(length));
    write_request::full_size.put(payload, full_size);
    return payload.append(data.sliced(offset, length));
}

QByteArray applyFileRequest(File file, quint32 checksum)
{
    QByteArray payload(apply_request::size, '\0');
    apply_request::file.put(payload, static_cast<quint8>(file));
    apply_request::handle.put(payload, 0);
    apply_request::checksum.put(payload, checksum);
    return payload;
}

QByteArray logEnableRequest(quint32 mask)
{
    QByteArray payload(log_mask::size, '\0');
    log_mask::mask.put(payload, mask);
    return payload;
}

// ---- identification answers ---------------------------------------------------------------------------------------

std::optional<SoftVersionAnswer> SoftVersionAnswer::parse(QByteArrayView payload)
{
    const std::optional<QString> text = textOf(payload);
    if (!text)
        return {};
    const QStringList fields = text->split(QLatin1Char(separator));
    return SoftVersionAnswer{fields.value(0), fields.value(1), fields.value(2), fields.value(3)};
}

std::optional<HardVersionAnswer> HardVersionAnswer::parse(QByteArrayView payload)
{
    if (!payload.startsWith(separator))
        return {};
    const bool has_word = payload.startsWith(hard_version::tag) && payload.size() >= hard_version::bhr.end();
    return HardVersionAnswer{has_word ? hard_version::bhr.of(payload) : 0};
}

std::optional<SerialNumberAnswer> SerialNumberAnswer::parse(QByteArrayView payload)
{
    const std::optional<QString> text = textOf(payload);
    if (!text)
        return {};
    return SerialNumberAnswer{*text};
}

// ---- file answers -------------------------------------------------------------------------------------------------

std::optional<ReadFileAnswer> ReadFileAnswer::parse(QByteArrayView payload)
{
    std::optional<ReadFileAnswer> answer = pieceAnswer<ReadFileAnswer>(payload);
    // These two may be missing; the caller reports it only if the kind of file matches.
    if (answer && answer->isSuccess() && payload.size() >= read_answer::piece_offset + answer->length) {
        answer->full_size = read_answer::full_size.of(payload);
        answer->piece = payload.sliced(read_answer::piece_offset, answer->length).toByteArray();
    }
    return answer;
}

std::optional<WriteFileAnswer> WriteFileAnswer::parse(QByteArrayView payload)
{
    return pieceAnswer<WriteFileAnswer>(payload);
}

std::optional<ApplyFileAnswer> ApplyFileAnswer::parse(QByteArrayView payload)
{
    return fileAnswer<ApplyFileAnswer>(payload, apply_answer::min_size);
}

// ---- log ----------------------------------------------------------------------------------------------------------

std::optional<LogEnableAnswer> LogEnableAnswer::parse(QByteArrayView payload)
{
    if (payload.size() < log_mask::size)
        return {};
    return LogEnableAnswer{log_mask::mask.of(payload)};
}

std::optional<LogRecord> LogRecord::parse(QByteArrayView payload)
{
    if (payload.size() < log_record::data_offset)
        return {};
    const qint64 seconds = log_record::seconds.of(payload);
    const qint64 milliseconds = log_record::milliseconds.of(payload);
    return LogRecord{static_cast<Log>(log_record::log.of(payload)), log_record::type.of(payload),
        QDateTime::fromMSecsSinceEpoch(seconds * 1000 + milliseconds),
        payload.sliced(log_record::data_offset).toByteArray()};
}

} // namespace jvxb
