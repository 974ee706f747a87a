#pragma once

#include "portname.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QObject>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>

#include <memory>

/// The terminal's USB serial port: a pseudo-terminal under a fixed name, which is a symbolic link. Unplugging takes
/// the name and the pseudo-terminal away, plugging brings a new one under the same name. No other simulator can use the
/// name as long as this object lives.
///
/// A program at the other end may claim the port for itself (TIOCEXCL). As with a real port, the claim ends with the
/// program, however that ends.
class PseudoTerminal : public QObject {
    Q_OBJECT

public:
    explicit PseudoTerminal(const QString &link_path, QObject *parent = nullptr);
    ~PseudoTerminal() override;

    /// Opens a pseudo-terminal in raw mode and publishes its name. Returns false on failure, errorString() then says
    /// why.
    bool plug();

    /// Takes the name away and closes the pseudo-terminal at once; bytes that are still queued are lost.
    void unplug();

    /// Unplugs as soon as the other side has read everything that was sent, after half a second at the latest.
    void unplugOnceRead();

    /// Queues \a bytes for the line. What is sent while received() is handled goes out in one piece. Does nothing while
    /// unplugged.
    void send(const QByteArray &bytes);

    /// Whether there is a line and it takes more bytes without a queue building up.
    [[nodiscard]] bool isWilling() const;

    [[nodiscard]] QString errorString() const { return _error_string; }

Q_SIGNALS:
    void received(const QByteArray &bytes);
    void plugged();
    void unplugged();

private:
    bool openMaster();
    bool openSlave();
    bool watchSlave();
    bool publish();
    bool fail(const QString &what);
    void closeDescriptors();

    void endClaim() const;
    void readAvailable();
    void writeQueued();
    [[nodiscard]] bool isEverythingRead() const;
    void pollWhetherRead();

    PortName _name;
    QString _slave_path;
    QString _error_string;
    int _master = -1;
    int _slave = -1; ///< kept open: without any slave open the master would only report errors
    int _watch = -1; ///< tells when a program opens or closes the slave
    std::unique_ptr<QSocketNotifier> _watch_notifier;
    std::unique_ptr<QSocketNotifier> _read_notifier;
    std::unique_ptr<QSocketNotifier> _write_notifier;
    QByteArray _outgoing;
    bool _collecting = false; ///< received() is being handled

    QTimer _drain_timer;
    QDeadlineTimer _drain_deadline;
    int _quiet_polls = 0;
};
