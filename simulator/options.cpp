#include "options.h"

#include <QCommandLineParser>
#include <QFile>
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
    const QString one_in = QStringLiteral("n");
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
        {QStringLiteral("mask-reply"), QStringLiteral("Log mask to tell in answers, whatever was set."), hex},

        {QStringLiteral("log-rate"),
            QStringLiteral("Log records to send per second while the mask lets any through; \"max\": as many as the "
                           "line takes. Default: 10 with --log, otherwise none."),
            QStringLiteral("number")},
        {QStringLiteral("log-count"), QStringLiteral("Log records to send in all."), QStringLiteral("number")},
        {QStringLiteral("log"),
            QStringLiteral("File whose lines are the texts to log, once through, in place of the built-in ones."),
            path},
        {QStringLiteral("log-start"), QStringLiteral("Time of the first log record, since 1970. Default: now."),
            QStringLiteral("seconds")},
        {QStringLiteral("log-always"),
            QStringLiteral("Send the log irrespective of the mask, from the first byte received on, and a record "
                           "directly before and after every answer.")},

        {QStringLiteral("restart"), QStringLiteral("Time off the bus before coming back, default 1.5."),
            QStringLiteral("seconds")},
        {QStringLiteral("drop-at"),
            QStringLiteral("Drop off the bus at the Nth packet received, before (default) or after answering it."),
            QStringLiteral("n[:before|after]")},
        {QStringLiteral("no-return"), QStringLiteral("Never come back once dropped off the bus.")},
        {QStringLiteral("restart-before-answer"),
            QStringLiteral("Answer the apply of firmware only by a restart, one second later.")},
        {QStringLiteral("restart-junk"), QStringLiteral("Bytes to send just before dropping off the bus."), hex},

        {QStringLiteral("seed"), QStringLiteral("Seed of everything below that is left to chance, default 1."),
            QStringLiteral("number")},
        {QStringLiteral("latency"), QStringLiteral("Delay every answer."), QStringLiteral("ms")},
        {QStringLiteral("split"),
            QStringLiteral("Write answers in pieces of so many bytes, of random sizes or byte by byte (every), with a "
                           "short pause between them."),
            QStringLiteral("n|random|every")},
        {QStringLiteral("garbage"),
            QStringLiteral("Precede every packet with 1 to so many random bytes, sometimes holding \"@JVX\" or a part "
                           "of it."),
            bytes},
        {QStringLiteral("damage-header"), QStringLiteral("Flip a bit in the header of one in N packets."), one_in},
        {QStringLiteral("damage-body"), QStringLiteral("Flip a bit in the body of one in N packets."), one_in},
        {QStringLiteral("lose"), QStringLiteral("Lose one in N answers."), one_in},
        {QStringLiteral("duplicate"), QStringLiteral("Send one in N answers twice."), one_in},
        {QStringLiteral("late"), QStringLiteral("Delay one in N answers by so much more."), QStringLiteral("n:ms")},
        {QStringLiteral("foreign-rate"),
            QStringLiteral("Precede one in N answers about files with one for another kind."), one_in},
        {QStringLiteral("error-rate"), QStringLiteral("Refuse one in N requests for files with an error status."),
            one_in},
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

    /// The option's text, \a fallback when the option is not given.
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

    [[nodiscard]] quint32 mask(const QString &name, quint32 fallback) const
    {
        return static_cast<quint32>(hexNumber(name, fallback, std::numeric_limits<quint32>::max()));
    }

    [[nodiscard]] qsizetype number(const QString &name, qsizetype fallback, qsizetype minimum, qsizetype maximum) const
    {
        return isSet(name) ? numberIn(name, _parser.value(name), minimum, maximum) : fallback;
    }

    /// Time from one to the next for so many a second; zero for "max".
    [[nodiscard]] std::chrono::nanoseconds periodOfRate(const QString &name) const
    {
        if (_parser.value(name) == QStringLiteral("max"))
            return std::chrono::nanoseconds::zero();
        constexpr double slowest = 0.001;
        constexpr double fastest = 1000000;
        bool valid = false;
        const double rate = _parser.value(name).toDouble(&valid);
        if (!valid || !(rate >= slowest && rate <= fastest))
            throw bad(name, _parser.value(name));
        return std::chrono::nanoseconds(qRound64(1e9 / rate));
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

    [[nodiscard]] quint32 seed() const
    {
        return static_cast<quint32>(number(QStringLiteral("seed"), 1, 0, std::numeric_limits<quint32>::max()));
    }

    /// The N of "one in N", 0 when the option is not given.
    [[nodiscard]] int oneIn(const QString &name) const
    {
        return static_cast<int>(number(name, 0, 1, std::numeric_limits<int>::max()));
    }

    [[nodiscard]] std::chrono::milliseconds milliseconds(const QString &name) const
    {
        return std::chrono::milliseconds(number(name, 0, 0, longest_delay));
    }

    /// The value of the form N:MS of --late.
    void readLateness(FaultSettings &settings) const
    {
        const QString name = QStringLiteral("late");
        if (!isSet(name))
            return;
        const auto [count, delay] = split(name, text(name), QLatin1Char(':'));
        settings.late = static_cast<int>(numberIn(name, count, 1, std::numeric_limits<int>::max()));
        settings.lateness = std::chrono::milliseconds(numberIn(name, delay, 0, longest_delay));
    }

    /// The value of the form N, "random" or "every" of --split.
    void readSplit(FaultSettings &settings) const
    {
        const QString name = QStringLiteral("split");
        settings.splits_at_random = text(name) == QStringLiteral("random");
        if (text(name) == QStringLiteral("every"))
            settings.split_size = 1;
        else if (!settings.splits_at_random)
            settings.split_size = oneIn(name);
    }

    /// The value of the form N[:before|after] of --drop-at.
    [[nodiscard]] DropPoint dropPoint(const QString &name) const
    {
        if (!isSet(name))
            return {};
        const QStringList parts = text(name).split(QLatin1Char(':'));
        const QString moment = parts.value(1, QStringLiteral("before"));
        const bool after_answer = moment == QStringLiteral("after");
        if (parts.size() > 2 || (!after_answer && moment != QStringLiteral("before")))
            throw bad(name, text(name));
        return {static_cast<int>(numberIn(name, parts.first(), 1, std::numeric_limits<int>::max())), after_answer};
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
    static constexpr qsizetype longest_delay = 86400000; // ms

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
        QByteArray key = value.toUtf8();
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
        QByteArray decoded = QByteArray::fromHex(hex.toLatin1());
        if (decoded.toHex() != hex.toLatin1().toLower())
            throw bad(name, hex);
        return decoded;
    }

    const QCommandLineParser &_parser;
};

// A body is 65535 bytes at most; 65000 leave room for what goes before the data.
constexpr qsizetype longest_data = 65000;

TransferSettings transferSettings(const Values &values)
{
    TransferSettings settings;
    settings.directory = values.text(QStringLiteral("files"));
    if (!settings.directory.isEmpty() && !QFileInfo(settings.directory).isDir())
        throw UsageError(QStringLiteral("'%1' is not a directory").arg(settings.directory));
    settings.accept = values.number(QStringLiteral("accept"), settings.accept, 0, FileTransfers::piece_size);
    settings.piece = values.number(QStringLiteral("piece"), settings.piece, 0, longest_data);
    if (values.isSet(QStringLiteral("announce")))
        settings.announced = static_cast<quint32>(
            values.number(QStringLiteral("announce"), 0, 0, std::numeric_limits<quint32>::max()));
    return settings;
}

/// The lines of a file without their line ends.
QByteArrayList linesOf(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw UsageError(QStringLiteral("cannot open '%1': %2").arg(path, file.errorString()));
    QByteArrayList lines;
    while (!file.atEnd()) {
        QByteArray line = file.readLine();
        if (line.endsWith('\n'))
            line.chop(1);
        if (line.size() > longest_data)
            throw UsageError(QStringLiteral("line too long in '%1'").arg(path));
        lines.append(line);
    }
    return lines;
}

LogSettings logSettings(const Values &values)
{
    LogSettings settings;
    if (values.isSet(QStringLiteral("log"))) {
        settings.texts = linesOf(values.text(QStringLiteral("log")));
        settings.period = std::chrono::milliseconds(100);
    }
    if (values.isSet(QStringLiteral("log-rate")))
        settings.period = values.periodOfRate(QStringLiteral("log-rate"));
    if (values.isSet(QStringLiteral("log-count")))
        settings.count = values.number(QStringLiteral("log-count"), 0, 0, std::numeric_limits<qsizetype>::max());
    if (values.isSet(QStringLiteral("log-start")))
        settings.start = static_cast<quint32>(
            values.number(QStringLiteral("log-start"), 0, 0, std::numeric_limits<quint32>::max()));
    return settings;
}

TerminalSettings terminalSettings(const Values &values)
{
    TerminalSettings settings;
    settings.name = values.text(QStringLiteral("name"), settings.name);
    settings.software_version = values.text(QStringLiteral("software-version"), settings.software_version);
    settings.date = values.text(QStringLiteral("date"), settings.date);
    settings.language = values.text(QStringLiteral("language"), settings.language);
    settings.bhr = values.hexNumber(QStringLiteral("bhr"), settings.bhr, std::numeric_limits<quint64>::max());
    settings.imei = values.text(QStringLiteral("imei"), settings.imei);
    settings.mask = values.mask(QStringLiteral("mask"), settings.mask);
    if (values.isSet(QStringLiteral("mask-reply")))
        settings.reported_mask = values.mask(QStringLiteral("mask-reply"), 0);
    settings.log = logSettings(values);
    settings.logs_always = values.isSet(QStringLiteral("log-always"));
    settings.transfers = transferSettings(values);
    settings.statuses = values.statuses(QStringLiteral("status"));
    settings.foreign_answers = values.requestNumbers(QStringLiteral("foreign"));
    settings.seed = ~values.seed(); // so that what befalls requests does not go along with what befalls the line
    settings.error_rate = values.oneIn(QStringLiteral("error-rate"));
    settings.foreign_rate = values.oneIn(QStringLiteral("foreign-rate"));
    settings.drop = values.dropPoint(QStringLiteral("drop-at"));
    settings.restarts_before_firmware_answer = values.isSet(QStringLiteral("restart-before-answer"));
    settings.last_bytes = values.bytes(QStringLiteral("restart-junk"));
    settings.fixed_answers = values.payloads(QStringLiteral("answer"));
    settings.silent_keys = values.keys(QStringLiteral("silent"));
    settings.vanishing_keys = values.keys(QStringLiteral("vanish"));
    return settings;
}

FaultSettings faultSettings(const Values &values)
{
    // Garbage much longer than any packet tests nothing more.
    constexpr qsizetype longest_garbage = 65535;

    FaultSettings settings;
    settings.seed = values.seed();
    settings.latency = values.milliseconds(QStringLiteral("latency"));
    values.readSplit(settings);
    settings.garbage = static_cast<int>(values.number(QStringLiteral("garbage"), 0, 1, longest_garbage));
    settings.damaged_headers = values.oneIn(QStringLiteral("damage-header"));
    settings.damaged_bodies = values.oneIn(QStringLiteral("damage-body"));
    settings.lost = values.oneIn(QStringLiteral("lose"));
    settings.duplicated = values.oneIn(QStringLiteral("duplicate"));
    values.readLateness(settings);
    return settings;
}

} // namespace

Options parseOptions(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Simulated vehicle telematics terminal on a pseudo-terminal."));
    const QCommandLineOption help_option = parser.addHelpOption();
    const QCommandLineOption version_option = parser.addVersionOption();
    parser.addOptions(knownOptions());

    Options options;
    if (!parser.parse(arguments))
        throw UsageError(parser.errorText());
    if (parser.isSet(help_option)) {
        options.action = Options::Action::ShowHelp;
        options.help = parser.helpText();
        return options;
    }
    if (parser.isSet(version_option)) {
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
    options.until_eof = values.isSet(QStringLiteral("until-eof"));
    options.restart_time = values.seconds(QStringLiteral("restart"), options.restart_time);
    options.returns = !values.isSet(QStringLiteral("no-return"));
    options.terminal = terminalSettings(values);
    options.faults = faultSettings(values);
    return options;
}
