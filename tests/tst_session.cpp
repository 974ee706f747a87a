#include "localfiles.h"
#include "lock.h"
#include "simulatedterminal.h"
#include "tool.h"
#include "words.h"

#include <QFile>
#include <QTest>
#include <QtEndian>

#include <array>
#include <atomic>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

/// The sessions in docs/protocol.md are what the tool and the simulated terminal send each other.
class SessionTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theDocumentShowsWhatIsSent_data();
    void theDocumentShowsWhatIsSent();
};

namespace {

/// A tap between the tool and a terminal's port. It writes down the packets of both directions, in order and with the
/// names of their senders, as the document has them.
class Tap {
public:
    /// Taps the port of \a terminal, which may go away and come back.
    explicit Tap(const SimulatedTerminal &terminal)
        : _terminal(terminal.port())
        , _link(terminal.path(QStringLiteral("tap")))
        , _tool(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        if (::grantpt(_tool) != 0 || ::unlockpt(_tool) != 0)
            qFatal("no pseudo-terminal");
        QFile::link(QString::fromLocal8Bit(::ptsname(_tool)), _link);
        // Open as long as the tap is there: without anybody at the other end a read would fail.
        _port = openRaw(port());
        _thread = std::thread([this] { pass(); });
    }

    ~Tap()
    {
        finish();
        for (const int descriptor : {_tool, _port, _line})
            ::close(descriptor);
        removeLock(_link);
    }

    Tap(const Tap &) = delete;
    Tap &operator=(const Tap &) = delete;

    QString port() const { return _link; }

    /// Ends the tapping. Returns the packets that went by.
    QByteArrayList finish()
    {
        _ends = true;
        if (_thread.joinable())
            _thread.join();
        return _packets;
    }

private:
    static int openRaw(const QString &port)
    {
        const int descriptor = ::open(port.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        termios mode{};
        ::tcgetattr(descriptor, &mode);
        ::cfmakeraw(&mode);
        ::tcsetattr(descriptor, TCSANOW, &mode);
        return descriptor;
    }

    void pass()
    {
        QByteArray from_tool;
        QByteArray from_terminal;
        while (!_ends) {
            std::array<pollfd, 2> sources{{{_tool, POLLIN, 0}, {_line, POLLIN, 0}}};
            ::poll(sources.data(), sources.size(), 20);
            if (sources[0].revents != 0) {
                if (_line < 0)
                    _line = openRaw(_terminal);
                pass(_tool, _line, from_tool, "tool");
            }
            if (sources[1].revents != 0 && !pass(_line, _tool, from_terminal, "terminal")) {
                ::close(_line);
                _line = -1;
            }
        }
    }

    /// Passes on what \a source has, and writes down the packets that are complete. False: the source is gone.
    bool pass(int source, int target, QByteArray &pending, const char *sender)
    {
        std::array<char, 4096> bytes{};
        const auto size = ::read(source, bytes.data(), bytes.size());
        if (size <= 0)
            return false;
        pending.append(bytes.data(), size);
        while (const std::optional<QByteArray> packet = takePacket(pending))
            _packets += sender + (' ' + packet->toHex(' '));
        return ::write(target, bytes.data(), static_cast<size_t>(size)) == size;
    }

    static std::optional<QByteArray> takePacket(QByteArray &bytes)
    {
        if (bytes.size() < 16)
            return {};
        const qsizetype size = 16 + qFromLittleEndian<quint16>(bytes.constData() + 12);
        if (bytes.size() < size)
            return {};
        const QByteArray packet = bytes.first(size);
        bytes.remove(0, size);
        return packet;
    }

    const QString _terminal;
    const QString _link; ///< to the tap's own port, which the tool opens
    const int _tool;     ///< what the tool sends comes from here
    int _port = -1;
    int _line = -1; ///< to the terminal
    QByteArrayList _packets;
    std::atomic<bool> _ends = false;
    std::thread _thread;
};

/// The packets in the section \a title of the document, one to a line: further lines of a packet are indented deeper.
QByteArrayList documented(const QByteArray &title)
{
    QByteArrayList packets;
    bool in_section = false;
    for (const QByteArray &line : files::content(QStringLiteral(JVX_PROTOCOL)).split('\n')) {
        if (line.startsWith('#'))
            in_section = line == "## " + title || line == "### " + title;
        else if (in_section && (line.startsWith("    tool ") || line.startsWith("    terminal ")))
            packets += line.simplified();
        else if (in_section && line.startsWith("     ") && !packets.isEmpty())
            packets.back() += ' ' + line.simplified();
    }
    return packets;
}

} // namespace

void SessionTest::theDocumentShowsWhatIsSent_data()
{
    QTest::addColumn<QByteArray>("title");
    QTest::addColumn<QByteArray>("options");
    QTest::addColumn<int>("packets");
    // The identification is three requests with their answers.
    QTest::newRow("write, apply and log") << QByteArray("A session") << QByteArray("-wamf keys") << 6 + 6 + 1;
    QTest::newRow("read") << QByteArray("Reading a file") << QByteArray("-rf keys") << 6 + 4;
}

void SessionTest::theDocumentShowsWhatIsSent()
{
    QFETCH(QByteArray, title);
    QFETCH(QByteArray, options);
    FilingTerminal terminal(words("--log-rate 1 --log-count 1 --log-start 1772366400")); // 2026-03-01 12:00:00 UTC
    files::store(terminal.own(QStringLiteral("keys")), "123456789");
    const QString local = terminal.path(QStringLiteral("local.bin"));
    files::store(local, "123456789");
    Tap tap(terminal);
    Tool tool(argumentsOn(tap.port(), options, local));
    if (options.contains('m'))
        QVERIFY(tool.waitForOutput("ignition on"));
    else
        QCOMPARE(tool.finish().code, 0);
    const QByteArrayList packets = tap.finish();
    QTEST(static_cast<int>(packets.size()), "packets");
    // In the document the identification is shown once.
    const QByteArrayList shown = title == "A session" ? packets : packets.mid(6);
    if (documented(title) != shown)
        qWarning("the section \"%s\" should be:\n    %s", title.constData(), shown.join("\n    ").constData());
    QCOMPARE(documented(title), shown);
}

QTEST_GUILESS_MAIN(SessionTest)
#include "tst_session.moc"
