// The simulated terminal as a judge, on any bytes: a byte belongs to exactly one packet or complaint, what was reported
// as malformed is never answered, and what was reported as misplaced is refused.

#include "terminal.h"
#include "packets.h"
#include "target.h"

#include <zlib.h>

namespace {

constexpr qsizetype header_size = 16;

/// A number of 4 bytes at most.
quint32 numberAt(const QByteArray &bytes, qsizetype offset, int size)
{
    return static_cast<quint32>(packets::numberAt(bytes, offset, size));
}

/// Whether \a bytes are one packet with right checksums.
bool isPacket(const QByteArray &bytes)
{
    return bytes.size() > header_size + 2 && bytes.startsWith("@JVX")
        && numberAt(bytes, 12, 2) == bytes.size() - header_size
        && bytes[14] == packets::exclusiveOr(bytes.sliced(header_size))
        && bytes[15] == packets::exclusiveOr(bytes.first(15));
}

/// How the terminal misbehaves in this run, all of it rarely.
TerminalSettings settingsFrom(Input &input)
{
    constexpr qsizetype piece_size = 512;
    const quint8 oddities = input.byte();
    TerminalSettings settings;
    settings.log.start = 1'700'000'000;
    settings.log.count = 20;
    settings.logs_always = (oddities & 0x01) != 0;
    if ((oddities & 0x02) != 0)
        settings.transfers.accept = 1 + input.byte() * 2;
    if ((oddities & 0x04) != 0)
        settings.transfers.piece = std::min<qsizetype>(1 + input.byte() * 2, piece_size);
    if ((oddities & 0x08) != 0)
        settings.transfers.announced = input.number(2);
    if ((oddities & 0x10) != 0) {
        settings.seed = input.byte();
        settings.error_rate = input.byte();
        settings.foreign_rate = input.byte();
    }
    if ((oddities & 0x20) != 0)
        settings.drop = {input.byte(), (oddities & 0x01) != 0};
    if ((oddities & 0x40) != 0)
        settings.last_bytes = input.bytes();
    if ((oddities & 0x80) != 0) {
        const quint8 manner = input.byte() % 4;
        const QByteArrayList keys = manner == 3 ? Terminal::fileKeys() : Terminal::keys();
        const QByteArray key = keys.at(input.byte() % keys.size());
        if (manner == 0)
            settings.silent_keys.insert(key);
        else if (manner == 1)
            settings.vanishing_keys.insert(key);
        else if (manner == 2)
            settings.fixed_answers.insert(key, input.bytes());
        else {
            const int number = input.byte();
            settings.statuses.insert({key, number}, input.byte());
        }
    }
    return settings;
}

/// The terminal with the line to it, and what came of all bytes.
class Bench {
public:
    explicit Bench(const TerminalSettings &settings)
        : _terminal(settings)
        , _fixed_keys(settings.fixed_answers.keys())
    {
        QObject::connect(
            &_terminal, &Terminal::packetReceived, [this](const QByteArray &packet) { takePacket(packet); });
        QObject::connect(&_terminal, &Terminal::malformedReceived,
            [this](const QString &reason, const QByteArray &bytes) { takeMalformed(reason, bytes); });
        QObject::connect(&_terminal, &Terminal::misplacedReceived,
            [this](const QString &reason, const QByteArray &packet) { takeMisplaced(reason, packet); });
        QObject::connect(&_terminal, &Terminal::answered, [this](const QByteArray &packet) { takeAnswer(packet); });
        QObject::connect(&_terminal, &Terminal::droppedOff, [this] { _on_bus = false; });
    }

    void setPieceSize(qsizetype size) { _piece_size = size; }

    /// Sends \a bytes to the terminal, in pieces if a size is set.
    void send(const QByteArray &bytes)
    {
        const qsizetype size = _piece_size > 0 ? _piece_size : bytes.size();
        for (qsizetype begin = 0; begin < bytes.size(); begin += size)
            sendPiece(bytes.mid(begin, size));
    }

    void loseLine()
    {
        _current.clear();
        _terminal.loseLine();
        require(_waiting.isEmpty(), "the end of the line reports the bytes that are left");
    }

    void powerUp()
    {
        if (_on_bus)
            return;
        _terminal.powerUp();
        _on_bus = true;
    }

    void sendLogRecord()
    {
        const bool sent = _terminal.sendLogRecord();
        require(_on_bus || !sent, "a terminal off the bus is silent");
    }

    [[nodiscard]] quint32 handle() const { return _handle; }
    [[nodiscard]] quint32 position() const { return _position; }

private:
    void sendPiece(const QByteArray &bytes)
    {
        _waiting.append(bytes);
        _terminal.receive(bytes);
        if (!_on_bus)
            _waiting.clear();
        require(_waiting.size() < header_size || _waiting.size() < header_size + numberAt(_waiting, 12, 2),
            "no whole packet is left waiting");
    }

    void takePacket(const QByteArray &packet)
    {
        consume(packet);
        require(isPacket(packet), "what is called a packet is one");
        _current = packet;
        _is_misplaced = false;
    }

    /// Either the packet that came last, or bytes that are none.
    void takeMalformed(const QString &reason, const QByteArray &bytes)
    {
        require(!reason.isEmpty() && !bytes.isEmpty(), "a complaint says of what and why");
        if (const QByteArray packet = std::exchange(_current, {}); packet.isEmpty() || bytes != packet)
            consume(bytes);
    }

    void takeMisplaced(const QString &reason, const QByteArray &packet)
    {
        require(!reason.isEmpty(), "a complaint says why");
        require(!_current.isEmpty() && packet == _current && !_is_misplaced, "what is misplaced is a packet, once");
        _is_misplaced = true;
    }

    void takeAnswer(const QByteArray &answer)
    {
        require(_on_bus, "a terminal off the bus is silent");
        require(isPacket(answer), "an answer is a packet");
        require(!_current.isEmpty(), "an answer follows its packet, once");
        const QByteArray request = std::exchange(_current, {}).sliced(header_size);
        const QByteArray body = answer.sliced(header_size);
        require(body.startsWith((request[1] == '?' ? "*#" : "*@") + keyOf(request)),
            "an answer bears the direction and key of its request");
        if (isFixed(request))
            return;
        const bool is_about_file = body.startsWith("*@F");
        const bool is_refusal = is_about_file && body.size() == 6 && body[4] != '1';
        require(!_is_misplaced || is_refusal, "what was reported as misplaced is refused");
        if (is_about_file && body.size() >= 16) {
            _handle = numberAt(body, 6, 4);
            _position = numberAt(body, 10, 4) + numberAt(body, 14, 2);
        }
    }

    /// No key is the beginning of another one.
    static QByteArray keyOf(const QByteArray &request)
    {
        const QByteArrayList keys = Terminal::keys();
        const auto key = std::find_if(keys.begin(), keys.end(),
            [&request](const QByteArray &each) { return request.sliced(2).startsWith(each); });
        require(key != keys.end(), "only requests with a key are answered");
        return *key;
    }

    [[nodiscard]] bool isFixed(const QByteArray &request) const
    {
        return std::any_of(_fixed_keys.begin(), _fixed_keys.end(),
            [&request](const QByteArray &key) { return request.sliced(2).startsWith(key); });
    }

    void consume(const QByteArray &bytes)
    {
        require(_waiting.startsWith(bytes), "bytes are judged once, in the order in which they came");
        _waiting.remove(0, bytes.size());
    }

    Terminal _terminal;
    const QByteArrayList _fixed_keys;
    qsizetype _piece_size = 0;
    bool _on_bus = true;
    QByteArray _waiting; ///< sent, and neither packet nor complaint yet
    QByteArray _current; ///< the packet that may be answered or complained about; none once it was malformed
    bool _is_misplaced = false;
    quint32 _handle = 0;   ///< of the latest answer about a file
    quint32 _position = 0; ///< behind the piece that it was about
};

/// A field of a request: the one that fits, or another one.
quint32 field(Input &input, quint32 fitting, int size)
{
    return input.byte() % 8 != 0 ? fitting : input.number(size);
}

/// A transfer as the tool does it, one request at a time, with a field changed now and then.
class Tool {
public:
    explicit Tool(Bench &bench)
        : _bench(bench)
    {
    }

    void read(Input &input)
    {
        const bool is_first = input.byte() % 4 == 0;
        _kind = is_first ? input.byte() % 13 : _kind;
        const quint32 handle = field(input, is_first ? 0 : _bench.handle(), 4);
        const quint32 offset = field(input, is_first ? 0 : _bench.position(), 4);
        const quint32 length = field(input, 512, 2);
        _bench.send(packets::request("*!FR" + packets::number(_kind, 1) + packets::number(handle, 4)
            + packets::number(offset, 4) + packets::number(length, 2)));
    }

    void write(Input &input)
    {
        const bool is_first = input.byte() % 4 == 0;
        if (is_first) {
            _kind = input.byte() % 13;
            const auto size = static_cast<qsizetype>(input.number(2) % 1600);
            _file = QByteArray(size, static_cast<char>(input.byte()));
        }
        const quint32 handle = field(input, is_first ? 0 : _bench.handle(), 4);
        const quint32 offset = field(input, is_first ? 0 : _bench.position(), 4);
        const QByteArray piece = _file.mid(offset, 512);
        const quint32 length = field(input, static_cast<quint32>(piece.size()), 2);
        const quint32 total = field(input, static_cast<quint32>(_file.size()), 4);
        _bench.send(packets::request("*!FW" + packets::number(_kind, 1) + packets::number(handle, 4)
            + packets::number(offset, 4) + packets::number(length, 2) + packets::number(total, 4) + piece));
    }

    void apply(Input &input)
    {
        const auto *bytes = reinterpret_cast<const Bytef *>(_file.constData());
        const auto checksum = static_cast<quint32>(::crc32_z(0, bytes, static_cast<z_size_t>(_file.size())));
        const quint32 kind = field(input, _kind, 1);
        const quint32 handle = field(input, 0, 4);
        const quint32 told_checksum = field(input, checksum, 4);
        _bench.send(packets::request(
            "*!FU" + packets::number(kind, 1) + packets::number(handle, 4) + packets::number(told_checksum, 4)));
    }

private:
    Bench &_bench;
    quint32 _kind = 0;
    QByteArray _file;
};

void sendRequest(Bench &bench, Input &input)
{
    const QByteArrayList keys = Terminal::keys();
    const QByteArray directed = input.byte() % 2 == 0 ? "*?" : "*!";
    const QByteArray key = keys.at(input.byte() % keys.size());
    bench.send(packets::request(directed + key + input.bytes()));
}

void step(Bench &bench, Tool &tool, Input &input)
{
    switch (input.byte() % 10) {
    case 0:
        return bench.send(input.bytes());
    case 1:
        return bench.send(packets::request(input.bytes()));
    case 2:
        return sendRequest(bench, input);
    case 3:
        return tool.read(input);
    case 4:
        return tool.write(input);
    case 5:
        return tool.apply(input);
    case 6:
        return bench.powerUp();
    case 7:
        return bench.loseLine();
    case 8:
        return bench.sendLogRecord();
    default:
        return bench.setPieceSize(input.byte());
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Input input(data, size);
    Bench bench(settingsFrom(input));
    Tool tool(bench);
    while (!input.isAtEnd())
        step(bench, tool, input);
    bench.loseLine();
    return 0;
}
