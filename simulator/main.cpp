#include "options.h"
#include "simulation.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int exitOrderly = 0;
constexpr int exitComplained = 1;
constexpr int exitFailed = 2;

// A signal handler may do next to nothing, so it wakes the event loop through a pipe.
std::array<int, 2> signalPipe{-1, -1};

extern "C" void wakeEventLoop(int /*signal*/)
{
    const char byte = 0;
    [[maybe_unused]] const auto written = ::write(signalPipe[1], &byte, 1);
}

bool catchSignals()
{
    if (::pipe2(signalPipe.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    struct sigaction action { };
    action.sa_handler = wakeEventLoop;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        ::sigaction(signal, &action, nullptr);
    // A reader of standard error that went away must not keep the port's name from being removed.
    return std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
}

/// Ends the event loop when standard input ends; what comes before that is of no interest.
void quitAtEndOfInput()
{
    std::array<char, 4096> ignored{};
    if (::read(STDIN_FILENO, ignored.data(), ignored.size()) <= 0)
        QCoreApplication::quit();
}

int fail(const QString &why)
{
    std::fprintf(stderr, "jvx-simulator: %s\n", qUtf8Printable(why));
    return exitFailed;
}

void quitFailed(const QString &why)
{
    QCoreApplication::exit(fail(why));
}

int run(const Options &options)
{
    if (!catchSignals())
        return fail(QStringLiteral("cannot catch signals"));
    const QSocketNotifier signalNotifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, qApp, &QCoreApplication::quit);

    QSocketNotifier inputNotifier(STDIN_FILENO, QSocketNotifier::Read);
    inputNotifier.setEnabled(options.untilEof);
    QObject::connect(&inputNotifier, &QSocketNotifier::activated, qApp, quitAtEndOfInput);

    Simulation simulation(options);
    QObject::connect(&simulation, &Simulation::failed, qApp, quitFailed);
    if (!simulation.start())
        return fail(simulation.errorString());
    const int status = QCoreApplication::exec();
    simulation.finish();
    if (status != exitOrderly)
        return status;
    return simulation.hasComplained() ? exitComplained : exitOrderly;
}

int obey(const Options &options)
{
    switch (options.action) {
    case Options::Action::ShowHelp:
        std::fputs(qUtf8Printable(options.help), stdout);
        return exitOrderly;
    case Options::Action::ShowVersion:
        std::printf("jvx-simulator %s\n", JVX_VERSION);
        return exitOrderly;
    case Options::Action::Run:
        return run(options);
    }
    Q_UNREACHABLE();
}

} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("jvx-simulator"));
    try {
        return obey(parseOptions(QCoreApplication::arguments()));
    } catch (const UsageError &error) {
        return fail(QString::fromUtf8(error.what()));
    }
}
