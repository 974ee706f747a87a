#include "simulation.h"

#include <chrono>
#include <cstdio>
#include <functional>

using namespace std::chrono_literals;

namespace {

// At full speed a turn of the event loop must come to its end, and a line that is full must get time to empty.
constexpr int log_records_per_turn = 100;
constexpr auto log_retry_interval = 1ms;

} // namespace

Simulation::Simulation(const Options &options, QObject *parent)
    : QObject(parent)
    , _options(options)
    , _terminal(options.terminal)
    , _line(options.faults)
    , _port(options.link)
    , _record(options.record)
{
    _restart_timer.setSingleShot(true);
    _restart_timer.setTimerType(Qt::PreciseTimer);
    _restart_timer.setInterval(options.restart_time);
    connect(&_restart_timer, &QTimer::timeout, this, &Simulation::comeBack);

    _log_timer.setSingleShot(true);
    _log_timer.setTimerType(Qt::PreciseTimer);
    connect(&_log_timer, &QTimer::timeout, this, &Simulation::sendDueLogRecords);

    connect(&_port, &PseudoTerminal::received, &_terminal, &Terminal::receive);
    connect(&_port, &PseudoTerminal::plugged, this, &Simulation::recordPlugged);
    connect(&_port, &PseudoTerminal::unplugged, this, &Simulation::onUnplugged);
    connect(&_terminal, &Terminal::answered, &_line, &FaultyLine::sendAnswer);
    connect(&_terminal, &Terminal::volunteered, &_line, &FaultyLine::sendMessage);
    connect(&_line, &FaultyLine::sent, &_port, &PseudoTerminal::send);
    connect(&_line, &FaultyLine::becameIdle, this, &Simulation::unplugOnceIdle);
    connect(&_terminal, &Terminal::packetReceived, this, &Simulation::recordPacket);
    connect(&_terminal, &Terminal::droppedOff, this, &Simulation::onDroppedOff);
    connect(&_terminal, &Terminal::malformedReceived, this, std::bind_front(&Simulation::complain, this, "malformed"));
    connect(&_terminal, &Terminal::misplacedReceived, this, std::bind_front(&Simulation::complain, this, "misplaced"));
}

bool Simulation::start()
{
    if (!openRecord())
        return false;
    if (!_port.plug()) {
        _error_string = _port.errorString();
        return false;
    }
    if (_options.terminal.log.period)
        startLog();
    return true;
}

void Simulation::finish()
{
    _finished = true;
    _restart_timer.stop();
    _log_timer.stop();
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

void Simulation::startLog()
{
    _next_log_record = std::chrono::steady_clock::now();
    sendDueLogRecords();
}

void Simulation::sendDueLogRecords()
{
    const std::chrono::nanoseconds period = *_options.terminal.log.period;
    const auto now = std::chrono::steady_clock::now();
    for (int count = 0; count < log_records_per_turn && _next_log_record <= now; ++count) {
        if (_line.isWriting() || !_port.isWilling() || !_terminal.sendLogRecord()) {
            // What was not sent is not made up for: the log goes on at its own rate.
            _next_log_record = now + std::max<std::chrono::nanoseconds>(period, log_retry_interval);
            break;
        }
        _next_log_record += period;
    }
    const auto wait = std::max<std::chrono::nanoseconds>(_next_log_record - now, 0ns);
    _log_timer.start(std::chrono::ceil<std::chrono::milliseconds>(wait));
}

void Simulation::onDroppedOff()
{
    _dropping_off = true;
    unplugOnceIdle();
}

void Simulation::unplugOnceIdle()
{
    if (!_dropping_off || !_line.isIdle())
        return;
    _dropping_off = false;
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

void Simulation::complain(const char *kind, const QString &reason, const QByteArray &bytes)
{
    _has_complained = true;
    const QByteArray line
        = QByteArray("jvx-simulator: ") + kind + " request: " + reason.toUtf8() + ": " + bytes.toHex() + '\n';
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
}
