#include "filetransfers.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr quint8 settings_kind = 0;
constexpr quint8 keys_kind = 2;
constexpr quint8 success = '1';

/// The bytes of \a fields one after the other, little-endian.
template <typename... Fields>
QByteArray packed(Fields... fields)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    (stream << ... << fields);
    return bytes;
}

QByteArray readRequest(quint8 kind, quint32 handle, quint32 offset, quint16 maximum = 512)
{
    return packed(kind, handle, offset, maximum);
}

QByteArray writeRequest(quint8 kind, quint32 handle, quint32 offset, quint32 total, const QByteArray &data)
{
    return packed(kind, handle, offset, static_cast<quint16>(data.size()), total) + data;
}

QByteArray applyRequest(quint8 kind, quint32 handle, quint32 checksum)
{
    return packed(kind, handle, checksum);
}

/// The fields of an answer to a read or a write.
struct Answer {
    explicit Answer(const Reply &reply)
        : bytes(reply.payload.value_or(QByteArray()))
    {
        QDataStream stream(bytes);
        stream.setByteOrder(QDataStream::LittleEndian);
        stream >> status >> kind >> handle >> offset >> length >> full_size;
        data = bytes.mid(16);
    }

    QByteArray bytes;
    quint8 status = 0;
    quint8 kind = 0;
    quint32 handle = 0;
    quint32 offset = 0;
    quint16 length = 0;
    quint32 full_size = 0;
    QByteArray data;
};

/// Reads a whole file as the tool does: up to a piece shorter than 512 bytes or the announced size.
struct WholeRead {
    WholeRead(FileTransfers &transfers, quint8 kind)
    {
        quint32 handle = 0;
        do {
            const Answer answer(transfers.read(readRequest(kind, handle, static_cast<quint32>(data.size()))));
            handle = answer.handle;
            full_size = answer.full_size;
            pieces.append(answer.length);
            data.append(answer.data);
        } while (pieces.last() >= 512 && data.size() < full_size);
    }

    QByteArray data;
    quint32 full_size = 0;
    QList<int> pieces;
};

/// Writes \a data as the tool does: the next piece stands where the answer says.
QList<int> writeWhole(FileTransfers &transfers, quint8 kind, const QByteArray &data)
{
    QList<int> accepted;
    quint32 handle = 0;
    quint32 offset = 0;
    do {
        const Answer answer(transfers.write(
            writeRequest(kind, handle, offset, static_cast<quint32>(data.size()), data.mid(offset, 512))));
        if (answer.status != success)
            return {};
        accepted.append(answer.length);
        handle = answer.handle;
        offset = answer.offset + answer.length;
    } while (offset < data.size());
    return accepted;
}

TransferSettings inDirectory(const QTemporaryDir &directory)
{
    TransferSettings settings;
    settings.directory = directory.path();
    return settings;
}

void makeFile(const QTemporaryDir &directory, const QString &name, const QByteArray &content)
{
    QFile file(directory.filePath(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), content.size());
}

QByteArray fileContent(const QTemporaryDir &directory, const QString &name)
{
    QFile file(directory.filePath(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("no such file");
}

} // namespace

class SimulatorFilesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyBuiltInFileReadsInPiecesOf512_data();
    void everyBuiltInFileReadsInPiecesOf512();
    void aFileOnDiskIsReadWhole_data();
    void aFileOnDiskIsReadWhole();
    void aMissingFileIsRefusedWithoutComplaint();
    void everyReadGetsAHandleOfItsOwn();
    void aWrongReadIsRefusedAndReported_data();
    void aWrongReadIsRefusedAndReported();
    void noRequestIsDueAfterTheLastPiece();
    void piecesAndAnnouncedSizeCanBeOdd_data();
    void piecesAndAnnouncedSizeCanBeOdd();

    void aWriteIsVisibleOnlyWhenComplete();
    void aWriteOfAnySizeIsStored_data();
    void aWriteOfAnySizeIsStored();
    void aPieceCanBeAcceptedInPart();
    void aWrongWriteIsRefusedAndReported_data();
    void aWrongWriteIsRefusedAndReported();
    void whatCannotBeStoredIsRefused();

    void theChecksumOfTheWrittenFileApplies();
    void aWrongApplyIsRefusedAndReported_data();
    void aWrongApplyIsRefusedAndReported();
};

void SimulatorFilesTest::everyBuiltInFileReadsInPiecesOf512_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("size");
    constexpr std::array sizes{1300, 20011, 96, 4096, 777, 12800, 5003, 512, 1024, 640, 9001, 513};
    for (int kind = 0; kind < 12; ++kind)
        QTest::addRow("%d", kind) << kind << sizes.at(static_cast<size_t>(kind));
}

void SimulatorFilesTest::everyBuiltInFileReadsInPiecesOf512()
{
    QFETCH(const int, kind);
    QFETCH(const int, size);
    FileTransfers transfers({});
    const WholeRead read(transfers, static_cast<quint8>(kind));
    QCOMPARE(read.data.size(), size);
    QCOMPARE(read.full_size, static_cast<quint32>(size));
    QCOMPARE(read.pieces.size(), (size + 511) / 512);
    const WholeRead again(transfers, static_cast<quint8>(kind));
    QCOMPARE(again.data, read.data);
}

void SimulatorFilesTest::aFileOnDiskIsReadWhole_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QList<int>>("pieces");
    QTest::newRow("0") << QByteArray() << QList<int>{0};
    QTest::newRow("1") << QByteArray(1, 'a') << QList<int>{1};
    QTest::newRow("512") << QByteArray(512, 'b') << QList<int>{512};
    QTest::newRow("1025") << QByteArray(1025, 'c') << QList<int>{512, 512, 1};
}

void SimulatorFilesTest::aFileOnDiskIsReadWhole()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QList<int>, pieces);
    const QTemporaryDir directory;
    makeFile(directory, QStringLiteral("keys"), content);
    FileTransfers transfers(inDirectory(directory));
    const WholeRead read(transfers, keys_kind);
    QCOMPARE(read.data, content);
    QCOMPARE(read.pieces, pieces);
}

void SimulatorFilesTest::aMissingFileIsRefusedWithoutComplaint()
{
    const QTemporaryDir directory;
    FileTransfers transfers(inDirectory(directory));
    const Reply reply = transfers.read(readRequest(keys_kind, 0, 0));
    QCOMPARE(reply.payload.value(), QByteArray("\x02\x02"));
    QCOMPARE(reply.complaint, QString());
}

void SimulatorFilesTest::everyReadGetsAHandleOfItsOwn()
{
    FileTransfers transfers({});
    const Answer first(transfers.read(readRequest(settings_kind, 0, 0)));
    const Answer second(transfers.read(readRequest(settings_kind, 0, 0)));
    QVERIFY(first.handle != 0);
    QVERIFY(second.handle != 0);
    QVERIFY(first.handle != second.handle);
}

void SimulatorFilesTest::aWrongReadIsRefusedAndReported_data()
{
    // The built-in handles start at 0xA1B2C301.
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("refusal");
    QTest::addColumn<QString>("complaint");
    QTest::newRow("kind 12") << readRequest(12, 0, 0) << QByteArray("\x01\x0C") << QStringLiteral("unknown file kind");
    QTest::newRow("maximum 511") << readRequest(2, 0, 0, 511) << QByteArray("\x03\x02")
                                 << QStringLiteral("wrong maximum length");
    QTest::newRow("opened at 1") << readRequest(2, 0, 1) << QByteArray("\x03\x02")
                                 << QStringLiteral("first piece not at offset 0");
    QTest::newRow("other handle") << readRequest(0, 0xA1B2C302, 512) << QByteArray("\x03\x00", 2)
                                  << QStringLiteral("wrong handle");
    QTest::newRow("other kind") << readRequest(1, 0xA1B2C301, 512) << QByteArray("\x03\x01")
                                << QStringLiteral("other file kind than before");
    QTest::newRow("same piece again") << readRequest(0, 0xA1B2C301, 0) << QByteArray("\x03\x00", 2)
                                      << QStringLiteral("wrong offset");
}

void SimulatorFilesTest::aWrongReadIsRefusedAndReported()
{
    QFETCH(const QByteArray, request);
    QFETCH(const QByteArray, refusal);
    QFETCH(const QString, complaint);
    FileTransfers transfers({});
    QCOMPARE(Answer(transfers.read(readRequest(settings_kind, 0, 0))).handle, 0xA1B2C301);
    const Reply reply = transfers.read(request);
    QCOMPARE(reply.payload.value(), refusal);
    QCOMPARE(reply.complaint, complaint);
}

void SimulatorFilesTest::noRequestIsDueAfterTheLastPiece()
{
    FileTransfers transfers({});
    const Answer answer(transfers.read(readRequest(keys_kind, 0, 0)));
    QCOMPARE(answer.length, quint16{96});
    const Reply reply = transfers.read(readRequest(keys_kind, answer.handle, 96));
    QCOMPARE(reply.complaint, QStringLiteral("handle of no transfer under way"));
}

void SimulatorFilesTest::piecesAndAnnouncedSizeCanBeOdd_data()
{
    QTest::addColumn<int>("piece");
    QTest::addColumn<int>("announced");
    QTest::addColumn<QList<int>>("pieces");
    QTest::newRow("600 bytes a piece") << 600 << 1024 << QList<int>{600, 424};
    QTest::newRow("300 bytes a piece") << 300 << 1024 << QList<int>{300};
    QTest::newRow("announced short") << 512 << 1000 << QList<int>{512, 512};
    QTest::newRow("announced long") << 512 << 5000 << QList<int>{512, 512, 0};
}

void SimulatorFilesTest::piecesAndAnnouncedSizeCanBeOdd()
{
    QFETCH(const int, piece);
    QFETCH(const int, announced);
    QFETCH(const QList<int>, pieces);
    constexpr quint8 archive_kind = 8; // 1024 bytes
    TransferSettings settings;
    settings.piece = piece;
    settings.announced = static_cast<quint32>(announced);
    FileTransfers transfers(settings);
    const WholeRead read(transfers, archive_kind);
    QCOMPARE(read.pieces, pieces);
    QCOMPARE(read.full_size, static_cast<quint32>(announced));
}

void SimulatorFilesTest::aWriteIsVisibleOnlyWhenComplete()
{
    const QTemporaryDir directory;
    makeFile(directory, QStringLiteral("keys"), QByteArray("old"));
    FileTransfers transfers(inDirectory(directory));
    const Answer answer(transfers.write(writeRequest(keys_kind, 0, 0, 513, QByteArray(512, 'x'))));
    QCOMPARE(answer.status, success);
    QCOMPARE(fileContent(directory, QStringLiteral("keys")), QByteArray("old"));
    QCOMPARE(WholeRead(transfers, keys_kind).data, QByteArray("old"));

    transfers.forget();
    const QByteArray rest = writeRequest(keys_kind, answer.handle, 512, 513, QByteArray("y"));
    QCOMPARE(transfers.write(rest).complaint, QStringLiteral("handle of no transfer under way"));
    QCOMPARE(fileContent(directory, QStringLiteral("keys")), QByteArray("old"));

    QCOMPARE(writeWhole(transfers, keys_kind, QByteArray("new")), QList<int>{3});
    QCOMPARE(fileContent(directory, QStringLiteral("keys")), QByteArray("new"));
    QCOMPARE(WholeRead(transfers, keys_kind).data, QByteArray("new"));
}

void SimulatorFilesTest::aWriteOfAnySizeIsStored_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<QList<int>>("accepted");
    QTest::newRow("0") << 0 << QList<int>{0};
    QTest::newRow("511") << 511 << QList<int>{511};
    QTest::newRow("512") << 512 << QList<int>{512};
    QTest::newRow("1300") << 1300 << QList<int>{512, 512, 276};
}

void SimulatorFilesTest::aWriteOfAnySizeIsStored()
{
    QFETCH(const int, size);
    QFETCH(const QList<int>, accepted);
    FileTransfers transfers({});
    const QByteArray content(size, 'z');
    QCOMPARE(writeWhole(transfers, settings_kind, content), accepted);
    QCOMPARE(WholeRead(transfers, settings_kind).data, content);
}

void SimulatorFilesTest::aPieceCanBeAcceptedInPart()
{
    TransferSettings settings;
    settings.accept = 200;
    FileTransfers transfers(settings);
    QByteArray content;
    for (int i = 0; i < 700; ++i)
        content.append(static_cast<char>(i % 251));
    QCOMPARE(writeWhole(transfers, settings_kind, content), (QList<int>{200, 200, 200, 100}));
    QCOMPARE(WholeRead(transfers, settings_kind).data, content);
}

void SimulatorFilesTest::aWrongWriteIsRefusedAndReported_data()
{
    // Comes after a first piece of 512 bytes out of 600 for kind 2 under the handle 0xA1B2C301.
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QString>("complaint");
    const QByteArray rest(88, 'r');
    QTest::newRow("kind 255") << writeRequest(255, 0, 0, 88, rest) << QStringLiteral("unknown file kind");
    QTest::newRow("opened at 512") << writeRequest(2, 0, 512, 600, rest)
                                   << QStringLiteral("first piece not at offset 0");
    QTest::newRow("other handle") << writeRequest(2, 1, 512, 600, rest) << QStringLiteral("wrong handle");
    QTest::newRow("other kind") << writeRequest(3, 0xA1B2C301, 512, 600, rest)
                                << QStringLiteral("other file kind than before");
    QTest::newRow("other offset") << writeRequest(2, 0xA1B2C301, 0, 600, rest) << QStringLiteral("wrong offset");
    QTest::newRow("other total") << writeRequest(2, 0xA1B2C301, 512, 601, rest) << QStringLiteral("total size changed");
    QTest::newRow("short piece") << writeRequest(2, 0xA1B2C301, 512, 600, rest.first(87))
                                 << QStringLiteral("wrong piece length");
    QTest::newRow("data cut") << writeRequest(2, 0xA1B2C301, 512, 600, rest).chopped(1)
                              << QStringLiteral("length differs from the data's");
}

void SimulatorFilesTest::aWrongWriteIsRefusedAndReported()
{
    QFETCH(const QByteArray, request);
    QFETCH(const QString, complaint);
    FileTransfers transfers({});
    const Reply opened = transfers.write(writeRequest(keys_kind, 0, 0, 600, QByteArray(512, 'f')));
    QCOMPARE(Answer(opened).handle, 0xA1B2C301);
    QCOMPARE(opened.payload->size(), 12);
    const Reply reply = transfers.write(request);
    QCOMPARE(reply.complaint, complaint);
    QCOMPARE(reply.payload->size(), 2);
    QVERIFY(reply.payload->front() != success);
}

void SimulatorFilesTest::whatCannotBeStoredIsRefused()
{
    const QTemporaryDir directory;
    QVERIFY(QDir(directory.path()).mkdir(QStringLiteral("keys")));
    FileTransfers transfers(inDirectory(directory));
    const Reply reply = transfers.write(writeRequest(keys_kind, 0, 0, 1, QByteArray("x")));
    QCOMPARE(reply.payload.value(), QByteArray("\x04\x02"));
    QCOMPARE(reply.complaint, QString());
}

void SimulatorFilesTest::theChecksumOfTheWrittenFileApplies()
{
    // 0xCBF43926 is the published check value of CRC-32: that of the nine digits.
    FileTransfers transfers({});
    QCOMPARE(writeWhole(transfers, keys_kind, QByteArray("123456789")), QList<int>{9});
    const Reply reply = transfers.apply(applyRequest(keys_kind, 0, 0xCBF43926));
    QCOMPARE(reply.payload.value(), QByteArray("1\x02\0\0\0\0", 6));
    QCOMPARE(reply.complaint, QString());
    QVERIFY(reply.restarts);
    const Reply again = transfers.apply(applyRequest(keys_kind, 0, 0xCBF43926));
    QCOMPARE(again.payload.value(), QByteArray("\x05\x02"));
    QCOMPARE(again.complaint, QStringLiteral("nothing written to apply"));
}

void SimulatorFilesTest::aWrongApplyIsRefusedAndReported_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("refusal");
    QTest::addColumn<QString>("complaint");
    QTest::newRow("kind 12") << applyRequest(12, 0, 0xCBF43926) << QByteArray("\x01\x0C")
                             << QStringLiteral("unknown file kind");
    QTest::newRow("a handle") << applyRequest(2, 1, 0xCBF43926) << QByteArray("\x03\x02")
                              << QStringLiteral("wrong handle");
    QTest::newRow("inverted checksum") << applyRequest(2, 0, ~0xCBF43926) << QByteArray("\x05\x02")
                                       << QStringLiteral("wrong checksum");
    QTest::newRow("kind not written") << applyRequest(3, 0, 0xCBF43926) << QByteArray("\x05\x03")
                                      << QStringLiteral("nothing written to apply");
}

void SimulatorFilesTest::aWrongApplyIsRefusedAndReported()
{
    QFETCH(const QByteArray, request);
    QFETCH(const QByteArray, refusal);
    QFETCH(const QString, complaint);
    FileTransfers transfers({});
    writeWhole(transfers, keys_kind, QByteArray("123456789"));
    const Reply reply = transfers.apply(request);
    QCOMPARE(reply.payload.value(), refusal);
    QCOMPARE(reply.complaint, complaint);
    QVERIFY(!reply.restarts);
}

QTEST_GUILESS_MAIN(SimulatorFilesTest)
#include "tst_simulator_files.moc"
