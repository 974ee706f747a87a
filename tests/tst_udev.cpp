#include "installation.h"

/// The rule for udev, as udev reads it and applies it to faked devices.
class UdevTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void udevUnderstandsTheRule();
    void theUserAtTheSeatHasAccess_data() { terminal(); }
    void theUserAtTheSeatHasAccess();
    void theGroupHasAccess_data() { terminal(); }
    void theGroupHasAccess();
    void modemManagerKeepsItsHandsOff_data() { terminal(); }
    void modemManagerKeepsItsHandsOff();
    void anotherDeviceIsLeftAlone_data();
    void anotherDeviceIsLeftAlone();

private:
    static void terminal();
};

namespace {

const QString usb_device = QStringLiteral("/devices/pci0000:00/0000:00:14.0/usb1/1-1");
const QString serial_port = usb_device + QStringLiteral("/1-1:1.0/tty/ttyACM0");

QString description(const QString &vendor, const QString &product)
{
    return QStringLiteral("P: %1\nN: bus/usb/001/002\nE: DEVNAME=/dev/bus/usb/001/002\nE: DEVTYPE=usb_device\n"
                          "E: DRIVER=usb\nE: SUBSYSTEM=usb\nE: MAJOR=189\nE: MINOR=1\n"
                          "A: idVendor=%3\nA: idProduct=%4\n\n"
                          "P: %1/1-1:1.0\nE: DEVTYPE=usb_interface\nE: DRIVER=cdc_acm\nE: SUBSYSTEM=usb\n\n"
                          "P: %2\nN: ttyACM0\nE: DEVNAME=/dev/ttyACM0\nE: SUBSYSTEM=tty\nE: MAJOR=166\nE: MINOR=0\n\n")
        .arg(usb_device, serial_port, vendor, product);
}

/// What udev would do with \a device when one with these identifiers is plugged in. It reads rules in /run, and would
/// write there and to /dev/char: it gets both as empty folders in a name space of its own.
QString plugIn(const QString &device, const QString &vendor, const QString &product)
{
    const Installation installation(QStringLiteral("/usr"));
    const QTemporaryDir directory;
    QFile ports(directory.filePath(QStringLiteral("ports.umockdev")));
    if (!ports.open(QIODevice::WriteOnly))
        qFatal("cannot describe the ports");
    ports.write(description(vendor, product).toLatin1());
    ports.close();

    const QString script = QStringLiteral("set -e; mkdir -p /dev/char; mount -t tmpfs tmpfs /dev/char; "
                                          "mount -t tmpfs tmpfs /run; mkdir -p /run/udev/rules.d; "
                                          "cp \"$1\" /run/udev/rules.d; "
                                          "exec umockdev-run -d \"$2\" -- udevadm test --action=add \"/sys$3\" 2>&1");
    // Root can mount without a name space of users, and in a chroot it may not make one.
    const bool is_root = run({QStringLiteral("unshare"), QStringLiteral("--mount"), QStringLiteral("true")}).code == 0;
    const QStringList users{QStringLiteral("--user"), QStringLiteral("--map-root-user")};
    const Ended ended = run(QStringList{QStringLiteral("unshare")} + (is_root ? QStringList() : users)
        + QStringList{QStringLiteral("--mount"), QStringLiteral("sh"), QStringLiteral("-c"), script,
            QStringLiteral("sh"), installation.path(QStringLiteral("lib/udev/rules.d/70-jvx-loader.rules")),
            ports.fileName(), device});
    if (ended.code != 0)
        QTest::qFail(
            qPrintable(QStringLiteral("the rule is not taken: ") + ended.output + ended.errors), __FILE__, __LINE__);
    return ended.output;
}

QString plugInTerminal(const QString &device)
{
    return plugIn(device, QStringLiteral("03eb"), QStringLiteral("6124"));
}

/// Whether the device gets the property; newer versions of udev indent them.
bool hasProperty(const QString &text, const QString &property)
{
    return text.contains(QRegularExpression(QStringLiteral("\\n *%1\\n").arg(property)));
}

bool isTaggedForTheSeat(const QString &text)
{
    return text.contains(QRegularExpression(QStringLiteral("\\n *CURRENT_TAGS=.*:uaccess:")));
}

/// What udev says about the rule beyond that it has read it.
QStringList aboutTheRule(const QString &text)
{
    QStringList lines = text.split(QLatin1Char('\n')).filter(QStringLiteral("70-jvx-loader.rules"));
    lines.removeIf([](const QString &line) { return line.startsWith(QStringLiteral("Reading rules file")); });
    return lines.replaceInStrings(QRegularExpression(QStringLiteral("^.*rules:\\d+ ")), QString());
}

} // namespace

void UdevTest::terminal()
{
    QTest::addColumn<QString>("device");
    QTest::newRow("USB device") << usb_device;
    QTest::newRow("serial port") << serial_port;
}

void UdevTest::udevUnderstandsTheRule()
{
    const QString text = plugIn(usb_device, QStringLiteral("03eb"), QStringLiteral("6125"));
    QVERIFY(text.contains(QStringLiteral("Reading rules file: /run/udev/rules.d/70-jvx-loader.rules")));
    QCOMPARE(aboutTheRule(text), QStringList());
}

void UdevTest::theUserAtTheSeatHasAccess()
{
    QFETCH(QString, device);
    // The access is granted by udev's own rule 73, if the tag was set before it.
    const QString text = plugInTerminal(device);
    QVERIFY(isTaggedForTheSeat(text));
    const qsizetype granting = text.indexOf(QStringLiteral("/73-seat-late.rules"));
    QVERIFY(granting >= 0 && text.indexOf(QStringLiteral("/70-jvx-loader.rules")) < granting);
}

void UdevTest::theGroupHasAccess()
{
    QFETCH(QString, device);
    // The group by its number, 20 in all of Debian.
    const QStringList said{QStringLiteral("GROUP 20"), QStringLiteral("MODE 0660")};
    QCOMPARE(aboutTheRule(plugInTerminal(device)), said);
}

void UdevTest::modemManagerKeepsItsHandsOff()
{
    QFETCH(QString, device);
    QVERIFY(hasProperty(plugInTerminal(device), QStringLiteral("ID_MM_DEVICE_IGNORE=1")));
}

void UdevTest::anotherDeviceIsLeftAlone_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("vendor");
    QTest::addColumn<QString>("product");
    const QString terminals_vendor = QStringLiteral("03eb");
    const QString terminals_product = QStringLiteral("6124");
    const QString other = QStringLiteral("6125");
    QTest::newRow("USB device, another product") << usb_device << terminals_vendor << other;
    QTest::newRow("USB device, another vendor") << usb_device << other << terminals_product;
    QTest::newRow("serial port, another product") << serial_port << terminals_vendor << other;
    QTest::newRow("serial port, another vendor") << serial_port << other << terminals_product;
}

void UdevTest::anotherDeviceIsLeftAlone()
{
    QFETCH(QString, device);
    QFETCH(QString, vendor);
    QFETCH(QString, product);
    const QString text = plugIn(device, vendor, product);
    QVERIFY(hasProperty(text, QStringLiteral("ACTION=add")));
    QCOMPARE(aboutTheRule(text), QStringList());
    QVERIFY(!text.contains(QStringLiteral("ID_MM_DEVICE_IGNORE")));
    QVERIFY(!isTaggedForTheSeat(text));
}

QTEST_GUILESS_MAIN(UdevTest)
#include "tst_udev.moc"
