#pragma once

#include "dice.h"
#include "filetransfers.h"
#include "logsource.h"

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>

#include <utility>

/// The requests of one key are numbered from 1 on, over restarts.
using RequestNumber = std::pair<QByteArray, int>;

/// A moment at which the terminal drops off the bus.
struct DropPoint {
    int packet = 0;            ///< on the packet of this number, counted from 1 on over restarts; 0: never
    bool after_answer = false; ///< whether that packet is answered first
};

/// Who the terminal says it is and how it behaves.
struct TerminalSettings {
    QString name = QStringLiteral("JVX terminal");
    QString software_version = QStringLiteral("1.4.2");
    std::optional<QString> next_software_version; ///< after firmware was applied, in place of the same one
    QString date = QStringLiteral("2026-03-01");
    QString language = QStringLiteral("en");
    quint64 bhr = 0x10A2B3C4D5; ///< hardware version word
    QString imei = QStringLiteral("350000000000017");
    quint32 mask = 0; ///< log mask in force after power-up

    std::optional<quint32> reported_mask; ///< told in the answer to a log mask, in place of the one in force
    LogSettings log;
    bool logs_always = false; ///< send the log irrespective of the mask, and around every answer
    TransferSettings transfers;

    QHash<QByteArray, QByteArray> fixed_answers; ///< payload to answer a key with, in place of the true one
    QSet<QByteArray> silent_keys;                ///< requests that get no answer
    QSet<QByteArray> vanishing_keys;             ///< requests on which the terminal drops off the bus without an answer
    QHash<RequestNumber, quint8> statuses;       ///< requests for files to refuse, with the status to give
    QSet<RequestNumber> foreign_answers;         ///< answers to precede with one for another kind of file

    quint32 seed = 1;     ///< of the rates below
    int error_rate = 0;   ///< one in N requests for files is refused; 0: none
    int foreign_rate = 0; ///< one in N answers about files is preceded by a foreign one; 0: none

    DropPoint drop;
    bool restarts_before_firmware_answer = false; ///< answer the apply of firmware only by a restart, 1 s later
    QByteArray last_bytes;                        ///< sent just before dropping off the bus
};

/// The terminal itself: requests in, answers out, no port. It judges requests strictly: one that is not well-formed is
/// reported and gets no answer, one about files that is out of place is reported and refused.
class Terminal : public QObject {
    Q_OBJECT

public:
    explicit Terminal(TerminalSettings settings, QObject *parent = nullptr);

    /// Every key that a request may carry.
    static QList<QByteArray> keys();
    /// Those among them that are about files.
    static QList<QByteArray> fileKeys();

    /// Takes bytes from the line, in pieces of any size. While the terminal is off the bus they are ignored; between an
    /// accepted apply and the return there should be none, and they are reported as malformed.
    void receive(const QByteArray &bytes);

    /// The line is gone or the run ends: reports bytes of a packet that never became complete.
    void loseLine();

    /// Sends the next record of the log. Returns false when none is due: the mask lets none through, all have been sent
    /// or the terminal is off the bus.
    bool sendLogRecord();

    /// Comes back on the bus as after power-up: the log mask is the initial one, transfers are forgotten.
    void powerUp();

Q_SIGNALS:
    /// A whole packet with correct checksums came in, \a packet includes its header.
    void packetReceived(const QByteArray &packet);
    /// The answer to the request that was received last.
    void answered(const QByteArray &packet);
    /// The terminal sends \a bytes on its own account.
    void volunteered(const QByteArray &bytes);
    /// The terminal drops off the bus, after everything emitted so far has gone out.
    void droppedOff();
    /// Something that is no well-formed request came in, and gets no answer. \a reason is one line of English.
    void malformedReceived(const QString &reason, const QByteArray &bytes);
    /// A well-formed request came in that is about no kind of file or contradicts the transfer under way; its refusal
    /// follows, unless a fault takes it away. \a reason is one line of English, \a packet includes its header.
    void misplacedReceived(const QString &reason, const QByteArray &packet);

private:
    struct Command;

    static const Command *findCommand(QByteArrayView body);
    static QString faultOf(const Command *command, QByteArrayView body);

    void handlePacket(const QByteArray &packet);
    void handleRequest(const QByteArray &packet);
    void serve(const Command &command, const QByteArray &packet);
    Reply replyTo(const Command &command, const RequestNumber &number, const QByteArray &payload);
    void sendAnswer(const Command &command, const RequestNumber &number, const QByteArray &payload);
    bool precedesWithForeign(const Command &command, const RequestNumber &number);
    [[nodiscard]] quint32 effectiveMask() const;
    Reply refuse(quint8 status, const QByteArray &payload);
    void restart(bool has_answered);
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
    LogSource _log;
    Dice _dice;
    int _packet_count = 0;
    QHash<QByteArray, int> _request_counts;
    QByteArray _stream;
    QString _software_version;
    quint32 _mask;
    bool _on_bus = true;
    bool _is_applying = false; ///< an apply was accepted, and the terminal is not back yet
    bool _has_heard = false;   ///< whether any byte came in since power-up
};
