#include "pseudoterminal.h"

#include <QFile>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
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

PseudoTerminal::PseudoTerminal(const QString &link_path, QObject *parent)
    : QObject(parent)
    , _name(link_path)
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
    if (!openMaster() || !openSlave() || !watchSlave() || !publish()) {
        closeDescriptors();
        return false;
    }
    _watch_notifier = std::make_unique<QSocketNotifier>(_watch, QSocketNotifier::Read);
    connect(_watch_notifier.get(), &QSocketNotifier::activated, this, &PseudoTerminal::endClaim);
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
    _watch_notifier.reset();
    _read_notifier.reset();
    _write_notifier.reset();
    _outgoing.clear();
    _name.withdraw();
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

bool PseudoTerminal::watchSlave()
{
    _watch = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (_watch < 0 || ::inotify_add_watch(_watch, QFile::encodeName(_slave_path).constData(), IN_OPEN | IN_CLOSE) < 0)
        return fail(QStringLiteral("cannot watch the pseudo-terminal's slave"));
    return true;
}

bool PseudoTerminal::publish()
{
    if (_name.publish(_slave_path))
        return true;
    _error_string = _name.errorString();
    return false;
}

bool PseudoTerminal::fail(const QString &what)
{
    _error_string = QStringLiteral("%1: %2").arg(what, QString::fromLocal8Bit(std::strerror(errno)));
    return false;
}

void PseudoTerminal::closeDescriptors()
{
    for (int *descriptor : {&_watch, &_slave, &_master}) {
        if (*descriptor >= 0)
            ::close(*descriptor);
        *descriptor = -1;
    }
}

/// Called when programs have opened or closed the port. If it was closed last, nobody holds it any more; a claim would
/// live on, because this side has the slave open too, and so is ended here.
void PseudoTerminal::endClaim() const
{
    inotify_event event{};
    while (::read(_watch, &event, sizeof event) > 0) { }
    if ((event.mask & IN_CLOSE) != 0)
        ::ioctl(_slave, TIOCNXCL);
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
