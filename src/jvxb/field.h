#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QtEndian>

namespace jvxb {

/// One number of a layout: an unsigned integer \a T, little-endian, at a fixed place. A layout is the list of its
/// fields.
template <typename T>
struct Field {
    qsizetype offset; ///< of the first byte

    /// The offset behind the last byte.
    [[nodiscard]] constexpr qsizetype end() const { return offset + qsizetype{sizeof(T)}; }

    /// The value in \a bytes, which reach to end() at least.
    [[nodiscard]] T of(QByteArrayView bytes) const { return qFromLittleEndian<T>(bytes.data() + offset); }

    /// Writes \a value into \a bytes, which reach to end() at least.
    void put(QByteArray &bytes, T value) const { qToLittleEndian(value, bytes.data() + offset); }
};

} // namespace jvxb
