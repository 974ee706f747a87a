#include "lock.h"

#include <QFile>

void removeLock(const QString &port)
{
    // QSerialPort locks in the first folder of a list that it may write to.
    const QString name = QString(port).replace(QLatin1Char('/'), QLatin1Char('_'));
    for (const char *folder : {"/var/lock", "/tmp", "/var/tmp", "/run/lock"})
        QFile::remove(QLatin1String(folder) + QLatin1String("/LCK..") + name);
}
