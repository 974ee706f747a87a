#pragma once

#include <QString>
#include <QStringList>

class StdOutput;

/// The kinds of file that a terminal holds, by the number that stands for them on the wire and on the command line.
/// 0 to 11 are valid; any greater value means that no kind is set.
enum class File : quint8 {
    Settings = 0,
    Firmware = 1,
    Keys = 2,
    RoadAccident = 3,
    CanDecode = 4,
    TachographDdd = 5,
    FlsFirmware = 6,
    ComplexEvents = 7,
    FlsArchive = 8,
    CanScripts = 9,
    Epo = 10,
    UserFirmware = 11,
    Unknown = 255,
};

/// Whether \a file is one of the valid kinds, 0 to 11.
constexpr bool isSet(File file)
{
    return file <= File::UserFirmware;
}

/// What the tool knows of a file kind.
struct FileInfo {
    File file;        ///< the kind described
    QStringList keys; ///< what the user may type for it; each kind has one key
    QString name;     ///< display name

    /// What every failed lookup returns: kind 255, key "unknown", name "Unknown".
    static const FileInfo unknown;

    /// The description of \a file, or \ref unknown for a value above 11. The reference stays valid until process exit.
    static FileInfo const &info(File file);

    /// The description of the kind that a user typed: a decimal number, of which the low 8 bits count ("256" is kind
    /// 0), or a key, case-sensitively. \ref unknown when nothing matches.
    static FileInfo const &info(QString const &text);

    /// The help line of this kind: its number and keys padded or cut to 24 characters, then its name.
    [[nodiscard]] QString commandLineDescription() const;

    /// The help lines of kinds 0 to 11 in this order, separated by "\n".
    static QString commandLineDescriptions();
};

/// Writes the display name and number of \a file, for example "Settings(0)"; any value above 11 as "Unknown(255)".
StdOutput &operator<<(StdOutput &output, File file);
