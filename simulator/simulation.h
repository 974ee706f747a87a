#pragma once

#include "faults.h"
#include "options.h"
#include "pseudoterminal.h"
#include "terminal.h"

#include <QFile>
#include <QObject>
#include <QTimer>

#include <chrono>

/// One run of the simulator: the terminal on its port, its restarts, its record and its complaints.
class Simulation : public QObject {
    Q_OBJECT

public:
    explicit Simulation(const Options &options, QObject *parent = nullptr);

    /// Opens the record and plugs the terminal in. Returns false on failure, errorString() then says why.
    bool start();

    /// Reports bytes of an incomplete request, and unplugs.
    void finish();

    [[nodiscard]] QString errorString() const { return _error_string; }

    /// Whether a malformed or a misplaced request has come in so far.
    [[nodiscard]] bool hasComplained() const { return _has_complained; }

Q_SIGNALS:
    /// The run cannot go on; \a why is one line of text.
    void failed(const QString &why);

private:
    bool openRecord();
    void recordLine(const QByteArray &line);
    void recordPacket(const QByteArray &packet);
    void recordPlugged();

    void startLog();
    void sendDueLogRecords();
    void onDroppedOff();
    void unplugOnceIdle();
    void onUnplugged();
    void comeBack();
    void complain(const char *kind, const QString &reason, const QByteArray &bytes);

    const Options _options;
    Terminal _terminal;
    FaultyLine _line;
    PseudoTerminal _port;
    QFile _record;
    QTimer _restart_timer;
    QTimer _log_timer;
    std::chrono::steady_clock::time_point _next_log_record; ///< when it is due
    QString _error_string;
    bool _has_complained = false;
    bool _dropping_off = false; ///< the terminal is off the bus, what it sent before is still on its way
    bool _finished = false;
};
