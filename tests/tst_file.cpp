#include "capture.h"
#include "file.h"
#include "stdoutput.h"

#include <QTest>

#include <array>

namespace {

struct Row {
    int value;
    const char *key;
    const char *name;
    const char *help; ///< line of the command line's help
};

constexpr auto catalogue = std::to_array<Row>({
    {0, "settings", "Settings", "    0 | settings        Settings"},
    {1, "firmware", "Firmware", "    1 | firmware        Firmware"},
    {2, "keys", "Keys", "    2 | keys            Keys"},
    {3, "road-acc", "Road accident", "    3 | road-acc        Road accident"},
    {4, "can-decode", "Can decode", "    4 | can-decode      Can decode"},
    {5, "tachograph-ddd", "Tachograph DDD", "    5 | tachograph-ddd  Tachograph DDD"},
    {6, "fls-firmware", "Firmware of fuel level sensor", "    6 | fls-firmware    Firmware of fuel level sensor"},
    {7, "complexevents", "ComplexEvents program", "    7 | complexevents   ComplexEvents program"},
    {8, "fls-archive", "Archive of fuel level sensor (Escort)",
        "    8 | fls-archive     Archive of fuel level sensor (Escort)"},
    {9, "can-scripts", "Can scripts", "    9 | can-scripts     Can scripts"},
    {10, "epo", "EPO file", "    10 | epo            EPO file"},
    {11, "user-firmware", "User firmware", "    11 | user-firmware  User firmware"},
});

void catalogueRows()
{
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("help");
    for (const Row &row : catalogue)
        QTest::newRow(row.key) << row.value << QString::fromLatin1(row.key) << QString::fromLatin1(row.name)
                               << QString::fromLatin1(row.help);
}

QByteArray printed(File file)
{
    const Capture capture;
    StdOutput(false) << "" << file;
    return capture.flushed();
}

} // namespace

class FileTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void anEnumeratorHasItsNumber_data();
    void anEnumeratorHasItsNumber();
    void aKindIsFoundByItsValue_data() { catalogueRows(); }
    void aKindIsFoundByItsValue();
    void aKindIsFoundByItsKey_data() { catalogueRows(); }
    void aKindIsFoundByItsKey();
    void aKindIsFoundByItsNumber_data() { catalogueRows(); }
    void aKindIsFoundByItsNumber();
    void anyGreaterValueIsUnknown();
    void theUnknownKindIsDescribed();
    void theLowEightBitsOfANumberCount_data();
    void theLowEightBitsOfANumberCount();
    void anyOtherTextIsUnknown_data();
    void anyOtherTextIsUnknown();
    void aDescriptionOutlivesACopy();
    void aHelpLineHoldsNumberKeyAndName_data() { catalogueRows(); }
    void aHelpLineHoldsNumberKeyAndName();
    void aHelpLineIsPaddedOrCut_data();
    void aHelpLineIsPaddedOrCut();
    void theHelpListsEveryValidKindInOrder();
    void aKindIsPrintedWithItsNumber_data() { catalogueRows(); }
    void aKindIsPrintedWithItsNumber();
    void anInvalidKindIsPrintedAsUnknown_data();
    void anInvalidKindIsPrintedAsUnknown();
    void aPrintedKindLeavesTheLineToItsMessage();
};

void FileTest::anEnumeratorHasItsNumber_data()
{
    QTest::addColumn<File>("file");
    QTest::addColumn<int>("value");
    QTest::newRow("Settings") << File::Settings << 0;
    QTest::newRow("Firmware") << File::Firmware << 1;
    QTest::newRow("Keys") << File::Keys << 2;
    QTest::newRow("RoadAccident") << File::RoadAccident << 3;
    QTest::newRow("CanDecode") << File::CanDecode << 4;
    QTest::newRow("TachographDdd") << File::TachographDdd << 5;
    QTest::newRow("FlsFirmware") << File::FlsFirmware << 6;
    QTest::newRow("ComplexEvents") << File::ComplexEvents << 7;
    QTest::newRow("FlsArchive") << File::FlsArchive << 8;
    QTest::newRow("CanScripts") << File::CanScripts << 9;
    QTest::newRow("Epo") << File::Epo << 10;
    QTest::newRow("UserFirmware") << File::UserFirmware << 11;
    QTest::newRow("Unknown") << File::Unknown << 255;
}

void FileTest::anEnumeratorHasItsNumber()
{
    QFETCH(File, file);
    QTEST(static_cast<int>(file), "value");
    QCOMPARE(sizeof file, size_t{1});
}

void FileTest::aKindIsFoundByItsValue()
{
    QFETCH(int, value);
    QFETCH(QString, key);
    const File file{static_cast<quint8>(value)};
    const FileInfo &info = FileInfo::info(file);
    QVERIFY(isSet(file));
    QCOMPARE(info.file, file);
    QCOMPARE(info.keys, QStringList{key});
    QTEST(info.name, "name");
}

void FileTest::aKindIsFoundByItsKey()
{
    QFETCH(QString, key);
    QFETCH(int, value);
    QCOMPARE(&FileInfo::info(key), &FileInfo::info(File{static_cast<quint8>(value)}));
}

void FileTest::aKindIsFoundByItsNumber()
{
    QFETCH(int, value);
    QCOMPARE(&FileInfo::info(QString::number(value)), &FileInfo::info(File{static_cast<quint8>(value)}));
}

void FileTest::anyGreaterValueIsUnknown()
{
    for (int value = 12; value <= 255; ++value) {
        const File file{static_cast<quint8>(value)};
        QVERIFY(!isSet(file));
        QCOMPARE(&FileInfo::info(file), &FileInfo::unknown);
        QCOMPARE(&FileInfo::info(QString::number(value)), &FileInfo::unknown);
    }
}

void FileTest::theUnknownKindIsDescribed()
{
    QCOMPARE(static_cast<int>(FileInfo::unknown.file), 255);
    QCOMPARE(FileInfo::unknown.keys, QStringList{QStringLiteral("unknown")});
    QCOMPARE(FileInfo::unknown.name, QStringLiteral("Unknown"));
}

void FileTest::theLowEightBitsOfANumberCount_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("value");
    const auto row = [](const char *text, int value) { QTest::newRow(text) << QString::fromLatin1(text) << value; };
    row("256", 0);
    row("257", 1);
    row("267", 11);
    row("268", 255);
    row("511", 255);
    row("512", 0);
    row("65536", 0);
    row("2147483648", 0);
    row("4294967040", 0);
    row("4294967051", 11);
    row("4294967295", 255);
}

void FileTest::theLowEightBitsOfANumberCount()
{
    QFETCH(QString, text);
    QTEST(static_cast<int>(FileInfo::info(text).file), "value");
}

void FileTest::anyOtherTextIsUnknown_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text : {"-1", "-0", "-11", "-256", "", " ", "Settings", "SETTINGS", "User firmware", "setting",
             "settings2", "nokey", "unknown", "Unknown", "0x1", "1.0", "1e1", "a", "1 1", "1,000", "4294967296",
             "4294967307", "18446744073709551616", "100000000000000000000"})
        QTest::newRow(text) << QString::fromLatin1(text);
    QTest::newRow("null") << QString();
    QTest::newRow("key with a blank") << QStringLiteral("settings ");
    QTest::newRow("two keys") << QStringLiteral("settings | keys");
    QTest::newRow("zero character after a key") << QStringLiteral("keys\0");
    QTest::newRow("Cyrillic look-alike of epo") << QStringLiteral("\u0435\u0440\u043e");
}

void FileTest::anyOtherTextIsUnknown()
{
    QFETCH(QString, text);
    QCOMPARE(&FileInfo::info(text), &FileInfo::unknown);
}

void FileTest::aDescriptionOutlivesACopy()
{
    const FileInfo &info = FileInfo::info(File::Keys);
    FileInfo copy = info;
    copy.keys += QStringLiteral("more");
    copy.name.clear();
    QCOMPARE(info.keys, QStringList{QStringLiteral("keys")});
    QCOMPARE(info.name, QStringLiteral("Keys"));
}

void FileTest::aHelpLineHoldsNumberKeyAndName()
{
    QFETCH(int, value);
    QTEST(FileInfo::info(File{static_cast<quint8>(value)}).commandLineDescription(), "help");
}

void FileTest::aHelpLineIsPaddedOrCut_data()
{
    QTest::addColumn<QStringList>("keys");
    QTest::addColumn<QString>("line");
    const auto keys = [](const char *list) { return QString::fromLatin1(list).split(QLatin1Char(' ')); };
    QTest::newRow("no key") << QStringList() << QStringLiteral("    255                 Name");
    QTest::newRow("two keys") << keys("one two") << QStringLiteral("    255 | one | two     Name");
    QTest::newRow("23 characters") << keys("9012345678901") << QStringLiteral("    255 | 9012345678901 Name");
    QTest::newRow("24 characters") << keys("90123456789012") << QStringLiteral("    255 | 90123456789012Name");
    QTest::newRow("25 characters") << keys("901234567890123") << QStringLiteral("    255 | 90123456789012Name");
    QTest::newRow("second key cut") << keys("one seventeen") << QStringLiteral("    255 | one | seventeeName");
    QTest::newRow("place markers") << keys("%1 %2") << QStringLiteral("    255 | %1 | %2       Name");
}

void FileTest::aHelpLineIsPaddedOrCut()
{
    QFETCH(QStringList, keys);
    const FileInfo info{File::Unknown, keys, QStringLiteral("Name")};
    QTEST(info.commandLineDescription(), "line");
}

void FileTest::theHelpListsEveryValidKindInOrder()
{
    QStringList lines;
    for (const Row &row : catalogue)
        lines += QString::fromLatin1(row.help);
    QCOMPARE(FileInfo::commandLineDescriptions(), lines.join(QLatin1Char('\n')));
}

void FileTest::aKindIsPrintedWithItsNumber()
{
    QFETCH(int, value);
    QFETCH(QString, name);
    const QByteArray expected = name.toLatin1() + '(' + QByteArray::number(value) + ')';
    QCOMPARE(printed(File{static_cast<quint8>(value)}), expected);
}

void FileTest::anInvalidKindIsPrintedAsUnknown_data()
{
    QTest::addColumn<int>("value");
    for (const int value : {12, 100, 200, 255})
        QTest::addRow("%d", value) << value;
}

void FileTest::anInvalidKindIsPrintedAsUnknown()
{
    QFETCH(int, value);
    QCOMPARE(printed(File{static_cast<quint8>(value)}), QByteArrayLiteral("Unknown(255)"));
}

void FileTest::aPrintedKindLeavesTheLineToItsMessage()
{
    const Capture capture;
    {
        StdOutput output(true);
        QCOMPARE(&(output << File::Settings), &output);
        output << " and " << File::Epo;
        QCOMPARE(capture.written(), QByteArrayLiteral("Settings(0) and EPO file(10)"));
        QCOMPARE(capture.flushes(), 0);
    }
    QCOMPARE(capture.flushed(), QByteArrayLiteral("Settings(0) and EPO file(10)\n"));
}

QTEST_GUILESS_MAIN(FileTest)
#include "tst_file.moc"
