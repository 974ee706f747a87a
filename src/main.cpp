#include "device.h"
#include "file.h"
#include "stdoutput.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QSysInfo>

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

constexpr quint32 default_log_mask = 0x4000;

/// Where no display is, runs without a window rather than not at all; a platform plugin that the user named stands.
/// X11 and Wayland announce a display in the environment, other systems always have one.
void tolerateMissingDisplay()
{
    const QString kernel = QSysInfo::kernelType();
    const bool has_display = kernel == QLatin1String("winnt") || kernel == QLatin1String("darwin")
        || qEnvironmentVariableIsSet("WAYLAND_DISPLAY") || qgetenv("XDG_SESSION_TYPE") == "wayland";
    if (has_display || qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        return;
    // A display that is announced may be gone, as in a session that outlived its login.
    qputenv("QT_QPA_PLATFORM", qEnvironmentVariableIsSet("DISPLAY") ? "xcb;minimal" : "minimal");
}

QtMessageHandler default_message_handler = nullptr;

/// The framework remarks on locales and displays that it cannot use; only what ends the program is worth a word.
void dropRemarks(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (type == QtCriticalMsg || type == QtFatalMsg)
        default_message_handler(type, context, message);
}

int fail(ExitCode code, const QString &message)
{
    StdOutput(true) << message;
    return code;
}

} // namespace

int main(int argc, char *argv[])
{
    tolerateMissingDisplay();
    default_message_handler = qInstallMessageHandler(dropRemarks);
    QApplication application(argc, argv);
    qInstallMessageHandler(default_message_handler);

    QApplication::setApplicationName(QStringLiteral("JVX file loader"));
    QApplication::setOrganizationName(QStringLiteral("JVX"));
    QApplication::setOrganizationDomain(QStringLiteral("jvx.invalid"));
    QApplication::setApplicationVersion(QStringLiteral("0.0.8"));
    QApplication::setQuitOnLastWindowClosed(false);

    const auto option = [](const char *letter, const char *name, const QString &description, const char *value = "") {
        return QCommandLineOption({QLatin1String(letter), QLatin1String(name)}, description, QLatin1String(value));
    };
    QCommandLineOption file_type
        = option("f", "file", Text::tr("File type:\n%1").arg(FileInfo::commandLineDescriptions()), "type");
    file_type.setDefaultValue(QString::number(static_cast<int>(File::UserFirmware)));
    const QCommandLineOption read = option("r", "read", Text::tr("Read"));
    const QCommandLineOption write = option("w", "write", Text::tr("Write"));
    const QCommandLineOption serial_port = option("p", "port", Text::tr("Serial port"), "name");
    const QCommandLineOption apply = option("a", "apply", Text::tr("Apply the written file"));
    const QCommandLineOption monitor = option("m", "monitor", Text::tr("Monitoring device log"));
    const QCommandLineOption log = option("l", "log", Text::tr("Enable/disable log (mask in HEX)"), "mask");

    QCommandLineParser parser;
    parser.setApplicationDescription(QApplication::applicationName());
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("file"), Text::tr("Read/write file."));
    parser.addOptions({file_type, read, write, serial_port, apply, monitor, log});
    parser.process(application); // shows help and version, and its own complaints

    const QStringList paths = parser.positionalArguments();
    if ((parser.isSet(read) || parser.isSet(write)) && paths.isEmpty())
        return fail(file_name_missing, Text::tr("File name not specified"));

    // The parser shows the default value but does not count it as set.
    const File kind = parser.isSet(file_type) ? FileInfo::info(parser.value(file_type)).file : File::UserFirmware;
    if (!isSet(kind))
        return fail(file_kind_unknown, Text::tr("Selected unknown file"));

    const QString port = parser.isSet(serial_port) ? parser.value(serial_port) : Device::findPort();
    if (port.isEmpty())
        return fail(port_missing, Text::tr("Serial port is not selected"));

    Device device;
    device._log_monitor = parser.isSet(monitor);
    device.logEnable(default_log_mask);
    if (parser.isSet(log)) {
        bool is_number = false;
        const int mask = parser.value(log).toInt(&is_number, 16);
        if (!is_number)
            return fail(log_mask_invalid, Text::tr("Invalid log mask"));
        device.logEnable(static_cast<quint32>(mask));
    }
    if (parser.isSet(read)) {
        if (!device.setReadFile(kind, paths.constFirst()))
            return file_not_accepted;
    } else if (parser.isSet(write)) {
        if (!device.setWriteFile(kind, paths.constFirst()))
            return file_not_accepted;
    }
    if (parser.isSet(apply))
        device._apply_file = kind;

    return device.start(port) ? QApplication::exec() : start_failed;
}
