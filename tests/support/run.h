#pragma once

#include <QByteArray>

constexpr int hung = -1; ///< was still running at the end of its time, and killed

/// The code of a run that \a signal ended, SIGTERM for example.
constexpr int endedBy(int signal)
{
    return hung - signal;
}

/// What came of a run of the tool. Two runs are equal if exit code, output and standard error are.
struct Run {
    int code = 0;            ///< as a shell sees it, 0 to 255: 155 is -101; or endedBy(), or hung
    QByteArray output;       ///< standard output
    QByteArray errors;       ///< standard error
    qint64 milliseconds = 0; ///< from start to end

    bool operator==(const Run &other) const;
};

/// A run that ends with \a code and has nothing to say but \a output.
Run exits(int code, const QByteArray &output);

/// A run that ends with \a code and has nothing to say but \a errors, on standard error.
Run fails(int code, const QByteArray &errors);

/// \a run with "..." in place of the reason, which the system words, in its last line "Error: REASON".
Run withoutReason(Run run);

namespace QTest {

/// What QCOMPARE does with two runs: a failure shows where they begin to differ, which may be far behind the part of a
/// long output that would be shown otherwise.
bool qCompare(
    const Run &run, const Run &expected, const char *run_text, const char *expected_text, const char *file, int line);

} // namespace QTest
