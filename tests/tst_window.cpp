#include "console.h"
#include "displayserver.h"
#include "simulatedterminal.h"
#include "testbed.h"
#include "tool.h"

#include <QApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QListWidget>
#include <QPixmap>
#include <QPushButton>
#include <QScreen>
#include <QTest>
#include <QVBoxLayout>

#include <cstdlib>
#include <memory>
#include <xcb/xcb.h>

/// The user chooses among several terminals in a window, on a real display that nobody looks at.
class WindowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void theWindowShowsThePromptAndTheCandidates_data();
    void theWindowShowsThePromptAndTheCandidates();
    void theSelectedPortIsUsed_data();
    void theSelectedPortIsUsed();
    void withoutASelectionNothingStarts_data();
    void withoutASelectionNothingStarts();
    void aDoubleClickOnlySelects();
    void nobodyIsAskedWithoutNeed_data();
    void nobodyIsAskedWithoutNeed();
};

namespace {

/// The window as it has to look, built here once more, and the places in it to click on.
struct ExpectedWindow {
    explicit ExpectedWindow(const QStringList &candidates)
    {
        QDialog dialog;
        QLabel prompt(QStringLiteral("Select device serial port:"));
        QListWidget list;
        QDialogButtonBox buttons(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
        QVBoxLayout layout(&dialog);
        list.addItems(candidates);
        layout.addWidget(&prompt);
        layout.addWidget(&list);
        layout.addWidget(&buttons);
        dialog.show();
        dialog.activateWindow();
        if (!QTest::qWaitForWindowActive(&dialog))
            qWarning("no focus for the expected window");
        const auto isPainted = [&] {
            image = dialog.screen()->grabWindow(dialog.winId()).toImage();
            return image == dialog.grab().toImage().convertToFormat(image.format());
        };
        if (!QTest::qWaitFor(isPainted, 10'000))
            QTest::qFail("the expected window is not painted", __FILE__, __LINE__);
        for (int row = 0; row < list.count(); ++row)
            rows += list.viewport()->mapTo(&dialog, list.visualItemRect(list.item(row)).center());
        const auto center = [&](QDialogButtonBox::StandardButton which) {
            const QPushButton *const button = buttons.button(which);
            return button->mapTo(&dialog, button->rect().center());
        };
        ok = center(QDialogButtonBox::Ok);
        cancel = center(QDialogButtonBox::Cancel);
    }

    QImage image;
    QList<QPoint> rows;
    QPoint ok;
    QPoint cancel;
};

/// The window that the tool shows, in the hands of the user.
class ShownWindow {
public:
    ShownWindow()
    {
        const QStringList search{QStringLiteral("search"), QStringLiteral("--onlyvisible"), QStringLiteral("--class"),
            QStringLiteral("JVX file loader")};
        for (int attempt = 0; attempt < 200 && _id.isEmpty(); ++attempt) {
            QTest::qSleep(50);
            _id = QString::fromLatin1(xdotool(search).split('\n').constFirst());
        }
        if (_id.isEmpty())
            QTest::qFail("no window appeared", __FILE__, __LINE__);
        else
            xdotool({QStringLiteral("windowfocus"), _id});
    }

    bool isThere() const { return !_id.isEmpty() && !xdotool({QStringLiteral("getwindowgeometry"), _id}).isEmpty(); }

    QByteArray title() const { return xdotool({QStringLiteral("getwindowname"), _id}); }

    QImage image() const { return QGuiApplication::primaryScreen()->grabWindow(_id.toULongLong()).toImage(); }

    void hit(const QString &key) const { xdotool({QStringLiteral("key"), key}); }

    void click(QPoint place, int times = 1) const
    {
        xdotool({QStringLiteral("mousemove"), QStringLiteral("--window"), _id, QString::number(place.x()),
            QString::number(place.y()), QStringLiteral("click"), QStringLiteral("--repeat"), QString::number(times),
            QStringLiteral("--delay"), QStringLiteral("50"), QStringLiteral("1")});
    }

    /// What a window manager does when the user closes the window.
    void close() const
    {
        xcb_connection_t *const connection = xcb_connect(nullptr, nullptr);
        xcb_client_message_event_t message{};
        message.response_type = XCB_CLIENT_MESSAGE;
        message.format = 32;
        message.window = _id.toUInt();
        message.type = atom(connection, "WM_PROTOCOLS");
        message.data.data32[0] = atom(connection, "WM_DELETE_WINDOW");
        const auto cookie = xcb_send_event_checked(
            connection, 0, message.window, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<char *>(&message));
        // Waits for the server, which might drop what a client sends just before it disconnects.
        std::free(xcb_request_check(connection, cookie));
        xcb_disconnect(connection);
    }

private:
    static xcb_atom_t atom(xcb_connection_t *connection, const char *name)
    {
        const auto cookie = xcb_intern_atom(connection, 0, static_cast<uint16_t>(qstrlen(name)), name);
        const std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> reply(
            xcb_intern_atom_reply(connection, cookie, nullptr), &std::free);
        return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    }

    QString _id;
};

/// Several terminals are attached; those that are discovered first have the higher numbers.
const QList<FakedPort> three_ports{terminalPort(0, "1-3"), terminalPort(1, "1-2"), terminalPort(2, "1-1")};
const QList<FakedPort> two_ports = three_ports.first(2);

QStringList candidatesAmong(const QList<FakedPort> &ports)
{
    QStringList names;
    for (const FakedPort &port : ports)
        names.prepend(portName(port.number));
    return names;
}

QStringList onDisplay()
{
    return {QStringLiteral("DISPLAY=") + qEnvironmentVariable("DISPLAY")};
}

/// What the user does: a key by its name, or a click on a row by its number, on "ok" or on "cancel"; or "close".
void perform(const QString &actions, const ShownWindow &window, const ExpectedWindow &expected)
{
    // A user acts only when the window can be seen.
    QVERIFY2(QTest::qWaitFor([&] { return window.image() == expected.image; }, 10'000), "the window looks different");
    for (const QString &action : actions.split(QLatin1Char(' '))) {
        bool is_row = false;
        const int row = action.toInt(&is_row);
        if (is_row)
            window.click(expected.rows.at(row));
        else if (action == QLatin1String("ok"))
            window.click(expected.ok);
        else if (action == QLatin1String("cancel"))
            window.click(expected.cancel);
        else if (action == QLatin1String("close"))
            window.close();
        else
            window.hit(action);
    }
}

void actionsRow(const char *actions)
{
    QTest::newRow(actions) << QString::fromLatin1(actions);
}

} // namespace

void WindowTest::init()
{
    // Nothing is to be under the pointer when the window appears.
    xdotool({QStringLiteral("mousemove"), QStringLiteral("0"), QStringLiteral("0")});
}

void WindowTest::theWindowShowsThePromptAndTheCandidates_data()
{
    QTest::addColumn<QList<FakedPort>>("ports");
    QTest::newRow("two") << two_ports;
    QTest::newRow("three") << three_ports;
}

void WindowTest::theWindowShowsThePromptAndTheCandidates()
{
    QFETCH(QList<FakedPort>, ports);
    const ExpectedWindow expected(candidatesAmong(ports));
    const Testbed testbed(ports);
    Tool tool = testbed.start({}, onDisplay());
    const ShownWindow window;
    QTRY_COMPARE(window.image(), expected.image);
    QCOMPARE(window.title(), QByteArray("JVX file loader"));
    window.hit(QStringLiteral("Escape"));
    QCOMPARE(tool.finish(), exits(256 - 103, "Serial port is not selected\n"));
}

void WindowTest::theSelectedPortIsUsed_data()
{
    QTest::addColumn<QList<FakedPort>>("ports");
    QTest::addColumn<QString>("actions");
    QTest::addColumn<int>("chosen");
    QTest::newRow("first of two, clicked") << two_ports << QStringLiteral("0 ok") << 1;
    QTest::newRow("second of two, clicked") << two_ports << QStringLiteral("1 ok") << 0;
    QTest::newRow("second of two, by keys") << two_ports << QStringLiteral("Down Return") << 0;
    QTest::newRow("first of three, by keys") << three_ports << QStringLiteral("Down Up Return") << 2;
    QTest::newRow("second of three, clicked and Return") << three_ports << QStringLiteral("1 Return") << 1;
    QTest::newRow("third of three, by keys and OK") << three_ports << QStringLiteral("End ok") << 0;
    QTest::newRow("one, then another") << three_ports << QStringLiteral("2 0 1 ok") << 1;
}

void WindowTest::theSelectedPortIsUsed()
{
    QFETCH(QList<FakedPort>, ports);
    QFETCH(QString, actions);
    QFETCH(int, chosen);
    const ExpectedWindow expected(candidatesAmong(ports));
    SimulatedTerminal terminal;
    Testbed testbed(ports);
    testbed.connect(chosen, terminal);
    Tool tool = testbed.start({}, onDisplay());
    perform(actions, ShownWindow(), expected);
    const Run run = tool.finish();
    QCOMPARE(run, exits(0, console::identification(portName(chosen))));
}

void WindowTest::withoutASelectionNothingStarts_data()
{
    QTest::addColumn<QString>("actions");
    for (const char *actions : {"ok", "Return", "cancel", "Escape", "close", "1 cancel", "1 Escape", "1 close"})
        actionsRow(actions);
}

void WindowTest::withoutASelectionNothingStarts()
{
    QFETCH(QString, actions);
    const ExpectedWindow expected(candidatesAmong(two_ports));
    SimulatedTerminal terminal;
    Testbed testbed(two_ports);
    testbed.connect(0, terminal);
    Tool tool = testbed.start({}, onDisplay());
    perform(actions, ShownWindow(), expected);
    const Run run = tool.finish();
    QCOMPARE(run, exits(256 - 103, QByteArray("Serial port is not selected\n")));
    QCOMPARE(terminal.requests(), QByteArrayList());
}

void WindowTest::aDoubleClickOnlySelects()
{
    const ExpectedWindow expected(candidatesAmong(two_ports));
    SimulatedTerminal terminal;
    Testbed testbed(two_ports);
    testbed.connect(0, terminal);
    Tool tool = testbed.start({}, onDisplay());
    const ShownWindow window;
    QTRY_COMPARE(window.image(), expected.image);
    window.click(expected.rows.at(1), 2);
    QTest::qWait(500);
    QVERIFY(window.isThere());
    QCOMPARE(terminal.requests(), QByteArrayList());
    window.click(expected.ok);
    const Run run = tool.finish();
    QCOMPARE(run, exits(0, console::identification(portName(0))));
}

void WindowTest::nobodyIsAskedWithoutNeed_data()
{
    QTest::addColumn<QList<FakedPort>>("ports");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<int>("code");
    const QByteArray identification = console::identification(portName(0));
    QTest::newRow("no terminal") << QList<FakedPort>() << QStringList() << QByteArray("Serial port is not selected\n")
                                 << 256 - 103;
    QTest::newRow("one terminal") << three_ports.first(1) << QStringList() << identification << 0;
    QTest::newRow("port named") << two_ports << QStringList{QStringLiteral("-p"), portName(0)} << identification << 0;
}

void WindowTest::nobodyIsAskedWithoutNeed()
{
    QFETCH(QList<FakedPort>, ports);
    QFETCH(QStringList, options);
    SimulatedTerminal terminal;
    Testbed testbed(ports);
    if (!ports.isEmpty())
        testbed.connect(0, terminal);
    QFETCH(QByteArray, output);
    QFETCH(int, code);
    QCOMPARE(testbed.start(options, onDisplay()).finish(), exits(code, output));
}

int main(int argc, char *argv[])
{
    const DisplayServer server;
    server.adopt();
    const QApplication application(argc, argv);
    WindowTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_window.moc"
