#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QSerialPort>

#include <algorithm>
#include <cstring>
#include <utility>

/// A serial port without a device: what is written to it is kept for the test, and the test says what arrives.
class PortDouble : public QSerialPort {
public:
    PortDouble() { openAgain(); }
    ~PortDouble() override { close(); } // QSerialPort's own destructor would touch a device

    PortDouble(const PortDouble &) = delete;
    PortDouble &operator=(const PortDouble &) = delete;

    /// Opens the port again after close().
    void openAgain() { QIODevice::open(QIODevice::ReadWrite | QIODevice::Unbuffered); }

    void close() override
    {
        QIODevice::close();
        _arrived.clear();
    }

    /// What each call of write() wrote, oldest first.
    const QByteArrayList &written() const { return _written; }

    /// The bytes of the latest write, empty if there was none.
    QByteArray lastWritten() const { return _written.value(_written.size() - 1); }

    /// The test's side sends \a bytes, which arrive in one read.
    void deliver(const QByteArray &bytes)
    {
        _arrived.append(bytes);
        Q_EMIT readyRead();
    }

    /// The same in reads of \a size bytes, 1 or more.
    void deliverInPieces(const QByteArray &bytes, qsizetype size)
    {
        for (qsizetype begin = 0; begin < bytes.size(); begin += size)
            deliver(bytes.mid(begin, size));
    }

    /// Reports \a error as the real port does, with \a text as its error string.
    void fail(SerialPortError error, const QString &text)
    {
        setErrorString(text);
        Q_EMIT errorOccurred(error);
    }

    /// Makes the next write fail with \a error, which is reported while it goes on.
    void failNextWrite(SerialPortError error, const QString &text)
    {
        _next_error = error;
        _next_error_text = text;
    }

    qint64 bytesAvailable() const override { return _arrived.size() + QIODevice::bytesAvailable(); }

protected:
    qint64 readData(char *data, qint64 max_size) override
    {
        const qsizetype size = std::min<qsizetype>(max_size, _arrived.size());
        std::memcpy(data, _arrived.constData(), static_cast<std::size_t>(size));
        _arrived.remove(0, size);
        return size;
    }

    qint64 writeData(const char *data, qint64 size) override
    {
        if (_next_error != NoError) {
            fail(std::exchange(_next_error, NoError), _next_error_text);
            return -1;
        }
        _written.append(QByteArray(data, size));
        Q_EMIT bytesWritten(size);
        return size;
    }

private:
    QByteArray _arrived;
    QByteArrayList _written;
    SerialPortError _next_error = NoError;
    QString _next_error_text;
};
