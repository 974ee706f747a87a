#pragma once

#include <QByteArray>
#include <QString>

/// A trace of the wire for fault reports: lines on standard error, each with the local time to the microsecond, in the
/// framework's logging category "jvx.wire". It is off by default, and costs a comparison a line then; the rule
/// "jvx.wire.debug=true" in the environment variable QT_LOGGING_RULES switches it on.
///
/// A request is named by its direction character and key, as "?V".
namespace jvxb::trace {

/// The serial port \a name was opened.
void opened(const QString &name);

/// The serial port \a name is being closed.
void closed(const QString &name);

/// The serial port reported the error \a text.
void failed(const QString &text);

/// The request \a name goes out, with a payload of \a payload_size bytes, as the bytes \a packet.
void sent(const QByteArray &name, qsizetype payload_size, const QByteArray &packet);

/// The answer time of the request \a name has run out.
void timedOut(const QByteArray &name);

/// \a count received bytes are passed over, for the reason given.
void skipped(qsizetype count, const char *reason);

/// A body with valid checksums has come.
void received(const QByteArray &body);

/// The body that has come answers the pending request \a name.
void answers(const QByteArray &name);

/// The body that has come is no message, and no pending request takes it for its answer.
void unexpected();

} // namespace jvxb::trace
