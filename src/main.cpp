#include "device.h"
#include "file.h"
#include "jvxb/trace.h"
#include "outputreader.h"
#include "platform.h"
#include "stdoutput.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QStringList>

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

/// Makes the framework take its own event dispatcher where it would take the one of GLib, which needs twice the system
/// calls for every packet. A choice of the user stands; systems without GLib do not know the variable.
void preferPlainEventDispatcher()
{
    if (!qEnvironmentVariableIsSet("QT_NO_GLIB"))
        qputenv("QT_NO_GLIB", "1");
}

QtMessageHandler default_message_handler = nullptr;

/// The framework remarks on locales, displays and files that it cannot use. The tool reports what matters itself, on
/// standard output; the trace and the last words of a process that is aborted pass.
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

QString namedPort(const CommandLine &command_line)
{
    QString port = command_line.value(command_line._port);
    jvxb::trace::taken(port, "it is named");
    return port;
}

int fail(ExitCode code, const QString &message)
{
    StdOutput(true) << message;
    return code;
}

} // namespace

int main(int argc, char *argv[])
{
    output_reader::ignoreBrokenPipe();
    platform::tolerateMissingDisplay();
    preferPlainEventDispatcher();
    default_message_handler = qInstallMessageHandler(dropRemarks);
    const QApplication application(argc, argv);
    setIdentity();

    CommandLine command_line;
    command_line.process(application); // shows help and version and its own complaints, and ends the process then

    const QStringList paths = command_line.positionalArguments();
    if ((command_line.isSet(command_line._read) || command_line.isSet(command_line._write)) && paths.isEmpty())
        return fail(file_name_missing, Text::tr("File name not specified"));

    const File kind = command_line.isSet(command_line._file)
        ? FileInfo::info(command_line.value(command_line._file)).file
        : default_kind;
    if (!isSet(kind))
        return fail(file_kind_unknown, Text::tr("Selected unknown file"));

    jvxb::trace::began();
    const QString port = command_line.isSet(command_line._port) ? namedPort(command_line) : Device::findPort();
    if (port.isEmpty())
        return fail(port_missing, Text::tr("Serial port is not selected"));

    Device device;
    device._log_monitor = command_line.isSet(command_line._monitor);
    device.logEnable(default_log_mask);
    if (command_line.isSet(command_line._log)) {
        const std::optional<quint32> mask = logMask(command_line.value(command_line._log));
        if (!mask)
            return fail(log_mask_invalid, Text::tr("Invalid log mask"));
        device.logEnable(*mask);
    }

    bool accepted = true;
    if (command_line.isSet(command_line._read))
        accepted = device.setReadFile(kind, paths.constFirst());
    else if (command_line.isSet(command_line._write))
        accepted = device.setWriteFile(kind, paths.constFirst());
    if (!accepted)
        return file_not_accepted;

    if (command_line.isSet(command_line._apply))
        device._apply_file = kind;
    return device.start(port) ? QApplication::exec() : start_failed;
}
