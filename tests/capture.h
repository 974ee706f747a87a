#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <iostream>
#include <sstream>

/// Takes what is written to a stream, std::cout unless told otherwise, for as long as it lives.
class Capture {
public:
    explicit Capture(std::ostream &stream = std::cout)
        : _stream(stream)
        , _original(stream.rdbuf(&_buffer))
    {
    }
    ~Capture() { _stream.rdbuf(_original); }
    Q_DISABLE_COPY_MOVE(Capture)

    /// Every byte written so far, flushed or not.
    [[nodiscard]] QByteArray written() const { return QByteArray::fromStdString(_buffer.str()); }

    /// How often the stream was flushed.
    [[nodiscard]] int flushes() const { return _buffer.flushes; }

    /// What was written up to the last flush: all that the reader of a pipe has seen by now.
    [[nodiscard]] QByteArray flushed() const { return _buffer.flushed; }

private:
    struct Buffer : std::stringbuf {
        Buffer()
            : std::stringbuf(std::ios_base::out)
        {
        }

        int sync() override
        {
            ++flushes;
            flushed = QByteArray::fromStdString(str());
            return 0;
        }

        int flushes = 0;
        QByteArray flushed;
    };

    Buffer _buffer;
    std::ostream &_stream;
    std::streambuf *_original;
};
