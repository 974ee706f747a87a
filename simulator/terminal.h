#pragma once

#include "filetransfers.h"

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>

#include <utility>

/// The requests of one key are numbered from 1 on, over restarts.
using RequestNumber = std::pair<QByteArray, int>;

/// Who the terminal says it is and how it behaves.
struct TerminalSettings {
    QString name = QStringLiteral("JVX terminal");
    QString softwareVersion = QStringLiteral("1.4.2");
    QString date = QStringLiteral("2026-03-01");
    QString language = QStringLiteral("en");
    quint64 bhr = 0x10A2B3C4D5; ///< hardware version word
    QString imei = QStringLiteral("350000000000017");
    quint32 mask = 0; ///< log mask in force after power-up

    TransferSettings transfers;

    QHash<QByteArray, QByteArray> fixedAnswers; ///< payload to answer a key with, in place of the true one
    QSet<QByteArray> silentKeys;                ///< requests that get no answer
    QSet<QByteArray> vanishingKeys;             ///< requests on which the terminal drops off the bus without an answer
    QHash<RequestNumber, quint8> statuses;      ///< requests for files to refuse, with the status to give
    QSet<RequestNumber> foreignAnswers;         ///< answers to precede with one for another kind of file

    bool restartsBeforeFirmwareAnswer = false; ///< restart in place of answering the apply of firmware
    QByteArray lastBytes;                      ///< sent just before dropping off the bus
};

/// The terminal itself: requests in, answers out, no port. It judges requests strictly; one that is not well-formed is
/// reported and gets no answer.
class Terminal : public QObject {
    Q_OBJECT

public:
    explicit Terminal(TerminalSettings settings, QObject *parent = nullptr);

    /// Every key that a request may carry.
    static QList<QByteArray> keys();
    /// Those among them that are about files.
    static QList<QByteArray> fileKeys();

    /// Takes bytes from the line, in pieces of any size. Does nothing while the terminal is off the bus.
    void receive(const QByteArray &bytes);

    /// The line is gone or the run ends: reports bytes of a packet that never became complete.
    void loseLine();

    /// Comes back on the bus as after power-up: the log mask is the initial one, transfers are forgotten.
    void powerUp();

Q_SIGNALS:
    /// A whole packet with correct checksums came in, @a packet includes its header.
    void packetReceived(const QByteArray &packet);
    /// The answer to the request that was received last.
    void answered(const QByteArray &packet);
    /// The terminal sends @a bytes on its own account.
    void volunteered(const QByteArray &bytes);
    /// The terminal drops off the bus, after everything emitted so far has gone out.
    void droppedOff();
    /// Something that is no correct request came in. @a reason is one line of English.
    void malformedReceived(const QString &reason, const QByteArray &bytes);

private:
    struct Command;

    static const Command *findCommand(QByteArrayView body);
    static QString faultOf(const Command *command, QByteArrayView body);

    void handlePacket(const QByteArray &packet);
    void serve(const Command &command, const QByteArray &packet);
    Reply replyTo(const Command &command, const RequestNumber &number, const QByteArray &payload);
    void dropOff();

    Reply softwareVersion(const QByteArray &payload);
    Reply hardwareVersion(const QByteArray &payload);
    Reply serialNumber(const QByteArray &payload);
    Reply readFile(const QByteArray &payload);
    Reply writeFile(const QByteArray &payload);
    Reply applyFile(const QByteArray &payload);
    Reply setLogMask(const QByteArray &payload);

    const TerminalSettings _settings;
    FileTransfers _transfers;
    QHash<QByteArray, int> _request_counts;
    QByteArray _stream;
    quint32 _mask;
    bool _on_bus = true;
};
