#include "crc.h"

#include <QRandomGenerator>
#include <QTest>

#include <zlib.h>

namespace {

const unsigned char *bytesOf(const QByteArray &data)
{
    return reinterpret_cast<const unsigned char *>(data.constData());
}

int sizeOf(const QByteArray &data)
{
    return static_cast<int>(data.size());
}

quint16 crc16(const QByteArray &data)
{
    return crc::modbus::calc(bytesOf(data), sizeOf(data));
}

quint32 crc32Register(const QByteArray &data)
{
    return crc::ieee::calc(bytesOf(data), sizeOf(data));
}

/// CRC-16/MODBUS bit by bit, without a table.
quint16 bitwiseCrc16(const QByteArray &data)
{
    unsigned int remainder = 0xFFFF;
    for (const char byte : data) {
        remainder ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit)
            remainder = remainder >> 1U ^ ((remainder & 1U) != 0 ? 0xA001U : 0U);
    }
    return static_cast<quint16>(remainder);
}

quint32 zlibCrc32(const QByteArray &data)
{
    return static_cast<quint32>(crc32(0, bytesOf(data), static_cast<uInt>(data.size())));
}

QByteArray randomBytes(QRandomGenerator &random, int size)
{
    QByteArray bytes;
    for (int i = 0; i < size; ++i)
        bytes.append(static_cast<char>(random.bounded(256)));
    return bytes;
}

} // namespace

class CrcTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theRegistersStartWithAllOnes();
    void knownTextsHaveKnownSums_data();
    void knownTextsHaveKnownSums();
    void oneByteShowsItsTableEntry_data();
    void oneByteShowsItsTableEntry();
    void everyByteValueAgreesWithTheReferences();
    void noBytesLeaveTheRegisterAlone_data();
    void noBytesLeaveTheRegisterAlone();
    void randomDataAgreeWithTheReferences();
    void dataMayComeInAnyPieces();
};

void CrcTest::theRegistersStartWithAllOnes()
{
    QCOMPARE(crc::modbus::initValue(), quint16{0xFFFF});
    QCOMPARE(crc::ieee::initValue(), 0xFFFFFFFFU);
}

// The check values of both algorithms stand in the usual catalogues of CRC parameters; the other numbers are
// binascii.crc32 of Python, inverted, and a loop over the bits.
void CrcTest::knownTextsHaveKnownSums_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<quint16>("modbus");
    QTest::addColumn<quint32>("ieee");

    QTest::newRow("123456789") << QByteArray("123456789") << quint16{0x4B37} << 0x340BC6D9U;
    QTest::newRow("nothing") << QByteArray() << quint16{0xFFFF} << 0xFFFFFFFFU;
    QTest::newRow("a") << QByteArray("a") << quint16{0xA87E} << 0x174841BCU;
    QTest::newRow("one zero byte") << QByteArray(1, '\0') << quint16{0x40BF} << 0x2DFD1072U;
    QTest::newRow("1000 bytes of 0xFF") << QByteArray(1000, '\xFF') << quint16{0x62AB} << 0x1FACCDCFU;
}

void CrcTest::knownTextsHaveKnownSums()
{
    QFETCH(QByteArray, data);
    QTEST(crc16(data), "modbus");
    QTEST(crc32Register(data), "ieee");
}

void CrcTest::oneByteShowsItsTableEntry_data()
{
    QTest::addColumn<int>("byte");
    QTest::addColumn<quint16>("modbus");
    QTest::addColumn<quint32>("ieee");

    const auto row = [](int byte, int modbus, quint32 ieee) {
        QTest::addRow("%d", byte) << byte << static_cast<quint16>(modbus) << ieee;
    };
    row(0, 0x0000, 0x00000000);
    row(1, 0xC0C1, 0x77073096);
    row(2, 0xC181, 0xEE0E612C);
    row(3, 0x0140, 0x990951BA);
    row(255, 0x4040, 0x2D02EF8D);
}

// From a register of 0 the sum of one byte is the table's entry itself.
void CrcTest::oneByteShowsItsTableEntry()
{
    QFETCH(int, byte);
    const auto data = static_cast<unsigned char>(byte);
    QTEST(crc::modbus::calc(&data, 1, quint16{0}), "modbus");
    QTEST(crc::ieee::calc(&data, 1, 0U), "ieee");
}

void CrcTest::everyByteValueAgreesWithTheReferences()
{
    for (int value = 0; value < 256; ++value) {
        const QByteArray data(1, static_cast<char>(value));
        QCOMPARE(crc16(data), bitwiseCrc16(data));
        QCOMPARE(~crc32Register(data), zlibCrc32(data));
    }
}

void CrcTest::noBytesLeaveTheRegisterAlone_data()
{
    QTest::addColumn<int>("size");

    for (const int size : {0, -1, -2147483647 - 1})
        QTest::addRow("%d", size) << size;
}

void CrcTest::noBytesLeaveTheRegisterAlone()
{
    QFETCH(int, size);
    const unsigned char data[] = {1, 2, 3};
    QCOMPARE(crc::modbus::calc(data, size), quint16{0xFFFF});
    QCOMPARE(crc::modbus::calc(data, size, quint16{0x1234}), quint16{0x1234});
    QCOMPARE(crc::modbus::calc(nullptr, size, quint16{0}), quint16{0});
    QCOMPARE(crc::ieee::calc(data, size), 0xFFFFFFFFU);
    QCOMPARE(crc::ieee::calc(data, size, 0x12345678U), 0x12345678U);
    QCOMPARE(crc::ieee::calc(nullptr, size, 0U), 0U);
}

void CrcTest::randomDataAgreeWithTheReferences()
{
    QRandomGenerator random(1);
    for (int size = 1; size < 600; ++size) {
        const QByteArray data = randomBytes(random, size);
        QCOMPARE(crc16(data), bitwiseCrc16(data));
        QCOMPARE(~crc32Register(data), zlibCrc32(data));
    }
}

void CrcTest::dataMayComeInAnyPieces()
{
    QRandomGenerator random(2);
    for (int round = 0; round < 200; ++round) {
        const QByteArray data = randomBytes(random, 2000);
        quint16 modbus = crc::modbus::initValue();
        quint32 ieee = crc::ieee::initValue();
        for (int begin = 0, size = 0; begin < data.size(); begin += size) {
            size = std::min(random.bounded(700), sizeOf(data) - begin);
            modbus = crc::modbus::calc(bytesOf(data) + begin, size, modbus);
            ieee = crc::ieee::calc(bytesOf(data) + begin, size, ieee);
        }
        QCOMPARE(modbus, bitwiseCrc16(data));
        QCOMPARE(~ieee, zlibCrc32(data));
    }
}

QTEST_GUILESS_MAIN(CrcTest)

#include "tst_crc.moc"
