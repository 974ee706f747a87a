#pragma once

#include "harness.h"

#include <QCoreApplication>
#include <QDir>
#include <QList>

#include <filesystem>

// Serial ports that the system seems to have: umockdev stands between the program under test and the system.

/// A serial port as the system describes it.
struct FakedPort {
    int number;          ///< 0 to 9, the last digit of its name
    const char *place;   ///< place on the bus, which decides when it is discovered
    const char *vendor;  ///< USB identifiers in hexadecimal; null: not a USB port
    const char *product; ///< both or none
};

/// The name of the port of that number, another one in every process: tests that run side by side would lock each
/// other's ports.
inline QString portName(int number)
{
    return QStringLiteral("ttyACM%1").arg(QCoreApplication::applicationPid() * 10 + number);
}

/// A port of the kind that a terminal has.
inline FakedPort terminalPort(int number, const char *place)
{
    return {number, place, "03eb", "6124"};
}

/// A system with nothing but the given ports, for as many runs as wanted.
class Testbed {
public:
    explicit Testbed(const QList<FakedPort> &ports = {})
    {
        QFile file(descriptionPath());
        if (!file.open(QIODevice::WriteOnly))
            qFatal("cannot describe the ports");
        for (const FakedPort &port : ports)
            file.write(description(port));
    }

    /// Connects the terminal to the port of that number, for the runs to come.
    void connect(int number, const SimulatedTerminal &terminal) { _connections += {portName(number), terminal.port()}; }

    /// Starts the tool, or what else is to run with these ports.
    Tool start(const QStringList &arguments = {}, const QStringList &environment = {},
        const QString &program = QStringLiteral(JVX_LOADER)) const
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

    /// Takes the port of that number off the system's list of the run that is under way, and puts it back.
    void withdraw(int number) const { std::filesystem::rename(listed(number), withdrawn(number)); }
    void restore(int number) const { std::filesystem::rename(withdrawn(number), listed(number)); }

    /// A path for a file of the test.
    QString path(const QString &name) const { return _directory.filePath(name); }

private:
    static QByteArray description(const FakedPort &port)
    {
        const QByteArray name = portName(port.number).toLatin1();
        const QByteArray place = port.place;
        const QByteArray node = "N: " + name + "\nE: DEVNAME=/dev/" + name + "\nE: SUBSYSTEM=tty\n";
        if (port.vendor == nullptr) {
            const QByteArray device = "P: /devices/platform/" + place;
            return device + "\nE: DRIVER=uart\nE: SUBSYSTEM=platform\n\n" + device + "/tty/" + name + '\n' + node
                + '\n';
        }
        const QByteArray device = "P: /devices/pci0000:00/0000:00:14.0/usb1/" + place;
        const QByteArray interface = device + '/' + place + ":1.0";
        return device + "\nE: DEVTYPE=usb_device\nE: DRIVER=usb\nE: SUBSYSTEM=usb\nA: idVendor=" + port.vendor
            + "\nA: idProduct=" + port.product + "\n\n"
            + interface + "\nE: DEVTYPE=usb_interface\nE: DRIVER=cdc_acm\nE: SUBSYSTEM=usb\n\n" + interface + "/tty/"
            + name + '\n' + node + "E: ID_BUS=usb\nE: ID_VENDOR_ID=" + port.vendor + "\nE: ID_MODEL_ID=" + port.product
            + "\n\n";
    }

    /// AddressSanitizer wants to be loaded first, but umockdev is.
    QStringList surroundings() const
    {
        return {QStringLiteral("TMPDIR=") + _directory.path(),
            QStringLiteral("ASAN_OPTIONS=verify_asan_link_order=0:") + qEnvironmentVariable("ASAN_OPTIONS")};
    }

    QString descriptionPath() const { return path(QStringLiteral("ports.umockdev")); }

    std::filesystem::path system() const
    {
        const QStringList found = QDir(_directory.path()).entryList({QStringLiteral("umockdev.*")}, QDir::Dirs);
        return path(found.value(0)).toStdString();
    }

    std::filesystem::path listed(int number) const
    {
        return system() / "sys" / "class" / "tty" / portName(number).toStdString();
    }

    std::filesystem::path withdrawn(int number) const { return system() / portName(number).toStdString(); }

    QTemporaryDir _directory;
    QStringList _connections;
};
