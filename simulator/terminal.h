#pragma once

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>

/// Who the terminal says it is and how it behaves.
struct TerminalSettings {
    QString name = QStringLiteral("JVX terminal");
    QString softwareVersion = QStringLiteral("1.4.2");
    QString date = QStringLiteral("2026-03-01");
    QString language = QStringLiteral("en");
    quint64 bhr = 0x10A2B3C4D5; ///< hardware version word
    QString imei = QStringLiteral("350000000000017");
    quint32 mask = 0; ///< log mask in force after power-up

    QHash<QByteArray, QByteArray> fixedAnswers; ///< payload to answer a key with, in place of the true one
    QSet<QByteArray> silentKeys;                ///< requests that get no answer
    QSet<QByteArray> vanishingKeys;             ///< requests on which the terminal drops off the bus without an answer
};

/// The terminal itself: requests in, answers out, no port. It judges requests strictly; one that is not well-formed is
/// reported and gets no answer.
class Terminal : public QObject {
    Q_OBJECT

public:
    explicit Terminal(TerminalSettings settings, QObject *parent = nullptr);

    /// Every key that a request may carry.
    static QList<QByteArray> keys();

    /// Takes bytes from the line, in pieces of any size. Does nothing while the terminal is off the bus.
    void receive(const QByteArray &bytes);

    /// The line is gone or the run ends: reports bytes of a packet that never became complete.
    void loseLine();

    /// Comes back on the bus as after power-up: the log mask is the initial one.
    void powerUp();

Q_SIGNALS:
    /// A whole packet with correct checksums came in, @a packet includes its header.
    void packetReceived(const QByteArray &packet);
    /// The answer to the request that was received last.
    void answered(const QByteArray &packet);
    /// The terminal drops off the bus, after the answers emitted so far have gone out.
    void droppedOff();
    /// Something that is no correct request came in. @a reason is one line of English.
    void malformedReceived(const QString &reason, const QByteArray &bytes);

private:
    struct Command;

    static const Command *findCommand(QByteArrayView body);
    static QString faultOf(const Command *command, QByteArrayView body);

    void handlePacket(const QByteArray &packet);
    void serve(const Command &command, const QByteArray &payload);
    void sendAnswer(const Command &command, const QByteArray &payload);
    void dropOff();

    QByteArray softwareVersion(const QByteArray &payload);
    QByteArray hardwareVersion(const QByteArray &payload);
    QByteArray serialNumber(const QByteArray &payload);
    QByteArray setLogMask(const QByteArray &payload);

    const TerminalSettings _settings;
    QByteArray _stream;
    quint32 _mask;
    bool _on_bus = true;
};
