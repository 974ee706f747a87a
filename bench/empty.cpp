// What start and end of a program cost that does nothing but to use the tool's libraries.

#include <QApplication>
#include <QSerialPort>

int main(int argc, char *argv[])
{
    const QApplication application(argc, argv);
    const QSerialPort port;
    return 0;
}
