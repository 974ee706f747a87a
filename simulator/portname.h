#pragma once

#include <QString>

/// The name under which a port can be opened: a symbolic link to the pseudo-terminal of the moment.
///
/// It belongs to one process at a time. A lock on the file PATH.lock says so for as long as the process lives, also
/// while the terminal is off the bus; the file holds the target of the link, so that a link which a killed process left
/// behind can be told from one that somebody else made. Both are gone after an orderly end.
class PortName {
public:
    explicit PortName(QString path);
    ~PortName();
    Q_DISABLE_COPY_MOVE(PortName)

    /// Makes the name lead to \a target; takes the lock first if this process does not hold it. What bears the name
    /// already is replaced only if a process that was killed left it behind. Returns false on failure, errorString()
    /// then says why.
    bool publish(const QString &target);

    /// Takes the link away, but keeps the lock.
    void withdraw();

    [[nodiscard]] QString errorString() const { return _error_string; }

private:
    [[nodiscard]] QString lockPath() const;
    bool lock();
    bool openLock();
    [[nodiscard]] bool isLockCurrent() const;
    bool readLock();
    void closeLock();
    bool removeOwnLink();
    bool writeLock(const QString &target);

    bool refuse(const QString &why);
    bool fail(const QString &what);

    const QString _path;
    QString _target; ///< where the link leads if it is this program's; empty: there is none
    QString _error_string;
    int _lock = -1;
};
