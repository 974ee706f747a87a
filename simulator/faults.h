#pragma once

#include "dice.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QObject>
#include <QTimer>

#include <chrono>

/// What is wrong with the line. "One in N" is a chance of 1/N for each, 0 for never.
struct FaultSettings {
    quint32 seed = 1;
    std::chrono::milliseconds latency{0}; ///< of every answer
    int split_size = 0;                   ///< write answers in pieces of so many bytes; 0: whole
    bool splits_at_random = false;        ///< write answers in pieces of random sizes
    int garbage = 0;         ///< precede every packet with 1 to so many bytes that belong to none; 0: with none
    int damaged_headers = 0; ///< one in N packets has one wrong bit in its header
    int damaged_bodies = 0;  ///< one in N packets has one wrong bit in its body
    int lost = 0;            ///< one in N answers
    int duplicated = 0;      ///< one in N answers
    int late = 0;            ///< one in N answers ...
    std::chrono::milliseconds lateness{0}; ///< ... by so much more than the latency
};

/// The line from the terminal to its port. Does to packets what a bad line does; a line without faults passes
/// everything on at once.
class FaultyLine : public QObject {
    Q_OBJECT

public:
    explicit FaultyLine(const FaultSettings &settings, QObject *parent = nullptr);

    /// Takes the packet of an answer. All faults apply.
    void sendAnswer(const QByteArray &packet);

    /// Takes what the terminal sends on its own account. It is never split, delayed, lost or duplicated.
    void sendMessage(const QByteArray &bytes);

    /// Whether an answer is being written in pieces right now; messages would have to queue up.
    [[nodiscard]] bool isWriting() const { return _pause_timer.isActive(); }

    /// Whether everything taken so far has been passed on.
    [[nodiscard]] bool isIdle() const { return _delayed == 0 && !isWriting(); }

Q_SIGNALS:
    void sent(const QByteArray &bytes);
    /// Everything taken so far has been passed on.
    void becameIdle();

private:
    QByteArray disturbed(const QByteArray &packet);
    QByteArray garbage();
    void flipOneBit(QByteArray &bytes, qsizetype begin, qsizetype end);
    QByteArrayList split(const QByteArray &bytes);

    void deliver(const QByteArrayList &pieces, std::chrono::milliseconds delay);
    void endDelay(const QByteArrayList &pieces);
    void write(const QByteArrayList &pieces);
    void writeNext();

    const FaultSettings _settings;
    Dice _dice;
    int _delayed = 0;      ///< answers that wait for their time
    QByteArrayList _queue; ///< pieces that wait for theirs
    QTimer _pause_timer;   ///< active as long as the queue is not empty
};
