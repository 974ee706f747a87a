#include "platform.h"

#include <QGuiApplication>

/// The program selects the platform plugin "minimal" where it finds no display.
bool platform::canShowWindow()
{
    return QGuiApplication::platformName() != QLatin1String("minimal");
}

/// Names of device files tell upper from lower case.
QString platform::portName(const QString &given)
{
    return given;
}
