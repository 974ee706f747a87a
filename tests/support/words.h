#pragma once

#include <QStringList>

/// The words of \a line (UTF-8), as a shell would split it; '' stands for an empty one.
QStringList words(const char *line);
