#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// What all fuzz targets share. None of them shares code with what it judges.

/// The entry point of each target: tries one input, of any \a size in bytes. Returns 0; a finding ends the process.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

/// Whether only the known inputs are tried, a few and each once.
#ifdef JVX_REPLAY
constexpr bool is_replay = true;
#else
constexpr bool is_replay = false;
#endif

/// Ends the process, which is a finding, unless \a holds; \a what tells what should have held.
inline void require(bool holds, const char *what)
{
    if (holds)
        return;
    std::fprintf(stderr, "Finding: not true: %s\n", what);
    std::abort();
}

/// An input, consumed from its front as the decisions that a target has to make. Behind its end all is 0 and empty.
/// Each value is taken in a statement of its own: compilers differ in the order in which they look at the parts of one.
class Input {
public:
    Input(const std::uint8_t *data, std::size_t size)
        : _bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size))
    {
    }

    [[nodiscard]] bool isAtEnd() const { return _bytes.isEmpty(); }

    std::uint8_t byte()
    {
        const QByteArrayView bytes = take(1);
        return bytes.isEmpty() ? std::uint8_t{0} : static_cast<std::uint8_t>(bytes.front());
    }

    /// A number of \a size bytes, little-endian.
    std::uint32_t number(int size)
    {
        std::uint32_t value = 0;
        for (int i = 0; i < size; ++i)
            value |= static_cast<std::uint32_t>(byte()) << (8 * i);
        return value;
    }

    /// Up to 255 bytes; their count stands in front of them.
    QByteArray bytes() { return take(byte()).toByteArray(); }

    QByteArray rest() { return take(_bytes.size()).toByteArray(); }

private:
    QByteArrayView take(qsizetype count)
    {
        const QByteArrayView front = _bytes.first(std::min(count, _bytes.size()));
        _bytes = _bytes.sliced(front.size());
        return front;
    }

    QByteArrayView _bytes;
};
