#include "options.h"

#include <QCommandLineParser>

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

        {QStringLiteral("answer"), QStringLiteral("Answer requests of this key with this payload. Repeatable."),
            QStringLiteral("key=hex")},
        {QStringLiteral("silent"), QStringLiteral("Never answer requests of this key. Repeatable."), key},
        {QStringLiteral("vanish"), QStringLiteral("Drop off the bus on requests of this key. Repeatable."), key},
        {QStringLiteral("restart"), QStringLiteral("Time off the bus before coming back, default 1.5."),
            QStringLiteral("seconds")},
        {QStringLiteral("no-return"), QStringLiteral("Never come back once dropped off the bus.")},
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
            keys.insert(checkedKey(name, value));
        return keys;
    }

    /// Values of the form KEY=HEX.
    [[nodiscard]] QHash<QByteArray, QByteArray> payloads(const QString &name) const
    {
        QHash<QByteArray, QByteArray> payloads;
        for (const QString &value : _parser.values(name)) {
            const auto [key, hex] = split(name, value, QLatin1Char('='));
            payloads.insert(checkedKey(name, key), bytes(name, hex));
        }
        return payloads;
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

    static QByteArray checkedKey(const QString &name, const QString &value)
    {
        const QByteArray key = value.toUtf8();
        if (!Terminal::keys().contains(key))
            throw bad(name, value);
        return key;
    }

    /// Bytes written as pairs of hexadecimal digits; QByteArray::fromHex would skip what is none.
    static QByteArray bytes(const QString &name, const QString &hex)
    {
        const QByteArray decoded = QByteArray::fromHex(hex.toLatin1());
        if (decoded.toHex() != hex.toLatin1().toLower())
            throw bad(name, hex);
        return decoded;
    }

    const QCommandLineParser &_parser;
};

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
