#include "portname.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

// What the lock file begins with; the target of the link follows.
constexpr QByteArrayView owner = "jvx-simulator ";

constexpr mode_t lock_mode = 0644;

} // namespace

PortName::PortName(QString path)
    : _path(std::move(path))
{
}

PortName::~PortName()
{
    withdraw();
    if (_lock < 0)
        return;
    ::unlink(QFile::encodeName(lockPath()).constData());
    closeLock();
}

bool PortName::publish(const QString &target)
{
    if ((_lock < 0 && !lock()) || !removeOwnLink() || !writeLock(target))
        return false;
    if (::symlink(QFile::encodeName(target).constData(), QFile::encodeName(_path).constData()) != 0)
        return fail(QStringLiteral("cannot make the link '%1'").arg(_path));
    _target = target;
    return true;
}

void PortName::withdraw()
{
    // Somebody may have put something else in its place.
    if (!_target.isEmpty() && QFile::symLinkTarget(_path) == _target)
        QFile::remove(_path);
    _target.clear();
}

QString PortName::lockPath() const
{
    return _path + QStringLiteral(".lock");
}

bool PortName::lock()
{
    do {
        closeLock();
        if (!openLock())
            return false;
    } while (!isLockCurrent());
    return readLock();
}

bool PortName::openLock()
{
    _lock = ::open(QFile::encodeName(lockPath()).constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, lock_mode);
    if (_lock < 0)
        return fail(QStringLiteral("cannot open the lock '%1'").arg(lockPath()));
    if (::flock(_lock, LOCK_EX | LOCK_NB) == 0)
        return true;
    const bool is_held = errno == EWOULDBLOCK;
    fail(QStringLiteral("cannot lock '%1'").arg(lockPath()));
    closeLock();
    return is_held ? refuse(QStringLiteral("'%1' is the port of another simulator that is running").arg(_path)) : false;
}

/// Whether the locked file is still the one at the lock's path: another process may have removed it as it ended.
bool PortName::isLockCurrent() const
{
    struct stat locked { };
    struct stat named { };
    return ::fstat(_lock, &locked) == 0 && ::stat(QFile::encodeName(lockPath()).constData(), &named) == 0
        && locked.st_dev == named.st_dev && locked.st_ino == named.st_ino;
}

/// Learns which link a killed process left behind.
bool PortName::readLock()
{
    QFile file;
    if (!file.open(_lock, QIODevice::ReadOnly))
        return fail(QStringLiteral("cannot read the lock '%1'").arg(lockPath()));
    const QByteArray content = file.readAll();
    if (content.startsWith(owner)) {
        _target = QFile::decodeName(content.sliced(owner.size()).trimmed());
        return true;
    }
    if (content.isEmpty())
        return true;
    closeLock();
    return refuse(QStringLiteral("'%1' is not a lock of this program").arg(lockPath()));
}

void PortName::closeLock()
{
    if (_lock >= 0)
        ::close(_lock);
    _lock = -1;
}

bool PortName::removeOwnLink()
{
    struct stat status { };
    if (::lstat(QFile::encodeName(_path).constData(), &status) != 0)
        return true;
    if (!S_ISLNK(status.st_mode))
        return refuse(QStringLiteral("'%1' is not a symbolic link").arg(_path));
    const QString target = QFile::symLinkTarget(_path);
    if (target != _target)
        return refuse(QStringLiteral("'%1' is a link to '%2' that this program did not make").arg(_path, target));
    withdraw();
    return true;
}

bool PortName::writeLock(const QString &target)
{
    const QByteArray content = owner.toByteArray() + QFile::encodeName(target) + '\n';
    if (::ftruncate(_lock, 0) != 0 || ::pwrite(_lock, content.constData(), static_cast<size_t>(content.size()), 0) < 0)
        return fail(QStringLiteral("cannot write the lock '%1'").arg(lockPath()));
    return true;
}

bool PortName::refuse(const QString &why)
{
    _error_string = why;
    return false;
}

bool PortName::fail(const QString &what)
{
    return refuse(QStringLiteral("%1: %2").arg(what, QString::fromLocal8Bit(std::strerror(errno))));
}
