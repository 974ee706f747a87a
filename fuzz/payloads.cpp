// Any bytes as payloads of answers and messages, compared with a reading field by field; and the payloads of requests.

#include "jvxb/payloads.h"
#include "model.h"
#include "target.h"

namespace {

/// The input itself and no copy of it, so that the sanitizer sees a look behind its end.
using View = QByteArrayView;

quint64 numberAt(View bytes, qsizetype offset, int size)
{
    return packets::numberAt(bytes.toByteArray(), offset, size);
}

void checkIdentity(View payload)
{
    const bool is_understood = !payload.isEmpty() && payload[0] == ':';
    const QByteArray content = is_understood ? payload.sliced(1).toByteArray() : QByteArray();
    const QString text = QString::fromLocal8Bit(content);
    const QStringList fields = text.split(QLatin1Char(':')) + QStringList{{}, {}, {}};

    const auto software = jvxb::SoftVersionAnswer::parse(payload);
    require(software.has_value() == is_understood, "a software version begins with a colon");
    require(!software
            || (software->name == fields[0] && software->version == fields[1] && software->date == fields[2]
                && software->language == fields[3]),
        "a software version has four fields");

    const auto hardware = jvxb::HardVersionAnswer::parse(payload);
    const bool has_word = content.startsWith("BHR:") && content.size() >= 12;
    require(hardware.has_value() == is_understood, "a hardware version begins with a colon");
    require(!hardware || hardware->bhr == (has_word ? numberAt(content, 4, 8) : 0), "a hardware version is a word");

    const auto serial = jvxb::SerialNumberAnswer::parse(payload);
    require(serial.has_value() == is_understood, "a serial number begins with a colon");
    require(!serial || serial->sn == text, "a serial number is taken whole");
}

/// Requires that \a answer is there if \a payload is an error or long enough, and has the right status and file.
template <typename Answer>
void checkStatus(const std::optional<Answer> &answer, View payload, qsizetype min_size)
{
    const bool is_error = !payload.isEmpty() && payload[0] != '1';
    require(answer.has_value() == (is_error || payload.size() >= min_size), "a file answer is an error or complete");
    if (!answer)
        return;
    require(answer->status == static_cast<quint8>(payload[0]), "the status is the first byte");
    require(answer->isSuccess() != is_error, "the status 1 is a success");
    if (!is_error)
        require(static_cast<quint8>(answer->file) == static_cast<quint8>(payload[1]), "the file is the second byte");
}

template <typename Answer>
void checkPiece(const Answer &answer, View payload)
{
    require(answer.handle == numberAt(payload, 2, 4), "the handle is at 2");
    require(answer.offset == numberAt(payload, 6, 4), "the offset is at 6");
    require(answer.length == numberAt(payload, 10, 2), "the length is at 10");
}

void checkFileAnswers(View payload)
{
    const auto read = jvxb::ReadFileAnswer::parse(payload);
    checkStatus(read, payload, 12);
    if (read && read->isSuccess()) {
        checkPiece(*read, payload);
        const bool is_complete = payload.size() >= 16 + read->length;
        require(read->piece.has_value() == is_complete, "a piece is there if all of it is");
        require(!is_complete || read->full_size == numberAt(payload, 12, 4), "the size of the file is at 12");
        require(!is_complete || *read->piece == payload.sliced(16, read->length), "the piece is at 16");
    }
    const auto write = jvxb::WriteFileAnswer::parse(payload);
    checkStatus(write, payload, 12);
    if (write && write->isSuccess())
        checkPiece(*write, payload);
    checkStatus(jvxb::ApplyFileAnswer::parse(payload), payload, 6);
}

void checkLog(View payload)
{
    const auto mask = jvxb::LogEnableAnswer::parse(payload);
    require(mask.has_value() == (payload.size() >= 4), "a mask has 4 bytes");
    require(!mask || mask->mask == numberAt(payload, 0, 4), "a mask is a number");

    const auto record = jvxb::LogRecord::parse(payload);
    require(record.has_value() == (payload.size() >= 8), "a record has 8 bytes at least");
    if (!record)
        return;
    const quint64 time = numberAt(payload, 1, 4) * 1000 + numberAt(payload, 5, 2);
    require(static_cast<quint8>(record->log) == static_cast<quint8>(payload[0]), "the log is the first byte");
    require(static_cast<quint64>(record->datetime.toMSecsSinceEpoch()) == time, "the time is at 1 and 5");
    require(record->type == static_cast<quint8>(payload[7]), "the type is at 7");
    require(record->data == payload.sliced(8), "the data is at 8");
}

void checkRequests(Input input)
{
    const quint8 kind = input.byte();
    const auto file = static_cast<File>(kind);
    const quint32 handle = input.number(4);
    const quint32 number = input.number(4);
    const QByteArray begin = packets::number(kind, 1) + packets::number(handle, 4) + packets::number(number, 4);
    require(jvxb::readFileRequest(file, handle, number) == begin + packets::number(512, 2), "a request to read");
    require(jvxb::logEnableRequest(number) == packets::number(number, 4), "a request for a mask");
    require(jvxb::applyFileRequest(file, number)
            == packets::number(kind, 1) + packets::number(0, 4) + packets::number(number, 4),
        "a request to apply");

    const QByteArray data = input.rest().repeated(3);
    const quint32 offset = number % static_cast<quint32>(data.size() + 1);
    const QByteArray piece = data.mid(offset, 512);
    require(jvxb::writeFileRequest(file, handle, offset, data)
            == packets::number(kind, 1) + packets::number(handle, 4) + packets::number(offset, 4)
                + packets::number(static_cast<quint64>(piece.size()), 2)
                + packets::number(static_cast<quint64>(data.size()), 4) + piece,
        "a request to write");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const View payload(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    checkIdentity(payload);
    checkFileAnswers(payload);
    checkLog(payload);
    checkRequests(Input(data, size));
    return 0;
}
