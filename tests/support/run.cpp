#include "run.h"

#include <QTest>

#include <algorithm>
#include <memory>

namespace {

constexpr qsizetype shown_before_a_difference = 40; // bytes to recognize the place by

/// \a text from shortly before the place on where it begins to differ from \a other.
QByteArray differingPart(const QByteArray &text, const QByteArray &other)
{
    const auto place = std::mismatch(text.cbegin(), text.cend(), other.cbegin(), other.cend()).first;
    const qsizetype from = std::max(qsizetype{0}, place - text.cbegin() - shown_before_a_difference);
    const std::unique_ptr<char[]> part(QTest::toPrettyCString(text.constData() + from, text.size() - from));
    return (from > 0 ? "from byte " + QByteArray::number(from) + " on " : QByteArray()) + part.get();
}

/// The exit code of \a run, and its output and errors where they differ from those of \a other.
QByteArray describe(const Run &run, const Run &other)
{
    QByteArray text = "exit code " + QByteArray::number(run.code);
    if (run.output != other.output)
        text += ", output " + differingPart(run.output, other.output);
    if (run.errors != other.errors)
        text += ", standard error " + differingPart(run.errors, other.errors);
    return text;
}

} // namespace

bool Run::operator==(const Run &other) const
{
    return code == other.code && output == other.output && errors == other.errors;
}

Run exits(int code, const QByteArray &output)
{
    Run run;
    run.code = code;
    run.output = output;
    return run;
}

Run fails(int code, const QByteArray &errors)
{
    Run run;
    run.code = code;
    run.errors = errors;
    return run;
}

Run withoutReason(Run run)
{
    static const QByteArray error("Error: ");
    const qsizetype reason = run.output.lastIndexOf(error) + error.size();
    const qsizetype end = run.output.indexOf('\n', reason);
    if (reason >= error.size() && end > reason && end == run.output.size() - 1)
        run.output.replace(reason, end - reason, "...");
    return run;
}

bool QTest::qCompare(
    const Run &run, const Run &expected, const char *run_text, const char *expected_text, const char *file, int line)
{
    if (run == expected)
        return true;
    const QByteArray message = QByteArray("The run is not as expected\n   Actual   (") + run_text
        + "): " + describe(run, expected) + "\n   Expected (" + expected_text + "): " + describe(expected, run);
    QTest::qFail(message.constData(), file, line);
    return false;
}
