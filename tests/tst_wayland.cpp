#include "console.h"
#include "displayserver.h"
#include "lifeline.h"
#include "simulatedterminal.h"
#include "testbed.h"
#include "tool.h"

#include <QFileInfo>
#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>
#include <QTest>

namespace {

/// A compositor that fills its screen with one window, on the display of the environment; it ends with the test.
class Compositor {
public:
    Compositor()
    {
        QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
        variables.insert(QStringLiteral("XDG_RUNTIME_DIR"), _directory.path());
        _process.setProcessEnvironment(variables);
        _process.setChildProcessModifier(endWithTheTest);
        _process.start(QStringLiteral("weston"),
            words("--backend=x11-backend.so --use-pixman --width=640 --height=480 --shell=kiosk-shell.so "
                  "--socket=compositor --idle-time=0 --no-config"));
        const QString socket = _directory.filePath(QStringLiteral("compositor"));
        if (!QTest::qWaitFor([&socket] { return QFileInfo::exists(socket); }, 30'000))
            qFatal("weston did not start");
        QFile::link(socket, _directory.filePath(QStringLiteral("wayland-0")));
    }

    ~Compositor()
    {
        _process.terminate();
        _process.waitForFinished();
    }

    Compositor(const Compositor &) = delete;
    Compositor &operator=(const Compositor &) = delete;

    /// What a program needs to find it.
    QStringList environment() const { return directory() + QStringList{QStringLiteral("WAYLAND_DISPLAY=compositor")}; }

    QStringList directory() const { return {QStringLiteral("XDG_RUNTIME_DIR=") + _directory.path()}; }

    /// Whether there is a window, which is bright, on the screen, which is dark.
    static bool showsWindow() { return screen().pixelColor(2, 2).lightness() > 200; }

    /// Whether one of the first rows of the list is selected: only a selection is coloured at the end of a row.
    static bool showsSelection()
    {
        const QImage image = screen();
        bool is_coloured = false;
        for (int y = 0; y < 200; ++y)
            is_coloured = is_coloured || image.pixelColor(600, y).saturation() > 100;
        return is_coloured;
    }

private:
    static QImage screen() { return QGuiApplication::primaryScreen()->grabWindow(0, 0, 0, 640, 480).toImage(); }

    const QTemporaryDir _directory;
    QProcess _process;
};

const QList<FakedPort> two_ports{terminalPort(0, "1-2"), terminalPort(1, "1-1")};

/// Selects the last row, and hits the keys then.
void hit(const char *keys)
{
    if (!QTest::qWaitFor(Compositor::showsWindow, 10'000))
        QTest::qFail("no window appeared", __FILE__, __LINE__);
    xdotool(words("mousemove 320 240"));
    // Keys are lost until the window has the keyboard.
    const auto select_last = [] {
        xdotool(words("key End"));
        return Compositor::showsSelection();
    };
    if (!QTest::qWaitFor(select_last, 10'000))
        QTest::qFail("nothing is selected", __FILE__, __LINE__);
    xdotool(QStringList{QStringLiteral("key")} + words(keys));
}

} // namespace

/// The port selection under a Wayland compositor, whose screen is a window of an X server that nobody looks at.
class WaylandTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void thePortIsSelectedInAWindow_data();
    void thePortIsSelectedInAWindow();
    void withoutASelectionNothingStarts();
    void theDesktopDecidesBetweenItsDisplays_data();
    void theDesktopDecidesBetweenItsDisplays();

private:
    const Compositor _compositor;
};

// The screen may still show the window of the run before.
void WaylandTest::init()
{
    QTRY_VERIFY(!Compositor::showsWindow());
}

void WaylandTest::thePortIsSelectedInAWindow_data()
{
    QTest::addColumn<QString>("dispatcher");
    QTest::addColumn<QByteArray>("keys");
    QTest::addColumn<int>("chosen");
    QTest::newRow("second") << QStringLiteral("QT_NO_GLIB") << QByteArray("Return") << 0;
    QTest::newRow("first") << QStringLiteral("QT_NO_GLIB") << QByteArray("Up Return") << 1;
    QTest::newRow("second, with the dispatcher of GLib") << QStringLiteral("QT_NO_GLIB=") << QByteArray("Return") << 0;
}

void WaylandTest::thePortIsSelectedInAWindow()
{
    QFETCH(const QString, dispatcher);
    QFETCH(const QByteArray, keys);
    QFETCH(const int, chosen);
    SimulatedTerminal terminal;
    Testbed testbed(two_ports);
    testbed.connect(chosen, terminal);
    Tool tool = testbed.start({}, _compositor.environment() + QStringList{dispatcher});
    hit(keys);
    QCOMPARE(tool.finish(), exits(0, console::identification(portName(chosen))));
}

void WaylandTest::withoutASelectionNothingStarts()
{
    const Testbed testbed(two_ports);
    Tool tool = testbed.start({}, _compositor.environment());
    hit("Escape");
    QCOMPARE(tool.finish(), exits(256 - 103, "Serial port is not selected\n"));
}

void WaylandTest::theDesktopDecidesBetweenItsDisplays_data()
{
    QTest::addColumn<QByteArray>("desktop");
    QTest::addColumn<QByteArray>("taken");
    QTest::newRow("any") << QByteArray("WAYLAND_DISPLAY=compositor") << QByteArray("libqwayland-");
    QTest::newRow("a Wayland session") << QByteArray("XDG_SESSION_TYPE=wayland") << QByteArray("libqwayland-");
    QTest::newRow("an X session") << QByteArray("XDG_SESSION_TYPE=x11") << QByteArray("libqxcb");
    QTest::newRow("GNOME") << QByteArray("WAYLAND_DISPLAY=compositor XDG_CURRENT_DESKTOP=ubuntu:GNOME")
                           << QByteArray("libqxcb");
    QTest::newRow("KDE") << QByteArray("WAYLAND_DISPLAY=compositor XDG_CURRENT_DESKTOP=KDE")
                         << QByteArray("libqwayland-");
}

// The framework logs which plugin it loads. Both displays work, so it does not have to try a second plugin.
void WaylandTest::theDesktopDecidesBetweenItsDisplays()
{
    QFETCH(const QByteArray, desktop);
    const QStringList environment = _compositor.directory() + words(desktop.constData())
        + QStringList{QStringLiteral("DISPLAY=") + qEnvironmentVariable("DISPLAY"),
            QStringLiteral("QT_LOGGING_RULES=qt.core.library=true")};
    const Run run = Tool(words("--version"), environment).finish();
    QCOMPARE(run.code, 0);
    const QByteArrayView folder("/platforms/");
    const QByteArray loaded = run.errors.mid(run.errors.indexOf(folder) + folder.size());
    QFETCH(const QByteArray, taken);
    QVERIFY2(loaded.startsWith(taken), run.errors.constData());
}

int main(int argc, char *argv[])
{
    const DisplayServer server;
    server.adopt();
    const QGuiApplication application(argc, argv);
    WaylandTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_wayland.moc"
