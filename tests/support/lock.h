#pragma once

#include <QString>

/// Removes the lock on \a port that a killed tool leaves behind. The tool must have ended.
void removeLock(const QString &port);
