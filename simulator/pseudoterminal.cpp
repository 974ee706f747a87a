#include "pseudoterminal.h"

#include <QFile>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr auto drain_limit = 500ms;
constexpr auto drain_poll_interval = 10ms;

// The kernel passes bytes to the slave's input queue on a worker of its own, so one empty queue does not mean that
// nothing is on its way, and what was read a moment ago may not have been looked at yet.
constexpr int quiet_polls_wanted = 3;

/// Calls a system call again as long as a signal interrupts it.
template <typename Call>
auto retried(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

} // namespace

PseudoTerminal::PseudoTerminal(QString link_path, QObject *parent)
    : QObject(parent)
    , _link_path(std::move(link_path))
{
    _drain_timer.setInterval(drain_poll_interval);
    connect(&_drain_timer, &QTimer::timeout, this, &PseudoTerminal::pollWhetherRead);
}

PseudoTerminal::~PseudoTerminal()
{
    unplug();
}

bool PseudoTerminal::plug()
{
    if (!openMaster() || !openSlave() || !publish()) {
        closeDescriptors();
        return false;
    }
    _read_notifier = std::make_unique<QSocketNotifier>(_master, QSocketNotifier::Read);
    connect(_read_notifier.get(), &QSocketNotifier::activated, this, &PseudoTerminal::readAvailable);
    _write_notifier = std::make_unique<QSocketNotifier>(_master, QSocketNotifier::Write);
    _write_notifier->setEnabled(false);
    connect(_write_notifier.get(), &QSocketNotifier::activated, this, &PseudoTerminal::writeQueued);
    Q_EMIT plugged();
    return true;
}

void PseudoTerminal::unplug()
{
    if (_master < 0)
        return;
    _drain_timer.stop();
    _read_notifier.reset();
    _write_notifier.reset();
    _outgoing.clear();
    removeLink();
    closeDescriptors();
    Q_EMIT unplugged();
}

void PseudoTerminal::unplugOnceRead()
{
    _quiet_polls = 0;
    _drain_deadline.setRemainingTime(drain_limit);
    _drain_timer.start();
}

void PseudoTerminal::send(const QByteArray &bytes)
{
    if (_master < 0)
        return;
    _outgoing.append(bytes);
    if (!_collecting)
        writeQueued();
}

bool PseudoTerminal::isWilling() const
{
    return _master >= 0 && !_drain_timer.isActive() && _outgoing.isEmpty();
}

bool PseudoTerminal::openMaster()
{
    _master = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (_master < 0 || ::grantpt(_master) != 0 || ::unlockpt(_master) != 0)
        return fail(QStringLiteral("cannot open a pseudo-terminal"));
    return true;
}

bool PseudoTerminal::openSlave()
{
    const char *path = ::ptsname(_master);
    _slave = path != nullptr ? ::open(path, O_RDWR | O_NOCTTY | O_CLOEXEC) : -1;
    if (_slave < 0)
        return fail(QStringLiteral("cannot open the pseudo-terminal's slave"));
    _slave_path = QFile::decodeName(path);

    // Raw before anybody can see the name: a cooked terminal echoes what it gets and swallows control characters.
    termios attributes{};
    if (::tcgetattr(_slave, &attributes) != 0)
        return fail(QStringLiteral("cannot read the pseudo-terminal's mode"));
    ::cfmakeraw(&attributes);
    if (::tcsetattr(_slave, TCSANOW, &attributes) != 0)
        return fail(QStringLiteral("cannot make the pseudo-terminal raw"));
    return true;
}

bool PseudoTerminal::publish()
{
    const QByteArray link = QFile::encodeName(_link_path);
    struct stat status { };
    if (::lstat(link.constData(), &status) == 0 && !S_ISLNK(status.st_mode)) {
        errno = EEXIST;
        return fail(QStringLiteral("'%1' is not a symbolic link").arg(_link_path));
    }

    // Renaming replaces an old link in one step: at no moment is the name missing or half made.
    const QByteArray fresh = link + '.' + QByteArray::number(::getpid());
    const QByteArray target = QFile::encodeName(_slave_path);
    if (::symlink(target.constData(), fresh.constData()) != 0)
        return fail(QStringLiteral("cannot make the link '%1'").arg(_link_path));
    if (::rename(fresh.constData(), link.constData()) != 0) {
        fail(QStringLiteral("cannot make the link '%1'").arg(_link_path));
        ::unlink(fresh.constData());
        return false;
    }
    return true;
}

bool PseudoTerminal::fail(const QString &what)
{
    _error_string = QStringLiteral("%1: %2").arg(what, QString::fromLocal8Bit(std::strerror(errno)));
    return false;
}

void PseudoTerminal::closeDescriptors()
{
    if (_slave >= 0)
        ::close(_slave);
    if (_master >= 0)
        ::close(_master);
    _slave = -1;
    _master = -1;
}

void PseudoTerminal::removeLink() const
{
    // Another simulator may have taken the name over in the meantime.
    if (QFile::symLinkTarget(_link_path) == _slave_path)
        QFile::remove(_link_path);
}

void PseudoTerminal::readAvailable()
{
    std::array<char, 4096> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init): filled by read()
    const auto size = retried([&] { return ::read(_master, buffer.data(), buffer.size()); });
    if (size <= 0)
        return;
    _collecting = true;
    Q_EMIT received(QByteArray(buffer.data(), size));
    _collecting = false;
    writeQueued();
}

void PseudoTerminal::writeQueued()
{
    if (!_outgoing.isEmpty()) {
        const auto written
            = retried([&] { return ::write(_master, _outgoing.constData(), static_cast<size_t>(_outgoing.size())); });
        if (written > 0)
            _outgoing.remove(0, written);
    }
    _write_notifier->setEnabled(!_outgoing.isEmpty());
}

bool PseudoTerminal::isEverythingRead() const
{
    int unread = 0;
    return _outgoing.isEmpty() && ::ioctl(_slave, FIONREAD, &unread) == 0 && unread == 0;
}

void PseudoTerminal::pollWhetherRead()
{
    _quiet_polls = isEverythingRead() ? _quiet_polls + 1 : 0;
    if (_quiet_polls >= quiet_polls_wanted || _drain_deadline.hasExpired())
        unplug();
}
