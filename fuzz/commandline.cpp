// What a user may type: file kinds and log masks, compared with a plain reading of what they mean. A whole command line
// only has to be survived; the framework takes it apart.

#define main jvxLoaderMain // NOLINT: for the functions of main.cpp, without its main()
#include "main.cpp"
#undef main

#include "target.h"

#include <array>
#include <cctype>
#include <optional>
#include <string>
#include <string_view>

namespace {

/// \a text without the white space around it.
std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view white_space = " \t\n\v\f\r";
    const auto begin = text.find_first_not_of(white_space);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(white_space) + 1 - begin);
}

int digit(char character)
{
    const int lower = std::tolower(static_cast<unsigned char>(character));
    if (lower >= '0' && lower <= '9')
        return lower - '0';
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : 16;
}

/// The number that \a text stands for, up to 2^40 either way; nothing if it is none.
std::optional<std::int64_t> numberOf(std::string_view text, int base)
{
    text = trimmed(text);
    bool is_negative = false;
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
        is_negative = text[0] == '-';
        text.remove_prefix(1);
    }
    if (base == 16 && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text.remove_prefix(2);
    if (text.empty())
        return {};
    std::int64_t value = 0;
    for (const char character : text) {
        if (digit(character) >= base)
            return {};
        value = std::min<std::int64_t>(value * base + digit(character), std::int64_t{1} << 40);
    }
    return is_negative ? -value : value;
}

/// The kind that \a text stands for, 255 if it stands for none.
int kindOf(std::string_view text)
{
    constexpr std::array<std::string_view, 12> keys{"settings", "firmware", "keys", "road-acc", "can-decode",
        "tachograph-ddd", "fls-firmware", "complexevents", "fls-archive", "can-scripts", "epo", "user-firmware"};
    const std::optional<std::int64_t> number = numberOf(text, 10);
    if (number && !trimmed(text).starts_with('-') && *number <= 0xFFFFFFFF)
        return *number % 256 < 12 ? static_cast<int>(*number % 256) : 255;
    const auto *const found = std::find(keys.begin(), keys.end(), text);
    return found == keys.end() ? 255 : static_cast<int>(found - keys.begin());
}

std::optional<quint32> maskOf(std::string_view text)
{
    const std::optional<std::int64_t> number = numberOf(text, 16);
    if (!number || *number < -0x80000000LL || *number > 0x7FFFFFFF)
        return {};
    return static_cast<quint32>(*number);
}

void checkText(const QByteArray &bytes)
{
    const QString text = QString::fromUtf8(bytes);
    const FileInfo &info = FileInfo::info(text);
    require(static_cast<int>(info.file) < 12 || &info == &FileInfo::unknown, "a kind is valid or the unknown one");
    require(&FileInfo::info(info.file) == &info, "a kind has one description");
    const std::optional<quint32> mask = logMask(text);
    const auto is_ascii = [](char byte) { return byte > 0; };
    if (!std::all_of(bytes.begin(), bytes.end(), is_ascii))
        return;
    const std::string_view ascii(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    require(static_cast<int>(info.file) == kindOf(ascii), "a kind is what its key or number says");
    require(mask == maskOf(ascii), "a mask is the number that it says");
}

void checkLine(const QByteArrayList &arguments)
{
    static CommandLine line;
    QStringList texts{QStringLiteral("jvx-loader")};
    for (const QByteArray &argument : arguments)
        texts.append(QString::fromUtf8(argument));
    line.parse(texts);
    require(line.isSet(line._file) || line.value(line._file) == QStringLiteral("11"), "no kind is kind 11");
    line.positionalArguments();
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArrayList arguments = Input(data, size).rest().split('\0');
    for (const QByteArray &argument : arguments)
        checkText(argument);
    checkLine(arguments);
    return 0;
}
