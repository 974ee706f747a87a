#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

/// A trace of the wire for fault reports: lines on standard error, each with the local time to the microsecond, in the
/// framework's logging category "jvx.wire". It is off by default, and costs a comparison a line then; the rule
/// "jvx.wire.debug=true" in the environment variable QT_LOGGING_RULES switches it on.
namespace jvxb::trace {

/// The name of a request, as "?V".
struct Name {
    char direction; ///< direction character of the request
    const QByteArray &key;
};

/// The run begins: tells version, system, framework and date, and the serial ports that the system has.
void began();

/// The serial port \a name is taken for the run, empty if none is, for the reason \a why.
void taken(const QString &name, const char *why);

/// The serial port \a name was opened.
void opened(const QString &name);

/// The serial port \a name is being closed.
void closed(const QString &name);

/// The serial port reported the error \a text.
void failed(const QString &text);

/// The request \a name goes out, with a payload of \a payload_size bytes, as the bytes \a packet.
void sent(const Name &name, qsizetype payload_size, const QByteArray &packet);

/// The answer time of the request \a name has run out.
void timedOut(const Name &name);

/// The received bytes \a skipped are passed over, for the reason given; the first ones of them are shown.
void skipped(QByteArrayView skipped, const char *reason);

/// The received bytes \a bytes make no packet, and no more have come; the first ones of them are shown. Tells nothing
/// if there are none.
void left(QByteArrayView bytes);

/// A body with valid checksums has come.
void received(const QByteArray &body);

/// The body that has come answers the pending request \a name.
void answers(const Name &name);

/// The body that has come is no message, and no pending request takes it for its answer.
void unexpected();

} // namespace jvxb::trace
