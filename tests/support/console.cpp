#include "console.h"

#include <algorithm>

namespace console {

QByteArray checking(const QString &port)
{
    return opened(port) + "Checking device ...\n";
}

QByteArray identification(const QString &port)
{
    return identificationParts(port).join();
}

QByteArrayList identificationParts(const QString &port)
{
    return {checking(port), "\nDevice: JVX terminal\nVersion: 1.4.2\nDate: 2026-03-01\nLanguage: en\n",
        "BHR: 0x10a2b3c4d5\n", "IMEI: 350000000000017\n\n"};
}

QByteArrayList plainIdentificationParts(const QString &port)
{
    return {checking(port), "\nDevice: JVX\nVersion: 1.2\nDate: 2024-05-06\nLanguage: en\n", "BHR: 0x102030405060708\n",
        "IMEI: 350000000000017\n\n"};
}

QByteArray reading(const QByteArray &kind)
{
    return "Reading file '" + kind + "' ...\n";
}

QByteArray writing(const QString &path, const QByteArray &kind)
{
    return "Writing file '" + path.toLocal8Bit() + "' to '" + kind + "' ...\n";
}

QByteArray progressAt(qint64 moved, qint64 size)
{
    const qint64 percentage = size == 0 ? 100 : moved * 100 / size;
    return "\r" + QByteArray::number(percentage) + "% completed (" + QByteArray::number(moved) + "/"
        + QByteArray::number(size) + ")";
}

QByteArray progress(qint64 size, qint64 piece)
{
    QByteArray lines = progressAt(std::min(piece, size), size);
    for (qint64 moved = piece; moved < size; moved += piece)
        lines += progressAt(std::min(moved + piece, size), size);
    return lines;
}

QByteArray saved(const QString &path)
{
    return "\n\nFile saved to '" + path.toLocal8Bit() + "'\n";
}

QByteArray written()
{
    return "\n\n";
}

QByteArray applying(const QByteArray &kind)
{
    return "Apply file '" + kind + "' ...\n";
}

QByteArray completed()
{
    return "Completed\n";
}

QByteArray waiting(const QString &port)
{
    return "\nSerial port closed: " + port.toLocal8Bit() + "\nWaiting device ...\n";
}

QByteArray opened(const QString &port)
{
    return "\rSerial port open: " + port.toLocal8Bit() + "\n\n";
}

} // namespace console
