#include "file.h"

#include "stdoutput.h"

#include <QCoreApplication>

#include <array>
#include <cstddef>

namespace {

/// All kinds of the catalogue, in the order of their values.
QList<File> validKinds()
{
    QList<File> kinds;
    for (int value = 0; isSet(static_cast<File>(value)); ++value)
        kinds += static_cast<File>(value);
    return kinds;
}

FileInfo row(File file, const QString &key, const char *name)
{
    return {file, {key}, QCoreApplication::translate("file", name)};
}

} // namespace

const FileInfo FileInfo::unknown = row(File::Unknown, QStringLiteral("unknown"), QT_TRANSLATE_NOOP("file", "Unknown"));

FileInfo const &FileInfo::info(File file)
{
    // Row i describes kind i.
    static const std::array infos{
        row(File::Settings, QStringLiteral("settings"), QT_TRANSLATE_NOOP("file", "Settings")),
        row(File::Firmware, QStringLiteral("firmware"), QT_TRANSLATE_NOOP("file", "Firmware")),
        row(File::Keys, QStringLiteral("keys"), QT_TRANSLATE_NOOP("file", "Keys")),
        row(File::RoadAccident, QStringLiteral("road-acc"), QT_TRANSLATE_NOOP("file", "Road accident")),
        row(File::CanDecode, QStringLiteral("can-decode"), QT_TRANSLATE_NOOP("file", "Can decode")),
        row(File::TachographDdd, QStringLiteral("tachograph-ddd"), QT_TRANSLATE_NOOP("file", "Tachograph DDD")),
        row(File::FlsFirmware, QStringLiteral("fls-firmware"),
            QT_TRANSLATE_NOOP("file", "Firmware of fuel level sensor")),
        row(File::ComplexEvents, QStringLiteral("complexevents"), QT_TRANSLATE_NOOP("file", "ComplexEvents program")),
        row(File::FlsArchive, QStringLiteral("fls-archive"),
            QT_TRANSLATE_NOOP("file", "Archive of fuel level sensor (Escort)")),
        row(File::CanScripts, QStringLiteral("can-scripts"), QT_TRANSLATE_NOOP("file", "Can scripts")),
        row(File::Epo, QStringLiteral("epo"), QT_TRANSLATE_NOOP("file", "EPO file")),
        row(File::UserFirmware, QStringLiteral("user-firmware"), QT_TRANSLATE_NOOP("file", "User firmware")),
    };
    return isSet(file) ? infos[static_cast<std::size_t>(file)] : unknown;
}

FileInfo const &FileInfo::info(QString const &text)
{
    bool is_number = false;
    const uint number = text.toUInt(&is_number);
    if (is_number)
        return info(static_cast<File>(number & 0xFF));

    for (const File file : validKinds()) {
        if (info(file).keys.contains(text))
            return info(file);
    }
    return unknown;
}

QString FileInfo::commandLineDescription() const
{
    QString line = QStringLiteral("    %1").arg(static_cast<int>(file));
    for (const QString &key : keys)
        line += QStringLiteral(" | %1").arg(key);
    return line.leftJustified(24, QLatin1Char(' '), true) + name;
}

QString FileInfo::commandLineDescriptions()
{
    QStringList lines;
    for (const File file : validKinds())
        lines += info(file).commandLineDescription();
    return lines.join(QLatin1Char('\n'));
}

StdOutput &operator<<(StdOutput &output, File file)
{
    const FileInfo &info = FileInfo::info(file);
    return output
        << QCoreApplication::translate("file", "%1(%2)").arg(info.name, QString::number(static_cast<int>(info.file)));
}
