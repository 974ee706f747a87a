#include "filetransfers.h"

#include "wire.h"

#include <zlib.h>

#include <algorithm>

namespace {

enum Status : quint8 {
    success = '1',
    unknown_kind = 0x01,
    no_content = 0x02,
    out_of_order = 0x03,
    not_stored = 0x04,
    wrong_checksum = 0x05,
};

// Offsets of the fields in the payloads of requests; not every request has all of them.
constexpr qsizetype handle_offset = 1;
constexpr qsizetype checksum_offset = 5;
constexpr qsizetype position_offset = 5;
constexpr qsizetype length_offset = 9;
constexpr qsizetype total_offset = 11;

quint8 kindOf(const QByteArray &payload)
{
    return static_cast<quint8>(payload.front());
}

Reply refused(Status status, quint8 kind, const QString &complaint = {})
{
    return {FileTransfers::refusal(status, kind), complaint};
}

Reply unknownKind(quint8 kind)
{
    return refused(unknown_kind, kind, QStringLiteral("unknown file kind"));
}

quint32 checksum(const QByteArray &content)
{
    const auto *bytes = reinterpret_cast<const Bytef *>(content.constData());
    return static_cast<quint32>(::crc32_z(0, bytes, static_cast<z_size_t>(content.size())));
}

/// The fields with which every successful answer to a read or a write begins.
QByteArray pieceAnswer(quint8 kind, quint32 handle, quint32 offset, qsizetype length)
{
    QByteArray answer;
    wire::append(answer, quint8{success});
    wire::append(answer, kind);
    wire::append(answer, handle);
    wire::append(answer, offset);
    wire::append(answer, static_cast<quint16>(length));
    return answer;
}

} // namespace

FileTransfers::FileTransfers(const TransferSettings &settings)
    : _settings(settings)
    , _store(settings.directory)
{
}

Reply FileTransfers::read(const QByteArray &payload)
{
    const quint8 kind = kindOf(payload);
    const auto handle = wire::read<quint32>(payload, handle_offset);
    const auto offset = wire::read<quint32>(payload, position_offset);
    if (kind >= FileStore::kind_count)
        return unknownKind(kind);
    if (wire::read<quint16>(payload, length_offset) != piece_size)
        return refused(out_of_order, kind, QStringLiteral("wrong maximum length"));
    if (handle == 0)
        return openRead(kind, offset);
    if (const QString fault = faultOf(_read, kind, handle, offset); !fault.isEmpty())
        return refused(out_of_order, kind, fault);
    return servePiece();
}

Reply FileTransfers::write(const QByteArray &payload)
{
    const quint8 kind = kindOf(payload);
    const auto handle = wire::read<quint32>(payload, handle_offset);
    const auto offset = wire::read<quint32>(payload, position_offset);
    if (kind >= FileStore::kind_count)
        return unknownKind(kind);
    if (handle == 0)
        return openWrite(kind, payload);
    if (const QString fault = faultOf(_write, kind, handle, offset); !fault.isEmpty())
        return refused(out_of_order, kind, fault);
    return acceptPiece(payload);
}

Reply FileTransfers::apply(const QByteArray &payload)
{
    const quint8 kind = kindOf(payload);
    if (kind >= FileStore::kind_count)
        return unknownKind(kind);
    if (wire::read<quint32>(payload, handle_offset) != 0)
        return refused(out_of_order, kind, QStringLiteral("wrong handle"));
    if (!_written_checksums.contains(kind))
        return refused(wrong_checksum, kind, QStringLiteral("nothing written to apply"));
    if (wire::read<quint32>(payload, checksum_offset) != _written_checksums.value(kind))
        return refused(wrong_checksum, kind, QStringLiteral("wrong checksum"));

    _written_checksums.remove(kind);
    QByteArray answer;
    wire::append(answer, quint8{success});
    wire::append(answer, kind);
    wire::append(answer, quint32{0});
    return {answer, {}, true};
}

void FileTransfers::forget()
{
    _read.reset();
    _write.reset();
}

QByteArray FileTransfers::refusal(quint8 status, quint8 kind)
{
    QByteArray answer;
    wire::append(answer, status);
    wire::append(answer, kind);
    return answer;
}

Reply FileTransfers::openRead(quint8 kind, quint32 offset)
{
    if (offset != 0)
        return refused(out_of_order, kind, QStringLiteral("first piece not at offset 0"));
    const std::optional<QByteArray> content = _store.content(kind);
    if (!content)
        return refused(no_content, kind);
    const quint32 size = _settings.announced.value_or(static_cast<quint32>(content->size()));
    _read = Transfer{kind, ++_last_handle, 0, size, *content};
    return servePiece();
}

Reply FileTransfers::servePiece()
{
    const QByteArray data = _read->content.mid(_read->position, _settings.piece);
    QByteArray answer = pieceAnswer(_read->kind, _read->handle, _read->position, data.size());
    wire::append(answer, _read->size);
    answer.append(data);

    _read->position += static_cast<quint32>(data.size());
    // No further request is due after a short piece, whatever size was announced.
    if (data.size() < piece_size || _read->position >= _read->size)
        _read.reset();
    return {answer, {}};
}

Reply FileTransfers::openWrite(quint8 kind, const QByteArray &payload)
{
    if (wire::read<quint32>(payload, position_offset) != 0)
        return refused(out_of_order, kind, QStringLiteral("first piece not at offset 0"));
    _write = Transfer{kind, ++_last_handle, 0, wire::read<quint32>(payload, total_offset), {}};
    return acceptPiece(payload);
}

Reply FileTransfers::acceptPiece(const QByteArray &payload)
{
    const quint8 kind = _write->kind;
    const qsizetype length = wire::read<quint16>(payload, length_offset);
    const QByteArray data = payload.sliced(write_request_size);
    if (wire::read<quint32>(payload, total_offset) != _write->size)
        return refused(out_of_order, kind, QStringLiteral("total size changed"));
    if (length != std::min<qsizetype>(_write->size - _write->position, piece_size))
        return refused(out_of_order, kind, QStringLiteral("wrong piece length"));
    if (data.size() != length)
        return refused(out_of_order, kind, QStringLiteral("length differs from the data's"));

    const qsizetype accepted = std::min(length, _settings.accept);
    const QByteArray answer = pieceAnswer(kind, _write->handle, _write->position, accepted);
    _write->content.append(data.first(accepted));
    _write->position += static_cast<quint32>(accepted);
    if (_write->position < _write->size)
        return {answer, {}};

    const QByteArray content = _write->content;
    _write.reset();
    if (!_store.store(kind, content))
        return refused(not_stored, kind);
    _written_checksums.insert(kind, checksum(content));
    return {answer, {}};
}

QString FileTransfers::faultOf(const std::optional<Transfer> &transfer, quint8 kind, quint32 handle, quint32 offset)
{
    if (!transfer)
        return QStringLiteral("handle of no transfer under way");
    if (transfer->kind != kind)
        return QStringLiteral("other file kind than before");
    if (transfer->handle != handle)
        return QStringLiteral("wrong handle");
    if (transfer->position != offset)
        return QStringLiteral("wrong offset");
    return {};
}
