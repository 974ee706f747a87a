#include "simulation.h"

#include <cstdio>

Simulation::Simulation(const Options &options, QObject *parent)
    : QObject(parent)
    , _options(options)
    , _terminal(options.terminal)
    , _port(options.link)
    , _record(options.record)
{
    _restart_timer.setSingleShot(true);
    _restart_timer.setTimerType(Qt::PreciseTimer);
    _restart_timer.setInterval(options.restartTime);
    connect(&_restart_timer, &QTimer::timeout, this, &Simulation::comeBack);

    connect(&_port, &PseudoTerminal::received, &_terminal, &Terminal::receive);
    connect(&_port, &PseudoTerminal::plugged, this, &Simulation::recordPlugged);
    connect(&_port, &PseudoTerminal::unplugged, this, &Simulation::onUnplugged);
    connect(&_terminal, &Terminal::answered, &_port, &PseudoTerminal::send);
    connect(&_terminal, &Terminal::volunteered, &_port, &PseudoTerminal::send);
    connect(&_terminal, &Terminal::packetReceived, this, &Simulation::recordPacket);
    connect(&_terminal, &Terminal::droppedOff, this, &Simulation::onDroppedOff);
    connect(&_terminal, &Terminal::malformedReceived, this, &Simulation::complain);
}

bool Simulation::start()
{
    if (!openRecord())
        return false;
    if (!_port.plug()) {
        _error_string = _port.errorString();
        return false;
    }
    return true;
}

void Simulation::finish()
{
    _finished = true;
    _restart_timer.stop();
    _terminal.loseLine();
    _port.unplug();
}

bool Simulation::openRecord()
{
    if (_options.record.isEmpty() || _record.open(QIODevice::Append | QIODevice::Unbuffered))
        return true;
    _error_string = QStringLiteral("cannot open '%1': %2").arg(_options.record, _record.errorString());
    return false;
}

void Simulation::recordLine(const QByteArray &line)
{
    if (_record.isOpen())
        _record.write(line + '\n');
}

void Simulation::recordPacket(const QByteArray &packet)
{
    recordLine(packet.toHex());
}

void Simulation::recordPlugged()
{
    recordLine(QByteArrayLiteral("# link up"));
}

void Simulation::onDroppedOff()
{
    _port.unplugOnceRead();
}

void Simulation::onUnplugged()
{
    recordLine(QByteArrayLiteral("# unplugged"));
    if (_options.returns && !_finished)
        _restart_timer.start();
}

void Simulation::comeBack()
{
    _terminal.powerUp();
    if (!_port.plug())
        Q_EMIT failed(_port.errorString());
}

void Simulation::complain(const QString &reason, const QByteArray &bytes)
{
    _has_complained = true;
    const QByteArray line = "jvx-simulator: malformed request: " + reason.toUtf8() + ": " + bytes.toHex() + '\n';
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
}
