// Uses the tool's libraries and does nothing else, to measure what the start and the end of such a program cost.

#include <QApplication>
#include <QSerialPort>

int main(int argc, char *argv[])
{
    const QApplication application(argc, argv);
    const QSerialPort port;
    return 0;
}
