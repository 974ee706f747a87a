#include "plainterminal.h"

#include "lock.h"
#include "packets.h"

#include <QFile>
#include <QTest>
#include <QtEndian>

#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int patience = 10'000; // ms, for the line to take some bytes

bool waitFor(int descriptor, short event, int milliseconds)
{
    pollfd request{descriptor, event, 0};
    return ::poll(&request, 1, milliseconds) > 0;
}

} // namespace

PlainTerminal::PlainTerminal(QByteArray file)
    : _file(std::move(file))
    , _master(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
{
    if (::grantpt(_master) != 0 || ::unlockpt(_master) != 0)
        qFatal("no pseudo-terminal");
    const char *const node = ::ptsname(_master);
    // Open as long as the terminal is there: without anybody at the other end a read would fail.
    _slave = ::open(node, O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    termios mode{};
    ::tcgetattr(_slave, &mode);
    ::cfmakeraw(&mode);
    ::tcsetattr(_slave, TCSANOW, &mode);
    if (!QFile::link(QString::fromLocal8Bit(node), port()))
        qFatal("no link to the pseudo-terminal");
}

PlainTerminal::~PlainTerminal()
{
    vanish();
    removeLock(port());
}

QByteArray PlainTerminal::request(std::chrono::milliseconds limit)
{
    const QByteArray ahead = std::exchange(_ahead, {});
    const QByteArray head = ahead + take(16 - ahead.size(), limit);
    return head.size() < 16 ? QByteArray() : take(qFromLittleEndian<quint16>(head.constData() + 12), limit);
}

QByteArray PlainTerminal::answerTo(const QByteArray &request) const
{
    if (request == "*?V")
        return packets::software_answer;
    if (request == "*?H")
        return packets::hardware_answer;
    if (request == "*?S")
        return packets::serial_number_answer;
    if (request.startsWith("*!FR"))
        return packets::packet("*@FR1" + pieceAnswer(request));
    if (request.startsWith("*!FW")) // kind, handle, offset and length, as they came
        return packets::packet("*@FW1" + request.mid(4, 11));
    if (request.startsWith("*!FU"))
        return packets::packet("*@FU1" + request.mid(4, 5));
    if (!request.startsWith("*!LOG"))
        QTest::qFail("this is no request that a terminal knows: " + request.toHex(), __FILE__, __LINE__);
    return packets::mask_answer;
}

void PlainTerminal::send(const QByteArray &bytes)
{
    for (qsizetype sent = 0; sent < bytes.size();) {
        if (!waitFor(_master, POLLOUT, patience)) {
            QTest::qFail("the line does not take what the plain terminal sends", __FILE__, __LINE__);
            return;
        }
        const auto count = ::write(_master, bytes.constData() + sent, static_cast<size_t>(bytes.size() - sent));
        if (count > 0)
            sent += count;
    }
}

void PlainTerminal::jam()
{
    ::tcflow(_slave, TCOOFF);
}

qsizetype PlainTerminal::fill()
{
    qsizetype count = 0;
    for (const char byte = '.'; ::write(_slave, &byte, 1) == 1;)
        ++count;
    return count;
}

void PlainTerminal::takeFilling()
{
    do {
        _ahead = take(1, std::chrono::seconds(10));
    } while (_ahead == ".");
}

void PlainTerminal::vanish()
{
    for (const int descriptor : {std::exchange(_slave, -1), std::exchange(_master, -1)}) {
        if (descriptor >= 0)
            ::close(descriptor);
    }
}

/// Kind, handle, offset, length, full size and piece.
QByteArray PlainTerminal::pieceAnswer(const QByteArray &request) const
{
    if (request.size() != 15) {
        QTest::qFail("this is no request for a piece: " + request.toHex(), __FILE__, __LINE__);
        return {};
    }
    const quint32 offset = qFromLittleEndian<quint32>(request.constData() + 9);
    const QByteArray piece = _file.mid(offset, 512);
    return request.mid(4, 1) + packets::number(7, 4) + packets::number(offset, 4)
        + packets::number(static_cast<quint64>(piece.size()), 2)
        + packets::number(static_cast<quint64>(_file.size()), 4) + piece;
}

QByteArray PlainTerminal::take(qsizetype count, std::chrono::milliseconds limit)
{
    QByteArray read;
    while (read.size() < count && waitFor(_master, POLLIN, static_cast<int>(limit.count()))) {
        QByteArray part(count - read.size(), '\0');
        const auto size = ::read(_master, part.data(), static_cast<size_t>(part.size()));
        if (size <= 0)
            break;
        read += part.first(size);
    }
    return read;
}
