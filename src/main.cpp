#include "device.h"
#include "file.h"
#include "outputreader.h"
#include "stdoutput.h"

#include <QApplication>
#include <QByteArrayList>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QStringList>
#include <QSysInfo>

#include <optional>

namespace {

struct Text {
    Q_DECLARE_TR_FUNCTIONS(main)
};

enum ExitCode : int {
    file_name_missing = -101,
    file_kind_unknown = -102,
    port_missing = -103,
    file_not_accepted = -104,
    start_failed = -105,
    log_mask_invalid = -106,
};

constexpr File default_kind = File::UserFirmware;
constexpr quint32 default_log_mask = 0x4000;

/// Whether the environment announces a Wayland display that is there. The library that would connect to it remarks on
/// standard error when it is not.
bool hasWaylandDisplay()
{
    if (!qEnvironmentVariableIsSet("WAYLAND_DISPLAY") && qgetenv("XDG_SESSION_TYPE") != "wayland")
        return false;
    const QString name = qEnvironmentVariable("WAYLAND_DISPLAY", QStringLiteral("wayland-0"));
    const QString path = QDir(qEnvironmentVariable("XDG_RUNTIME_DIR")).filePath(name); // the name may be a path itself
    return QDir::isAbsolutePath(path) && QFileInfo::exists(path);
}

/// The platform plugins to try in turn: the framework's own choice for the display that the environment announces, then
/// one without windows. A display that is announced may be gone, as in a session that outlived its login.
QByteArray platforms()
{
    QByteArrayList names;
    if (qEnvironmentVariableIsSet("DISPLAY"))
        names += "xcb";
    if (hasWaylandDisplay()) {
        const bool prefers_x = qgetenv("XDG_CURRENT_DESKTOP").toLower().contains("gnome");
        names.insert(prefers_x ? names.size() : 0, "wayland");
    }
    names += "minimal";
    return names.join(';');
}

/// Without a display the application object would abort the process; this lets the tool run without windows then. A
/// platform plugin that the user named in QT_QPA_PLATFORM is left alone, and so are the systems that always have a
/// display.
void tolerateMissingDisplay()
{
    const QString kernel = QSysInfo::kernelType();
    const bool always_has_display = kernel == QLatin1String("winnt") || kernel == QLatin1String("darwin");
    if (!always_has_display && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", platforms());
}

/// Makes the framework take its own event dispatcher where it would take the one of GLib, which needs twice the system
/// calls for every packet. A choice of the user stands; systems without GLib do not know the variable.
void preferPlainEventDispatcher()
{
    if (!qEnvironmentVariableIsSet("QT_NO_GLIB"))
        qputenv("QT_NO_GLIB", "1");
}

QtMessageHandler default_message_handler = nullptr;

/// The framework remarks on locales, displays and files that it cannot use. What the user needs to know of that the
/// tool says itself, on standard output.
void dropRemarks(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (type == QtDebugMsg || type == QtFatalMsg)
        default_message_handler(type, context, message);
}

void setIdentity()
{
    QApplication::setApplicationName(QStringLiteral("JVX file loader"));
    QApplication::setOrganizationName(QStringLiteral("JVX"));
    QApplication::setOrganizationDomain(QStringLiteral("jvx.invalid"));
    QApplication::setApplicationVersion(QStringLiteral(JVX_VERSION));
    QApplication::setQuitOnLastWindowClosed(false); // the port selection is not the end of the run
}

/// The options of the tool; the help shows them in this order.
struct CommandLine : QCommandLineParser {
    CommandLine();

    QCommandLineOption _file{{QStringLiteral("f"), QStringLiteral("file")},
        Text::tr("File type:\n%1").arg(FileInfo::commandLineDescriptions()), QStringLiteral("type")};
    QCommandLineOption _read{{QStringLiteral("r"), QStringLiteral("read")}, Text::tr("Read")};
    QCommandLineOption _write{{QStringLiteral("w"), QStringLiteral("write")}, Text::tr("Write")};
    QCommandLineOption _port{
        {QStringLiteral("p"), QStringLiteral("port")}, Text::tr("Serial port"), QStringLiteral("name")};
    QCommandLineOption _apply{{QStringLiteral("a"), QStringLiteral("apply")}, Text::tr("Apply the written file")};
    QCommandLineOption _monitor{{QStringLiteral("m"), QStringLiteral("monitor")}, Text::tr("Monitoring device log")};
    QCommandLineOption _log{{QStringLiteral("l"), QStringLiteral("log")}, Text::tr("Enable/disable log (mask in HEX)"),
        QStringLiteral("mask")};
};

CommandLine::CommandLine()
{
    setApplicationDescription(QApplication::applicationName());
    addHelpOption();
    addVersionOption();
    addPositionalArgument(QStringLiteral("file"), Text::tr("Read/write file."));
    _file.setDefaultValue(QString::number(static_cast<int>(default_kind)));
    addOptions({_file, _read, _write, _port, _apply, _monitor, _log});
}

/// The log mask that \a text stands for, a hexadecimal number of 32 bits with a sign; nothing if it stands for none.
std::optional<quint32> logMask(const QString &text)
{
    bool is_number = false;
    const int mask = text.toInt(&is_number, 16);
    if (!is_number)
        return {};
    return static_cast<quint32>(mask);
}

int fail(ExitCode code, const QString &message)
{
    StdOutput(true) << message;
    return code;
}

} // namespace

int main(int argc, char *argv[])
{
    output_reader::outlive();
    tolerateMissingDisplay();
    preferPlainEventDispatcher();
    default_message_handler = qInstallMessageHandler(dropRemarks);
    const QApplication application(argc, argv);
    setIdentity();

    CommandLine line;
    line.process(application); // shows help and version and its own complaints, and ends the process then

    const QStringList paths = line.positionalArguments();
    if ((line.isSet(line._read) || line.isSet(line._write)) && paths.isEmpty())
        return fail(file_name_missing, Text::tr("File name not specified"));

    const File kind = line.isSet(line._file) ? FileInfo::info(line.value(line._file)).file : default_kind;
    if (!isSet(kind))
        return fail(file_kind_unknown, Text::tr("Selected unknown file"));

    const QString port = line.isSet(line._port) ? line.value(line._port) : Device::findPort();
    if (port.isEmpty())
        return fail(port_missing, Text::tr("Serial port is not selected"));

    Device device;
    device._log_monitor = line.isSet(line._monitor);
    device.logEnable(default_log_mask);
    if (line.isSet(line._log)) {
        const std::optional<quint32> mask = logMask(line.value(line._log));
        if (!mask)
            return fail(log_mask_invalid, Text::tr("Invalid log mask"));
        device.logEnable(*mask);
    }

    bool accepted = true;
    if (line.isSet(line._read))
        accepted = device.setReadFile(kind, paths.constFirst());
    else if (line.isSet(line._write))
        accepted = device.setWriteFile(kind, paths.constFirst());
    if (!accepted)
        return file_not_accepted;

    if (line.isSet(line._apply))
        device._apply_file = kind;
    return device.start(port) ? QApplication::exec() : start_failed;
}
