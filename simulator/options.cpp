#include "options.h"

#include <QCommandLineParser>

#include <limits>

namespace {

// A body is 65535 bytes at most; 65000 leave room for what goes before the data.
constexpr qsizetype longest_data = 65000;
constexpr qsizetype longest_text = 1000; // an answer holds up to four of them

// Garbage much longer than any packet tests nothing more.
constexpr qsizetype longest_garbage = 65535;

/// The value N, "random" or "every" of --split.
void setSplit(FaultSettings &settings, const Value &value)
{
    settings.splits_at_random = value.text() == QStringLiteral("random");
    if (settings.splits_at_random)
        settings.split_size = 0;
    else
        settings.split_size = value.text() == QStringLiteral("every") ? 1 : value.oneIn();
}

struct Option {
    const char *name;
    const char *value_name; ///< empty: the option takes no value
    const char *help;
    void (*set)(Options &options, const Value &value); ///< called for every time the option is given
};

struct Group {
    const char *title;
    QList<Option> options;
};

using O = Options;
using V = Value;

/// All options, in the order in which --help lists them. They are also applied in this order, so that --log-rate
/// overrides the rate that --log sets.
const QList<Group> groups{
    {"Port",
        {
            {"link", "path", "Name of the serial port: a symbolic link to make. Required.",
                [](O &o, const V &v) { o.link = v.text(); }},
            {"until-eof", "", "End when standard input ends.", [](O &o, const V &) { o.until_eof = true; }},
            {"record", "path", "Append every packet received to this file, in hexadecimal.",
                [](O &o, const V &v) { o.record = v.text(); }},
        }},
    {"Identity",
        {
            {"name", "text", "Software name.", [](O &o, const V &v) { o.terminal.name = v.text(longest_text); }},
            {"software-version", "text", "Software version.",
                [](O &o, const V &v) { o.terminal.software_version = v.text(longest_text); }},
            {"next-version", "text", "Software version after an apply of firmware, by default the same as before.",
                [](O &o, const V &v) { o.terminal.next_software_version = v.text(longest_text); }},
            {"date", "text", "Software date.", [](O &o, const V &v) { o.terminal.date = v.text(longest_text); }},
            {"language", "text", "Software language.",
                [](O &o, const V &v) { o.terminal.language = v.text(longest_text); }},
            {"bhr", "hex", "Hardware version word.", [](O &o, const V &v) { o.terminal.bhr = v.hexNumber(); }},
            {"imei", "text", "Serial number.", [](O &o, const V &v) { o.terminal.imei = v.text(longest_text); }},
            {"mask", "hex", "Log mask after power-up.", [](O &o, const V &v) { o.terminal.mask = v.mask(); }},
        }},
    {"Files",
        {
            {"files", "path",
                "Directory of the terminal's files, each named by its kind (\"settings\", ...); without it there "
                "are built-in ones, in memory.",
                [](O &o, const V &v) { o.terminal.transfers.directory = v.directory(); }},
            {"accept", "bytes", "Accept at most so much of each piece written.",
                [](O &o, const V &v) { o.terminal.transfers.accept = v.number(0, FileTransfers::piece_size); }},
            {"piece", "bytes", "Serve pieces of this size, default 512.",
                [](O &o, const V &v) { o.terminal.transfers.piece = v.number(0, longest_data); }},
            {"announce", "bytes", "Full size to tell instead of the true one.",
                [](O &o, const V &v) { o.terminal.transfers.announced = v.word(); }},
            {"status", "key:n=hex",
                "Refuse the Nth request of this key (FR, FW, FU), counted from 1 on, with this status. Repeatable.",
                [](O &o, const V &v) {
                    const auto [request, status] = v.split('=');
                    o.terminal.statuses.insert(request.requestNumber(), status.byte());
                }},
            {"foreign", "key:n",
                "Precede the answer to the Nth request of this key (FR, FW, FU), counted from 1 on, with one for "
                "another kind of file. Repeatable.",
                [](O &o, const V &v) { o.terminal.foreign_answers.insert(v.requestNumber()); }},
        }},
    {"Answers",
        {
            {"answer", "key=hex", "Answer requests of this key with this payload. Repeatable.",
                [](O &o, const V &v) {
                    const auto [key, payload] = v.split('=');
                    o.terminal.fixed_answers.insert(key.key(), payload.bytes(longest_data));
                }},
            {"silent", "key", "Never answer requests of this key. Repeatable.",
                [](O &o, const V &v) { o.terminal.silent_keys.insert(v.key()); }},
            {"vanish", "key", "Drop off the bus on requests of this key. Repeatable.",
                [](O &o, const V &v) { o.terminal.vanishing_keys.insert(v.key()); }},
            {"mask-reply", "hex", "Log mask to tell in answers, whatever was set.",
                [](O &o, const V &v) { o.terminal.reported_mask = v.mask(); }},
        }},
    {"Log",
        {
            {"log", "path", "File whose lines are the texts to log, once through, in place of the built-in ones.",
                [](O &o, const V &v) {
                    o.terminal.log.texts = v.linesOfFile(longest_data);
                    o.terminal.log.period = std::chrono::milliseconds(100);
                }},
            {"log-rate", "number",
                "Log records to send per second while the mask lets any through; \"max\": as many as the line "
                "takes. Default: 10 with --log, otherwise none.",
                [](O &o, const V &v) { o.terminal.log.period = v.periodOfRate(); }},
            {"log-count", "number", "Log records to send in all.",
                [](O &o, const V &v) { o.terminal.log.count = v.number(0, std::numeric_limits<qsizetype>::max()); }},
            {"log-start", "seconds", "Time of the first log record, since 1970. Default: now.",
                [](O &o, const V &v) { o.terminal.log.start = v.word(); }},
            {"log-always", "",
                "Send the log irrespective of the mask, from the first byte received on, and a record directly "
                "before and after every answer.",
                [](O &o, const V &) { o.terminal.logs_always = true; }},
        }},
    {"Restart",
        {
            {"restart", "seconds", "Time off the bus before coming back, default 1.5.",
                [](O &o, const V &v) { o.restart_time = v.seconds(); }},
            {"drop-at", "n[:before|after]",
                "Drop off the bus at the Nth packet received, counted from 1 on, before (default) or after "
                "answering it.",
                [](O &o, const V &v) { o.terminal.drop = v.dropPoint(); }},
            {"no-return", "", "Never come back once dropped off the bus.", [](O &o, const V &) { o.returns = false; }},
            {"restart-before-answer", "", "Answer the apply of firmware only by a restart, one second later.",
                [](O &o, const V &) { o.terminal.restarts_before_firmware_answer = true; }},
            {"restart-junk", "hex", "Bytes to send just before dropping off the bus.",
                [](O &o, const V &v) { o.terminal.last_bytes = v.bytes(); }},
        }},
    {"Faults",
        {
            {"seed", "number", "Seed of everything below that is left to chance, default 1.",
                [](O &o, const V &v) { o.faults.seed = v.word(); }},
            {"latency", "ms", "Delay every answer.", [](O &o, const V &v) { o.faults.latency = v.milliseconds(); }},
            {"split", "n|random|every",
                "Write answers in pieces of so many bytes, of random sizes or byte by byte (every), with a short "
                "pause between them.",
                [](O &o, const V &v) { setSplit(o.faults, v); }},
            {"garbage", "bytes",
                "Precede every packet with 1 to so many random bytes, sometimes holding \"@JVX\" or a part of it.",
                [](O &o, const V &v) { o.faults.garbage = static_cast<int>(v.number(1, longest_garbage)); }},
            {"damage-header", "n", "Flip a bit in the header of one in N packets.",
                [](O &o, const V &v) { o.faults.damaged_headers = v.oneIn(); }},
            {"damage-body", "n", "Flip a bit in the body of one in N packets.",
                [](O &o, const V &v) { o.faults.damaged_bodies = v.oneIn(); }},
            {"lose", "n", "Lose one in N answers.", [](O &o, const V &v) { o.faults.lost = v.oneIn(); }},
            {"duplicate", "n", "Send one in N answers twice.",
                [](O &o, const V &v) { o.faults.duplicated = v.oneIn(); }},
            {"late", "n:ms", "Delay one in N answers by so much more.",
                [](O &o, const V &v) {
                    const auto [count, delay] = v.split(':');
                    o.faults.late = count.oneIn();
                    o.faults.lateness = delay.milliseconds();
                }},
            {"foreign-rate", "n", "Precede one in N answers about files with one for another kind.",
                [](O &o, const V &v) { o.terminal.foreign_rate = v.oneIn(); }},
            {"error-rate", "n", "Refuse one in N requests for files with an error status.",
                [](O &o, const V &v) { o.terminal.error_rate = v.oneIn(); }},
        }},
};

QString latin(const char *text)
{
    return QString::fromLatin1(text);
}

/// Sets what was given for \a option, every value of it in turn.
void setOption(Options &options, const Option &option, const QCommandLineParser &parser)
{
    const QString name = latin(option.name);
    const QStringList values
        = *option.value_name == '\0' ? QStringList(parser.isSet(name) ? 1 : 0) : parser.values(name);
    for (const QString &value : values)
        option.set(options, {name, value});
}

/// \a text in lines of 80 columns, all of them but the first behind \a indent blanks.
QString wrapped(const QString &text, qsizetype indent)
{
    constexpr qsizetype width = 80;
    QString lines;
    qsizetype column = indent;
    for (const QString &word : text.split(QLatin1Char(' '))) {
        if (column + word.size() > width) {
            lines += QLatin1Char('\n') + QString(indent, QLatin1Char(' '));
            column = indent;
        }
        lines += word + QLatin1Char(' ');
        column += word.size() + 1;
    }
    return lines.replace(QStringLiteral(" \n"), QStringLiteral("\n")).trimmed();
}

QString helpOf(const Option &option)
{
    constexpr qsizetype indent = 30;
    QString head = QStringLiteral("  --") + latin(option.name);
    if (*option.value_name != '\0')
        head += QStringLiteral(" <%1>").arg(latin(option.value_name));
    head = head.size() < indent ? head.leftJustified(indent)
                                : head + QLatin1Char('\n') + QString(indent, QLatin1Char(' '));
    return head + wrapped(latin(option.help), indent) + QLatin1Char('\n');
}

QString helpText()
{
    QString text = QStringLiteral("Usage: jvx-simulator --link <path> [options]\n\n"
                                  "Simulated vehicle telematics terminal on a pseudo-terminal. Once it can be\n"
                                  "opened it says so on standard output. It runs until it is sent SIGINT, SIGTERM\n"
                                  "or SIGHUP.\n");
    for (const Group &group : groups) {
        text += QStringLiteral("\n%1:\n").arg(latin(group.title));
        for (const Option &option : group.options)
            text += helpOf(option);
    }
    return text
        + QStringLiteral("\nAbout:\n"
                         "  -h, --help                  Show this help.\n"
                         "  -v, --version               Show the version.\n"
                         "\n"
                         "Keys of requests:\n"
                         "  V    software version     FR  read a piece of a file\n"
                         "  H    hardware version     FW  write a piece of a file\n"
                         "  S    serial number        FU  apply the file written\n"
                         "  LOG  set the log mask\n"
                         "\n"
                         "Exit codes:\n"
                         "  0  ended, all requests made sense\n"
                         "  1  ended, a malformed or misplaced request was reported on standard error\n"
                         "  2  could not start or go on; the reason is on standard error\n"
                         "\n"
                         "Examples:\n"
                         "  jvx-simulator --link /tmp/terminal --log-rate 2\n"
                         "      A terminal with built-in files that logs two records a second.\n"
                         "  jvx-simulator --link /tmp/terminal --status FW:3=02 --silent FU\n"
                         "      One that refuses the third piece of a write with error 2, and never\n"
                         "      answers when a file is to be applied.\n");
}

} // namespace

Options parseOptions(const QStringList &arguments)
{
    QCommandLineParser parser;
    const QCommandLineOption help(QStringList{QStringLiteral("h"), QStringLiteral("help")});
    const QCommandLineOption version(QStringList{QStringLiteral("v"), QStringLiteral("version")});
    parser.addOptions({help, version});
    for (const Group &group : groups) {
        for (const Option &option : group.options)
            parser.addOption({latin(option.name), {}, latin(option.value_name)});
    }

    Options options;
    if (!parser.parse(arguments))
        throw UsageError(parser.errorText());
    if (parser.isSet(help)) {
        options.action = Options::Action::ShowHelp;
        options.help = helpText();
        return options;
    }
    if (parser.isSet(version)) {
        options.action = Options::Action::ShowVersion;
        return options;
    }
    if (!parser.positionalArguments().isEmpty())
        throw UsageError(QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().first()));

    for (const Group &group : groups) {
        for (const Option &option : group.options)
            setOption(options, option, parser);
    }
    if (options.link.isEmpty())
        throw UsageError(QStringLiteral("option --link is required"));
    // With the same seed the faults of the terminal would coincide with those of the line.
    options.terminal.seed = ~options.faults.seed;
    return options;
}
