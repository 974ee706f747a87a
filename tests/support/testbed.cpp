#include "testbed.h"

#include "localfiles.h"
#include "lock.h"

#include <QCoreApplication>
#include <QDir>

namespace {

QByteArray description(const FakedPort &port)
{
    const QByteArray name = portName(port.number).toLatin1();
    const QByteArray place = port.place;
    const QByteArray node = "N: " + name + "\nE: DEVNAME=/dev/" + name + "\nE: SUBSYSTEM=tty\n";
    if (port.vendor == nullptr) {
        const QByteArray device = "P: /devices/platform/" + place;
        return device + "\nE: DRIVER=uart\nE: SUBSYSTEM=platform\n\n" + device + "/tty/" + name + '\n' + node + '\n';
    }
    const QByteArray device = "P: /devices/pci0000:00/0000:00:14.0/usb1/" + place;
    const QByteArray interface = device + '/' + place + ":1.0";
    return device + "\nE: DEVTYPE=usb_device\nE: DRIVER=usb\nE: SUBSYSTEM=usb\nA: idVendor=" + port.vendor
        + "\nA: idProduct=" + port.product + "\n\n"
        + interface + "\nE: DEVTYPE=usb_interface\nE: DRIVER=cdc_acm\nE: SUBSYSTEM=usb\n\n" + interface + "/tty/" + name
        + '\n' + node + "E: ID_BUS=usb\nE: ID_VENDOR_ID=" + port.vendor + "\nE: ID_MODEL_ID=" + port.product + "\n\n";
}

} // namespace

QString portName(int number)
{
    return QStringLiteral("ttyACM%1").arg(QCoreApplication::applicationPid() * 10 + number);
}

FakedPort terminalPort(int number, const char *place)
{
    return {number, place, "03eb", "6124"};
}

Testbed::Testbed(const QList<FakedPort> &ports)
    : _ports(ports)
{
    QByteArray system;
    for (const FakedPort &port : ports)
        system += description(port);
    files::store(descriptionPath(), system);
}

Testbed::~Testbed()
{
    for (const FakedPort &port : _ports)
        removeLock(portName(port.number));
}

void Testbed::connect(int number, const SimulatedTerminal &terminal)
{
    _connections += {portName(number), terminal.port()};
}

Tool Testbed::start(const QStringList &arguments, const QStringList &environment, const QString &program) const
{
    static const QString connecting
        = QStringLiteral("while [ \"$1\" != -- ]; do ln -sf \"$2\" \"$UMOCKDEV_DIR/dev/$1\"; shift 2; done; "
                         "shift; exec \"$@\"");
    const QStringList command{QStringLiteral("-d"), descriptionPath(), QStringLiteral("--"), QStringLiteral("sh"),
        QStringLiteral("-c"), connecting, QStringLiteral("sh")};
    const QStringList separator{QStringLiteral("--")};
    return {QStringLiteral("umockdev-run"), command + _connections + separator + QStringList{program} + arguments,
        surroundings() + environment};
}

void Testbed::withdraw(int number) const
{
    std::filesystem::rename(listed(number), withdrawn(number));
}

void Testbed::restore(int number) const
{
    std::filesystem::rename(withdrawn(number), listed(number));
}

/// AddressSanitizer wants to be loaded first, but umockdev is.
QStringList Testbed::surroundings() const
{
    return {QStringLiteral("TMPDIR=") + _directory.path(),
        QStringLiteral("ASAN_OPTIONS=verify_asan_link_order=0:") + qEnvironmentVariable("ASAN_OPTIONS")};
}

/// The directory of the system that umockdev has made up for the run under way.
std::filesystem::path Testbed::system() const
{
    const QStringList found = QDir(_directory.path()).entryList({QStringLiteral("umockdev.*")}, QDir::Dirs);
    return path(found.value(0)).toStdString();
}

std::filesystem::path Testbed::listed(int number) const
{
    return system() / "sys" / "class" / "tty" / portName(number).toStdString();
}

std::filesystem::path Testbed::withdrawn(int number) const
{
    return system() / portName(number).toStdString();
}
