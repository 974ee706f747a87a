#include "options.h"
#include "simulation.h"

#include <QCoreApplication>
#include <QFile>
#include <QSocketNotifier>

#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr int exit_orderly = 0;
constexpr int exit_complained = 1;
constexpr int exit_failed = 2;

// A signal handler may do next to nothing, so it wakes the event loop through a pipe.
std::array<int, 2> signal_pipe{-1, -1};

extern "C" void wakeEventLoop(int /*signal*/)
{
    const char byte = 0;
    [[maybe_unused]] const auto written = ::write(signal_pipe[1], &byte, 1);
}

bool catchSignals()
{
    if (::pipe2(signal_pipe.data(), O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    struct sigaction action { };
    action.sa_handler = wakeEventLoop;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        ::sigaction(signal, &action, nullptr);
    // Otherwise a message that nobody reads would end the process before it removes the port's name.
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
    return exit_failed;
}

/// Tells whoever started the simulator that the port can be opened from now on.
void announce(const QString &port)
{
    std::printf("Serial port ready: %s\n", QFile::encodeName(port).constData());
    std::fflush(stdout);
}

void quitFailed(const QString &why)
{
    QCoreApplication::exit(fail(why));
}

int run(const Options &options)
{
    if (!catchSignals())
        return fail(QStringLiteral("cannot catch signals"));
    const QSocketNotifier signal_notifier(signal_pipe[0], QSocketNotifier::Read);
    QObject::connect(&signal_notifier, &QSocketNotifier::activated, qApp, &QCoreApplication::quit);

    QSocketNotifier input_notifier(STDIN_FILENO, QSocketNotifier::Read);
    input_notifier.setEnabled(options.until_eof);
    QObject::connect(&input_notifier, &QSocketNotifier::activated, qApp, quitAtEndOfInput);

    Simulation simulation(options);
    QObject::connect(&simulation, &Simulation::failed, qApp, quitFailed);
    if (!simulation.start())
        return fail(simulation.errorString());
    announce(options.link);
    const int status = QCoreApplication::exec();
    simulation.finish();
    if (status != exit_orderly)
        return status;
    return simulation.hasComplained() ? exit_complained : exit_orderly;
}

int obey(const Options &options)
{
    switch (options.action) {
    case Options::Action::ShowHelp:
        std::fputs(qUtf8Printable(options.help), stdout);
        return exit_orderly;
    case Options::Action::ShowVersion:
        std::printf("jvx-simulator %s\n", JVX_VERSION);
        return exit_orderly;
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
