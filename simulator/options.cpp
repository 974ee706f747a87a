#include "options.h"

#include <QCommandLineParser>
#include <QFileInfo>

#include <limits>
#include <utility>

namespace {

/// The options and their help, in the order in which --help lists them.
QList<QCommandLineOption> knownOptions()
{
    const QString text = QStringLiteral("text");
    const QString hex = QStringLiteral("hex");
    const QString key = QStringLiteral("key");
    const QString path = QStringLiteral("path");
    const QString bytes = QStringLiteral("bytes");
    return {
        {QStringLiteral("link"), QStringLiteral("Name of the serial port: a symbolic link to make. Required."), path},
        {QStringLiteral("until-eof"), QStringLiteral("End when standard input ends.")},
        {QStringLiteral("record"), QStringLiteral("Append every packet received to this file, in hexadecimal."), path},

        {QStringLiteral("name"), QStringLiteral("Software name."), text},
        {QStringLiteral("software-version"), QStringLiteral("Software version."), text},
        {QStringLiteral("date"), QStringLiteral("Software date."), text},
        {QStringLiteral("language"), QStringLiteral("Software language."), text},
        {QStringLiteral("bhr"), QStringLiteral("Hardware version word."), hex},
        {QStringLiteral("imei"), QStringLiteral("Serial number."), text},
        {QStringLiteral("mask"), QStringLiteral("Log mask after power-up."), hex},

        {QStringLiteral("files"),
            QStringLiteral("Directory of the terminal's files, each named by its kind (\"settings\", ...); "
                           "without it there are built-in ones, in memory."),
            path},
        {QStringLiteral("accept"), QStringLiteral("Accept at most so much of each piece written."), bytes},
        {QStringLiteral("piece"), QStringLiteral("Serve pieces of this size, default 512."), bytes},
        {QStringLiteral("announce"), QStringLiteral("Full size to tell instead of the true one."), bytes},
        {QStringLiteral("status"),
            QStringLiteral("Refuse the Nth request of this key (FR, FW, FU) with this status. Repeatable."),
            QStringLiteral("key:n=hex")},
        {QStringLiteral("foreign"),
            QStringLiteral("Precede the answer to the Nth request of this key (FR, FW, FU) with one for another "
                           "kind of file. Repeatable."),
            QStringLiteral("key:n")},

        {QStringLiteral("answer"), QStringLiteral("Answer requests of this key with this payload. Repeatable."),
            QStringLiteral("key=hex")},
        {QStringLiteral("silent"), QStringLiteral("Never answer requests of this key. Repeatable."), key},
        {QStringLiteral("vanish"), QStringLiteral("Drop off the bus on requests of this key. Repeatable."), key},
        {QStringLiteral("restart"), QStringLiteral("Time off the bus before coming back, default 1.5."),
            QStringLiteral("seconds")},
        {QStringLiteral("no-return"), QStringLiteral("Never come back once dropped off the bus.")},
        {QStringLiteral("restart-before-answer"), QStringLiteral("Restart without answering the apply of firmware.")},
        {QStringLiteral("restart-junk"), QStringLiteral("Bytes to send just before dropping off the bus."), hex},
    };
}

/// Values of a parsed command line; a value that makes no sense throws UsageError.
class Values {
public:
    explicit Values(const QCommandLineParser &parser)
        : _parser(parser)
    {
    }

    [[nodiscard]] bool isSet(const QString &name) const { return _parser.isSet(name); }

    /// The option's text, @a fallback when the option is not given.
    [[nodiscard]] QString text(const QString &name, const QString &fallback = {}) const
    {
        return isSet(name) ? _parser.value(name) : fallback;
    }

    [[nodiscard]] quint64 hexNumber(const QString &name, quint64 fallback, quint64 maximum) const
    {
        if (!isSet(name))
            return fallback;
        bool valid = false;
        const quint64 number = _parser.value(name).toULongLong(&valid, 16);
        if (!valid || number > maximum)
            throw bad(name, _parser.value(name));
        return number;
    }

    [[nodiscard]] qsizetype number(const QString &name, qsizetype fallback, qsizetype minimum, qsizetype maximum) const
    {
        return isSet(name) ? numberIn(name, _parser.value(name), minimum, maximum) : fallback;
    }

    [[nodiscard]] std::chrono::milliseconds seconds(const QString &name, std::chrono::milliseconds fallback) const
    {
        if (!isSet(name))
            return fallback;
        bool valid = false;
        const double number = _parser.value(name).toDouble(&valid);
        constexpr double longest = 86400;
        if (!valid || !(number >= 0 && number <= longest))
            throw bad(name, _parser.value(name));
        return std::chrono::milliseconds(qRound64(number * 1000));
    }

    [[nodiscard]] QSet<QByteArray> keys(const QString &name) const
    {
        QSet<QByteArray> keys;
        for (const QString &value : _parser.values(name))
            keys.insert(keyAmong(Terminal::keys(), name, value));
        return keys;
    }

    /// Values of the form KEY=HEX.
    [[nodiscard]] QHash<QByteArray, QByteArray> payloads(const QString &name) const
    {
        QHash<QByteArray, QByteArray> payloads;
        for (const QString &value : _parser.values(name)) {
            const auto [key, hex] = split(name, value, QLatin1Char('='));
            payloads.insert(keyAmong(Terminal::keys(), name, key), bytesOf(name, hex));
        }
        return payloads;
    }

    [[nodiscard]] QByteArray bytes(const QString &name) const { return bytesOf(name, text(name)); }

    /// Values of the form KEY:N, the key one about files.
    [[nodiscard]] QSet<RequestNumber> requestNumbers(const QString &name) const
    {
        QSet<RequestNumber> numbers;
        for (const QString &value : _parser.values(name))
            numbers.insert(requestNumber(name, value));
        return numbers;
    }

    /// Values of the form KEY:N=HEX, the key one about files, a single byte.
    [[nodiscard]] QHash<RequestNumber, quint8> statuses(const QString &name) const
    {
        QHash<RequestNumber, quint8> statuses;
        for (const QString &value : _parser.values(name)) {
            const auto [number, hex] = split(name, value, QLatin1Char('='));
            const QByteArray status = bytesOf(name, hex);
            if (status.size() != 1)
                throw bad(name, value);
            statuses.insert(requestNumber(name, number), static_cast<quint8>(status.front()));
        }
        return statuses;
    }

private:
    static UsageError bad(const QString &name, const QString &value)
    {
        return UsageError(QStringLiteral("bad value '%1' of option --%2").arg(value, name));
    }

    static std::pair<QString, QString> split(const QString &name, const QString &value, QLatin1Char separator)
    {
        const qsizetype position = value.indexOf(separator);
        if (position < 0)
            throw bad(name, value);
        return {value.first(position), value.sliced(position + 1)};
    }

    static QByteArray keyAmong(const QList<QByteArray> &keys, const QString &name, const QString &value)
    {
        const QByteArray key = value.toUtf8();
        if (!keys.contains(key))
            throw bad(name, value);
        return key;
    }

    static qsizetype numberIn(const QString &name, const QString &value, qsizetype minimum, qsizetype maximum)
    {
        bool valid = false;
        const qsizetype number = value.toLongLong(&valid);
        if (!valid || number < minimum || number > maximum)
            throw bad(name, value);
        return number;
    }

    static RequestNumber requestNumber(const QString &name, const QString &value)
    {
        const auto [key, number] = split(name, value, QLatin1Char(':'));
        return {keyAmong(Terminal::fileKeys(), name, key),
            static_cast<int>(numberIn(name, number, 1, std::numeric_limits<int>::max()))};
    }

    /// Bytes written as pairs of hexadecimal digits; QByteArray::fromHex would skip what is none.
    static QByteArray bytesOf(const QString &name, const QString &hex)
    {
        const QByteArray decoded = QByteArray::fromHex(hex.toLatin1());
        if (decoded.toHex() != hex.toLatin1().toLower())
            throw bad(name, hex);
        return decoded;
    }

    const QCommandLineParser &_parser;
};

TransferSettings transferSettings(const Values &values)
{
    // A body is 65535 bytes at most; 65000 leave room for what goes before the data.
    constexpr qsizetype longestPiece = 65000;

    TransferSettings settings;
    settings.directory = values.text(QStringLiteral("files"));
    if (!settings.directory.isEmpty() && !QFileInfo(settings.directory).isDir())
        throw UsageError(QStringLiteral("'%1' is not a directory").arg(settings.directory));
    settings.accept = values.number(QStringLiteral("accept"), settings.accept, 0, FileTransfers::pieceSize);
    settings.piece = values.number(QStringLiteral("piece"), settings.piece, 0, longestPiece);
    if (values.isSet(QStringLiteral("announce")))
        settings.announced = static_cast<quint32>(
            values.number(QStringLiteral("announce"), 0, 0, std::numeric_limits<quint32>::max()));
    return settings;
}

TerminalSettings terminalSettings(const Values &values)
{
    TerminalSettings settings;
    settings.name = values.text(QStringLiteral("name"), settings.name);
    settings.softwareVersion = values.text(QStringLiteral("software-version"), settings.softwareVersion);
    settings.date = values.text(QStringLiteral("date"), settings.date);
    settings.language = values.text(QStringLiteral("language"), settings.language);
    settings.bhr = values.hexNumber(QStringLiteral("bhr"), settings.bhr, std::numeric_limits<quint64>::max());
    settings.imei = values.text(QStringLiteral("imei"), settings.imei);
    settings.mask = static_cast<quint32>(
        values.hexNumber(QStringLiteral("mask"), settings.mask, std::numeric_limits<quint32>::max()));
    settings.transfers = transferSettings(values);
    settings.statuses = values.statuses(QStringLiteral("status"));
    settings.foreignAnswers = values.requestNumbers(QStringLiteral("foreign"));
    settings.restartsBeforeFirmwareAnswer = values.isSet(QStringLiteral("restart-before-answer"));
    settings.lastBytes = values.bytes(QStringLiteral("restart-junk"));
    settings.fixedAnswers = values.payloads(QStringLiteral("answer"));
    settings.silentKeys = values.keys(QStringLiteral("silent"));
    settings.vanishingKeys = values.keys(QStringLiteral("vanish"));
    return settings;
}

} // namespace

Options parseOptions(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Simulated vehicle telematics terminal on a pseudo-terminal."));
    const QCommandLineOption helpOption = parser.addHelpOption();
    const QCommandLineOption versionOption = parser.addVersionOption();
    parser.addOptions(knownOptions());

    Options options;
    if (!parser.parse(arguments))
        throw UsageError(parser.errorText());
    if (parser.isSet(helpOption)) {
        options.action = Options::Action::ShowHelp;
        options.help = parser.helpText();
        return options;
    }
    if (parser.isSet(versionOption)) {
        options.action = Options::Action::ShowVersion;
        return options;
    }
    if (!parser.positionalArguments().isEmpty())
        throw UsageError(QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first()));

    const Values values(parser);
    options.link = values.text(QStringLiteral("link"));
    if (options.link.isEmpty())
        throw UsageError(QStringLiteral("option --link is required"));
    options.record = values.text(QStringLiteral("record"));
    options.untilEof = values.isSet(QStringLiteral("until-eof"));
    options.restartTime = values.seconds(QStringLiteral("restart"), options.restartTime);
    options.returns = !values.isSet(QStringLiteral("no-return"));
    options.terminal = terminalSettings(values);
    return options;
}
