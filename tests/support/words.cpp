#include "words.h"

QStringList words(const char *line)
{
    return QString::fromUtf8(line)
        .split(QLatin1Char(' '), Qt::SkipEmptyParts)
        .replaceInStrings(QStringLiteral("''"), QString());
}
