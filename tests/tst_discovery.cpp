#include "console.h"
#include "localfiles.h"
#include "simulatedterminal.h"
#include "testbed.h"
#include "tool.h"

#include <QTest>

/// The tool looks for the terminal's port itself where none is named. The ports are faked, the terminal is simulated.
class DiscoveryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void foreignPortsAreNoTerminals_data();
    void foreignPortsAreNoTerminals();
    void theOnlyTerminalIsUsedUnasked_data();
    void theOnlyTerminalIsUsedUnasked();
    void severalTerminalsAreListedWhereNoWindowIs_data();
    void severalTerminalsAreListedWhereNoWindowIs();
    void aNamedPortIsUsedUnasked_data();
    void aNamedPortIsUsedUnasked();
    void anEmptyNameStartsNoSearch_data();
    void anEmptyNameStartsNoSearch();
    void aWindowThatTheUserWantsIsWaitedFor();
    void withoutOptionsOnlyTheLogIsSwitchedOn();
    void withoutAKindTheUserFirmwareIsMeant_data();
    void withoutAKindTheUserFirmwareIsMeant();
    void aTerminalThatRestartsComesBackToItsPort_data();
    void aTerminalThatRestartsComesBackToItsPort();
};

namespace {

using Ports = QList<FakedPort>;

// The terminal has 03eb:6124; each of these differs in one respect or more.
constexpr FakedPort other_product{5, "1-5", "03eb", "6125"};
constexpr FakedPort other_vendor{6, "1-0", "03ec", "6124"};
constexpr FakedPort swapped{7, "1-7", "6124", "03eb"};
constexpr FakedPort unknown{8, "1-8", "0000", "0000"};
constexpr FakedPort no_usb{9, "soc", nullptr, nullptr};
const Ports foreign_ports{other_product, other_vendor, swapped, unknown, no_usb};

/// What the tool prints where the user has to choose among the ports of these numbers.
QByteArray choiceOf(const QList<int> &numbers)
{
    QStringList names;
    for (const int number : numbers)
        names += portName(number);
    return "Select device serial port: " + names.join(QLatin1String(", ")).toLatin1()
        + "\nSerial port is not selected\n";
}

/// A local file of nine bytes.
QString localFile(const Testbed &testbed)
{
    const QString path = testbed.path(QStringLiteral("local.bin"));
    files::store(path, "123456789");
    return path;
}

void portsRow(const char *name, const Ports &ports)
{
    QTest::newRow(name) << ports;
}

} // namespace

void DiscoveryTest::foreignPortsAreNoTerminals_data()
{
    QTest::addColumn<Ports>("ports");
    portsRow("no port at all", {});
    portsRow("another product of the vendor", {other_product});
    portsRow("the product of another vendor", {other_vendor});
    portsRow("vendor and product in separate ports", {other_product, other_vendor});
    portsRow("vendor and product swapped", {swapped});
    portsRow("identifiers that are zero", {unknown});
    portsRow("no USB port", {no_usb});
    portsRow("all of them", foreign_ports);
}

void DiscoveryTest::foreignPortsAreNoTerminals()
{
    QFETCH(Ports, ports);
    const Run run = Testbed(ports).start().finish();
    QCOMPARE(run, exits(256 - 103, QByteArray("Serial port is not selected\n")));
}

void DiscoveryTest::theOnlyTerminalIsUsedUnasked_data()
{
    QTest::addColumn<Ports>("ports");
    portsRow("alone", {terminalPort(0, "1-1")});
    portsRow("identifiers in capitals", {{0, "1-1", "03EB", "6124"}});
    portsRow("discovered first", Ports{terminalPort(0, "1-0.1")} + Ports{other_product, swapped, unknown, no_usb});
    portsRow("discovered among foreign ones", foreign_ports + Ports{terminalPort(0, "1-6")});
    portsRow("discovered last", foreign_ports + Ports{terminalPort(0, "1-9")});
}

void DiscoveryTest::theOnlyTerminalIsUsedUnasked()
{
    QFETCH(Ports, ports);
    SimulatedTerminal terminal;
    Testbed testbed(ports);
    testbed.connect(0, terminal);
    const Run run = testbed.start().finish();
    QCOMPARE(run, exits(0, console::identification(portName(0))));
}

void DiscoveryTest::severalTerminalsAreListedWhereNoWindowIs_data()
{
    const Ports two{terminalPort(0, "1-1"), terminalPort(1, "1-2")};
    QTest::addColumn<Ports>("ports");
    QTest::addColumn<QList<int>>("candidates");
    QTest::addColumn<QStringList>("environment");
    QTest::newRow("two") << two << QList<int>{0, 1} << QStringList();
    QTest::newRow("three") << two + Ports{terminalPort(2, "1-3")} << QList<int>{0, 1, 2} << QStringList();
    QTest::newRow("two among foreign ones") << foreign_ports + two << QList<int>{0, 1} << QStringList();
    // Ordered by the places on the bus, which here differs from the order of the names and of the list.
    QTest::newRow("in order of discovery")
        << Ports{terminalPort(0, "1-2"), terminalPort(1, "1-3"), terminalPort(2, "1-1")} << QList<int>{2, 0, 1}
        << QStringList();
    QTest::newRow("display gone") << two << QList<int>{0, 1} << QStringList{QStringLiteral("DISPLAY=:77")};
    QTest::newRow("no windows wanted") << two << QList<int>{0, 1}
                                       << QStringList{QStringLiteral("QT_QPA_PLATFORM=minimal")};
}

void DiscoveryTest::severalTerminalsAreListedWhereNoWindowIs()
{
    QFETCH(Ports, ports);
    QFETCH(QList<int>, candidates);
    QFETCH(QStringList, environment);
    SimulatedTerminal terminal;
    Testbed testbed(ports);
    testbed.connect(0, terminal);
    const Run run = testbed.start({}, environment).finish();
    QCOMPARE(run, exits(256 - 103, choiceOf(candidates)));
    QCOMPARE(terminal.requests(), QByteArrayList());
}

void DiscoveryTest::aNamedPortIsUsedUnasked_data()
{
    QTest::addColumn<Ports>("ports");
    QTest::addColumn<QString>("option");
    const Ports three{terminalPort(0, "1-1"), terminalPort(1, "1-2"), terminalPort(2, "1-3")};
    QTest::newRow("second of three") << three << QStringLiteral("--port=%1");
    QTest::newRow("second of three, joined") << three << QStringLiteral("-p%1");
    QTest::newRow("not the terminal's identifiers")
        << Ports{terminalPort(0, "1-1"), {1, "1-2", "1234", "5678"}} << QStringLiteral("--port=%1");
    QTest::newRow("no USB port") << Ports{terminalPort(0, "1-1"), {1, "soc", nullptr, nullptr}}
                                 << QStringLiteral("--port=%1");
    QTest::newRow("by its device file") << three << QStringLiteral("--port=/dev/%1");
}

void DiscoveryTest::aNamedPortIsUsedUnasked()
{
    QFETCH(Ports, ports);
    QFETCH(QString, option);
    SimulatedTerminal terminal;
    Testbed testbed(ports);
    testbed.connect(1, terminal);
    const Run run = testbed.start({option.arg(portName(1))}).finish();
    QCOMPARE(run, exits(0, console::identification(portName(1))));
}

void DiscoveryTest::anEmptyNameStartsNoSearch_data()
{
    QTest::addColumn<Ports>("ports");
    portsRow("one terminal", {terminalPort(0, "1-1")});
    portsRow("two terminals", {terminalPort(0, "1-1"), terminalPort(1, "1-2")});
}

void DiscoveryTest::anEmptyNameStartsNoSearch()
{
    QFETCH(Ports, ports);
    SimulatedTerminal terminal;
    Testbed testbed(ports);
    testbed.connect(0, terminal);
    const Run run = testbed.start({QStringLiteral("-p"), QString()}).finish();
    QCOMPARE(run, exits(256 - 103, QByteArray("Serial port is not selected\n")));
    QCOMPARE(terminal.requests(), QByteArrayList());
}

void DiscoveryTest::aWindowThatTheUserWantsIsWaitedFor()
{
    const Testbed testbed({terminalPort(0, "1-1"), terminalPort(1, "1-2")});
    // Nobody sees an offscreen window, but the framework logs that it tells accessibility tools of it.
    Tool tool = testbed.start({}, words("QT_QPA_PLATFORM=offscreen QT_LOGGING_RULES=qt.accessibility.cache=true"));
    QVERIFY2(tool.waitForErrors("role=Dialog childc=3 obj=StringListSelectorDialog"), tool.errors().constData());
    const Run run = tool.finish(1s);
    QCOMPARE(run, fails(hung, run.errors));
}

void DiscoveryTest::withoutOptionsOnlyTheLogIsSwitchedOn()
{
    SimulatedTerminal terminal;
    Testbed testbed({terminalPort(0, "1-1")});
    testbed.connect(0, terminal);
    QCOMPARE(testbed.start().finish(), exits(0, console::identification(portName(0))));
    QCOMPARE(terminal.requests().mid(3), QByteArrayList{log_mask_request});
}

void DiscoveryTest::withoutAKindTheUserFirmwareIsMeant_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QByteArray>("printed"); // with %1 for the local file
    const QByteArray written
        = console::writing(QStringLiteral("%1"), "user-firmware") + console::progress(9) + console::written();
    const QByteArray applied = console::applying("user-firmware") + console::completed() + console::waiting(portName(0))
        + console::opened(portName(0));
    QTest::newRow("-r") << words(
        "-r") << console::reading("user-firmware") + console::progress(9) + console::saved(QStringLiteral("%1"));
    QTest::newRow("-w") << words("-w") << written;
    QTest::newRow("-w -a") << words("-w -a") << written + applied;
}

void DiscoveryTest::withoutAKindTheUserFirmwareIsMeant()
{
    QFETCH(QStringList, options);
    QFETCH(QByteArray, printed);
    FilingTerminal terminal;
    files::store(terminal.own(QStringLiteral("user-firmware")), "the one..");
    Testbed testbed({terminalPort(0, "1-1")});
    testbed.connect(0, terminal);
    const QString local = localFile(testbed);
    const Run run = testbed.start(options + QStringList{local}).finish();
    QCOMPARE(run, exits(0, console::identification(portName(0)) + printed.replace("%1", local.toLocal8Bit())));
}

void DiscoveryTest::aTerminalThatRestartsComesBackToItsPort_data()
{
    QTest::addColumn<bool>("listed");
    QTest::newRow("listed all the time") << true;
    QTest::newRow("not listed meanwhile") << false;
}

void DiscoveryTest::aTerminalThatRestartsComesBackToItsPort()
{
    QFETCH(bool, listed);
    SimulatedTerminal terminal({QStringLiteral("--restart"), QStringLiteral("2")});
    Testbed testbed({terminalPort(0, "1-1"), other_product});
    testbed.connect(0, terminal);
    const QString local = localFile(testbed);
    Tool tool = testbed.start(words("-w -a -f settings") + QStringList{local});
    QVERIFY(tool.waitForOutput("Waiting device"));
    QTRY_VERIFY(!terminal.isPlugged());
    if (!listed)
        testbed.withdraw(0);
    QTRY_VERIFY(terminal.isPlugged());
    if (!listed)
        testbed.restore(0);
    const Run run = tool.finish();
    QCOMPARE(run,
        exits(0,
            console::identification(portName(0)) + console::writing(local, "settings") + console::progress(9)
                + console::written() + console::applying("settings") + console::completed()
                + console::waiting(portName(0)) + console::opened(portName(0))));
    QCOMPARE(terminal.requests().constLast(), log_mask_request);
}

QTEST_GUILESS_MAIN(DiscoveryTest)
#include "tst_discovery.moc"
