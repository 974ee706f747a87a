#pragma once

#include <QByteArray>
#include <QString>

#include <concepts>
#include <iostream>

/// One message to the console.
///
/// Fed with operator<<, ended by its destruction; mostly a temporary. Everything the tool says, errors included, goes
/// to the process's standard output in the local 8-bit encoding (QString::toLocal8Bit) and is flushed with the message,
/// so that a pipe sees it at once. Write errors are not reported; output_reader::hasLeft() tells of them.
class StdOutput {
public:
    /// \param new_line true: the destructor ends the line; false: it only flushes, and the next message continues the
    ///        line or, after a carriage return, overwrites it.
    explicit StdOutput(bool new_line = true)
        : _new_line(new_line)
    {
    }

    /// Whether \a T is one of \a Others.
    template <typename T, typename... Others>
    static constexpr bool is_one_of = (std::same_as<T, Others> || ...);

    /// Whether \a T is an integer type whose values are numbers. Those of 8 bits are, in the framework's and the
    /// standard's names, too.
    template <typename T>
    static constexpr bool is_number
        = std::integral<T> && !is_one_of<T, bool, char, wchar_t, char8_t, char16_t, char32_t>;

    StdOutput(const StdOutput &) = delete;
    StdOutput &operator=(const StdOutput &) = delete;

    /// Ends the line if asked to, and flushes. An exception of the stream ends the process.
    ~StdOutput()
    {
        if (_new_line)
            std::cout << std::endl;
        else
            std::cout << std::flush;
    }

    /// Writes \a text in the local 8-bit encoding, up to its first zero character, without flushing.
    StdOutput &operator<<(const QString &text) { return *this << text.toLocal8Bit().constData(); }

    /// Writes the bytes of \a text, a C string, unchanged and without flushing.
    StdOutput &operator<<(const char *text)
    {
        std::cout << text;
        return *this;
    }

    /// Writes \a number, of any integer type, in decimal, without flushing. The types of characters and bool are none.
    template <typename T>
    requires is_number<T> StdOutput &operator<<(T number) { return *this << QString::number(number); }

private:
    bool _new_line;
};
