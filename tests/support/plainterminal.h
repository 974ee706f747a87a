#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <chrono>

/// A minimal terminal: a pseudo-terminal, for answers that are exactly what a test wants, when it wants them. It has
/// one file, takes every request as it comes and acknowledges every piece.
class PlainTerminal {
public:
    /// A terminal with this \a file, whatever its kind.
    explicit PlainTerminal(QByteArray file = {});

    ~PlainTerminal();

    PlainTerminal(const PlainTerminal &) = delete;
    PlainTerminal &operator=(const PlainTerminal &) = delete;

    /// The port to name to the tool. A link of its own: the system gives the number of a pseudo-terminal to the next
    /// one, which a lock left behind would block.
    QString port() const { return _directory.filePath(QStringLiteral("terminal")); }

    /// The body of the next request; empty if there is none within \a limit.
    QByteArray request(std::chrono::milliseconds limit = std::chrono::seconds(10));

    /// The packet of the answer to \a request.
    QByteArray answerTo(const QByteArray &request) const;

    /// Sends \a bytes. Fails the test if the line does not take them within 10 s.
    void send(const QByteArray &bytes);

    /// Stops the line towards the terminal as flow control would: the next request is stuck.
    void jam();

    /// Fills the line towards the terminal. Returns how many bytes that took.
    qsizetype fill();

    /// Takes what fill() has put into the line, or what is left of it: newer versions of the framework empty the line
    /// when they open the port.
    void takeFilling();

    /// The next \a count bytes from the line, without a look at what they are; fewer if none comes within \a limit.
    QByteArray take(qsizetype count, std::chrono::milliseconds limit = std::chrono::seconds(10));

    /// Takes its port away, at once: what was not read by then is lost.
    void vanish();

private:
    QByteArray pieceAnswer(const QByteArray &request) const;

    const QTemporaryDir _directory;
    const QByteArray _file;
    int _master = -1;
    int _slave = -1;
    QByteArray _ahead; ///< the first byte of the next request, if it was taken already
};
