#include "stringlistselectordialog.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPointer>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QVBoxLayout>

#include <functional>

namespace {

// Results besides those of QDialog.
constexpr int left_open = -7; // by the user, and closed by the test
constexpr int never_shown = -8;

/// A dialog that is open, and the hands of its user.
struct User {
    explicit User(QDialog *shown)
        : dialog(shown)
        , label(shown->findChild<QLabel *>(QString(), Qt::FindDirectChildrenOnly))
        , list(shown->findChild<QListWidget *>())
        , buttons(shown->findChild<QDialogButtonBox *>())
    {
    }

    void press(QDialogButtonBox::StandardButton button) const
    {
        QTest::mouseClick(buttons->button(button), Qt::LeftButton);
    }
    void pressOk() const { press(QDialogButtonBox::Ok); }
    void pressCancel() const { press(QDialogButtonBox::Cancel); }

    [[nodiscard]] QPoint positionOf(int row) const { return list->visualItemRect(list->item(row)).center(); }
    void click(int row, Qt::KeyboardModifiers modifiers = {}) const
    {
        QTest::mouseClick(list->viewport(), Qt::LeftButton, modifiers, positionOf(row));
    }
    void doubleClick(int row) const
    {
        click(row);
        QTest::mouseDClick(list->viewport(), Qt::LeftButton, {}, positionOf(row));
    }

    QDialog *dialog;
    QLabel *label;
    QListWidget *list;
    QDialogButtonBox *buttons;
};

using Actions = std::function<void(const User &)>;

struct Outcome {
    QString picked;
    int result = never_shown;
    bool shown = false;
    bool gone = false;
};

struct Texts {
    QString prompt = QStringLiteral("Prompt");
    QString title = {};
};

void act(const Actions &actions, Outcome &outcome)
{
    auto *const dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
    outcome.shown = dialog != nullptr;
    if (!dialog)
        return;
    QObject::connect(dialog, &QDialog::finished, dialog, [&outcome](int result) { outcome.result = result; });
    actions(User(dialog));
    if (dialog->isVisible())
        dialog->done(left_open);
}

/// Selects one of \a items while the user does \a actions; a dialog that these leave open is closed.
Outcome select(const QStringList &items, const Actions &actions, const Texts &texts = {}, QWidget *parent = nullptr)
{
    Outcome outcome;
    QPointer<QWidget> dialog;
    const QObject context; // its end removes the timer if that has not fired
    QTimer::singleShot(0, &context, [&] {
        dialog = QApplication::activeModalWidget();
        act(actions, outcome);
    });
    outcome.picked = StringListSelectorDialog::select(items, texts.prompt, texts.title, parent);
    outcome.gone = dialog.isNull();
    return outcome;
}

const QStringList ports{QStringLiteral("ttyACM0"), QStringLiteral("ttyACM1"), QStringLiteral("ttyACM2")};

QStringList textsOf(const QListWidget *list)
{
    QStringList texts;
    for (int row = 0; row < list->count(); ++row)
        texts += list->item(row)->text();
    return texts;
}

} // namespace

class DialogTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void theSelectedTextIsReturned_data();
    void theSelectedTextIsReturned();
    void okWithNothingSelectedGivesAnEmptyText_data();
    void okWithNothingSelectedGivesAnEmptyText();
    void rejectionGivesAnEmptyText_data();
    void rejectionGivesAnEmptyText();
    void anItemIsReturnedAsItStands_data();
    void anItemIsReturnedAsItStands();
    void doubleClickOnlySelects();
    void atMostOneItemIsSelected();
    void theTitleIsSetUnlessEmpty_data();
    void theTitleIsSetUnlessEmpty();
    void thePromptEndsWithAColon_data();
    void thePromptEndsWithAColon();
    void theItemsStandInTheirOrder();
    void theDialogIsModalAndKeepsItsParent();
    void theParentMayBeMissing();
    void theDialogIsGoneAfterwards();
    void thePromptIsHiddenUntilSet();
    void thePromptIsReplaced();
    void listsAreAppended();
    void nothingIsSelectedAtFirst();
    void theSelectedTextFollowsTheSelection();
    void promptListAndButtonsStandInAColumn();
    void theButtonsAreOkAndCancel();
};

void DialogTest::theSelectedTextIsReturned_data()
{
    QTest::addColumn<Actions>("actions");
    QTest::addColumn<QString>("picked");
    QTest::newRow("first, OK") << Actions([](const User &user) {
        user.click(0);
        user.pressOk();
    }) << ports[0];
    QTest::newRow("second, OK") << Actions([](const User &user) {
        user.click(1);
        user.pressOk();
    }) << ports[1];
    QTest::newRow("last, OK") << Actions([](const User &user) {
        user.click(2);
        user.pressOk();
    }) << ports[2];
    QTest::newRow("first, then second, OK") << Actions([](const User &user) {
        user.click(0);
        user.click(1);
        user.pressOk();
    }) << ports[1];
    QTest::newRow("second, Return key") << Actions([](const User &user) {
        user.click(1);
        QTest::keyClick(user.list, Qt::Key_Return);
    }) << ports[1];
    QTest::newRow("first, Down key, Return key") << Actions([](const User &user) {
        user.click(0);
        QTest::keyClick(user.list, Qt::Key_Down);
        QTest::keyClick(user.list, Qt::Key_Return);
    }) << ports[1];
    QTest::newRow("double-click on second, OK") << Actions([](const User &user) {
        user.doubleClick(1);
        user.pressOk();
    }) << ports[1];
}

void DialogTest::theSelectedTextIsReturned()
{
    QFETCH(Actions, actions);
    const Outcome outcome = select(ports, actions);
    QCOMPARE(outcome.result, static_cast<int>(QDialog::Accepted));
    QTEST(outcome.picked, "picked");
}

void DialogTest::okWithNothingSelectedGivesAnEmptyText_data()
{
    QTest::addColumn<QStringList>("items");
    QTest::addColumn<Actions>("actions");
    const Actions ok = [](const User &user) { user.pressOk(); };
    const Actions focus = [](const User &user) {
        user.list->setFocus();
        user.pressOk();
    };
    const Actions unselect = [](const User &user) {
        user.click(0);
        user.click(0, Qt::ControlModifier);
        user.pressOk();
    };
    QTest::newRow("OK") << ports << ok;
    QTest::newRow("empty list, OK") << QStringList() << ok;
    QTest::newRow("list in focus, OK") << ports << focus;
    QTest::newRow("selected, unselected, OK") << ports << unselect;
    QTest::newRow("Return key") << ports
                                << Actions([](const User &user) { QTest::keyClick(user.dialog, Qt::Key_Return); });
}

void DialogTest::okWithNothingSelectedGivesAnEmptyText()
{
    QFETCH(QStringList, items);
    QFETCH(Actions, actions);
    const Outcome outcome = select(items, actions);
    QCOMPARE(outcome.result, static_cast<int>(QDialog::Accepted));
    QCOMPARE(outcome.picked, QString());
}

void DialogTest::rejectionGivesAnEmptyText_data()
{
    QTest::addColumn<Actions>("reject");
    QTest::newRow("Cancel") << Actions([](const User &user) { user.pressCancel(); });
    QTest::newRow("Escape key") << Actions([](const User &user) { QTest::keyClick(user.dialog, Qt::Key_Escape); });
    QTest::newRow("Escape key in the list")
        << Actions([](const User &user) { QTest::keyClick(user.list, Qt::Key_Escape); });
    QTest::newRow("closed window") << Actions([](const User &user) { user.dialog->close(); });
}

void DialogTest::rejectionGivesAnEmptyText()
{
    QFETCH(Actions, reject);
    for (const bool selected : {false, true}) {
        const Outcome outcome = select(ports, [&](const User &user) {
            if (selected)
                user.click(1);
            reject(user);
        });
        QCOMPARE(outcome.result, static_cast<int>(QDialog::Rejected));
        QCOMPARE(outcome.picked, QString());
    }
}

void DialogTest::anItemIsReturnedAsItStands_data()
{
    QTest::addColumn<QString>("item");
    QTest::newRow("place markers") << QStringLiteral("%1 %2");
    QTest::newRow("blanks") << QStringLiteral(" tty ");
    QTest::newRow("ampersand") << QStringLiteral("a&b");
    QTest::newRow("markup") << QStringLiteral("<b>bold</b>");
    QTest::newRow("Cyrillic") << QStringLiteral("\u041f\u043e\u0440\u0442");
    QTest::newRow("path") << QStringLiteral("/dev/pts/0");
}

void DialogTest::anItemIsReturnedAsItStands()
{
    QFETCH(QString, item);
    const Outcome outcome = select({QStringLiteral("other"), item}, [](const User &user) {
        user.click(1);
        user.pressOk();
    });
    QCOMPARE(outcome.picked, item);
}

void DialogTest::doubleClickOnlySelects()
{
    const Outcome outcome = select(ports, [](const User &user) {
        user.doubleClick(1);
        QCoreApplication::processEvents();
        QVERIFY(user.dialog->isVisible());
        QVERIFY(!user.list->findChild<QLineEdit *>());
        QCOMPARE(user.list->currentRow(), 1);
        QCOMPARE(user.list->selectedItems().size(), 1);
    });
    QCOMPARE(outcome.result, left_open);
}

void DialogTest::atMostOneItemIsSelected()
{
    const Outcome outcome = select(ports, [](const User &user) {
        QCOMPARE(user.list->selectionMode(), QAbstractItemView::SingleSelection);
        user.click(0);
        user.click(1, Qt::ControlModifier);
        user.click(2, Qt::ShiftModifier);
        QCOMPARE(user.list->selectedItems(), QList{user.list->item(2)});
        user.pressOk();
    });
    QCOMPARE(outcome.picked, ports[2]);
}

void DialogTest::theTitleIsSetUnlessEmpty_data()
{
    QTest::addColumn<QString>("title");
    QTest::newRow("given") << QStringLiteral("Serial port");
    QTest::newRow("place marker") << QStringLiteral("%1");
    QTest::newRow("empty") << QStringLiteral("");
    QTest::newRow("null") << QString();
}

void DialogTest::theTitleIsSetUnlessEmpty()
{
    QFETCH(QString, title);
    QString shown = QStringLiteral("none");
    const QString expected = title.isEmpty() ? QDialog().windowTitle() : title;
    select(ports, [&shown](const User &user) { shown = user.dialog->windowTitle(); }, {.title = title});
    QCOMPARE(shown, expected);
}

void DialogTest::thePromptEndsWithAColon_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("prompt");
    QTest::newRow("text") << QStringLiteral("Select device serial port")
                          << QStringLiteral("Select device serial port:");
    QTest::newRow("empty") << QStringLiteral("") << QStringLiteral(":");
    QTest::newRow("null") << QString() << QStringLiteral(":");
    QTest::newRow("place markers") << QStringLiteral("%1 of %2") << QStringLiteral("%1 of %2:");
    QTest::newRow("colon") << QStringLiteral("text:") << QStringLiteral("text::");
}

void DialogTest::thePromptEndsWithAColon()
{
    QFETCH(QString, text);
    QString prompt;
    bool visible = false;
    const auto look = [&](const User &user) {
        prompt = user.label->text();
        visible = user.label->isVisible();
    };
    select(ports, look, {.prompt = text});
    QTEST(prompt, "prompt");
    QVERIFY(visible);
}

void DialogTest::theItemsStandInTheirOrder()
{
    const QStringList items{QStringLiteral("b"), QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("")};
    QStringList shown;
    select(items, [&shown](const User &user) { shown = textsOf(user.list); });
    QCOMPARE(shown, items);
}

void DialogTest::theDialogIsModalAndKeepsItsParent()
{
    QWidget parent;
    const Outcome outcome = select(
        ports,
        [&parent](const User &user) {
            QCOMPARE(user.dialog->parentWidget(), &parent);
            QVERIFY(user.dialog->isModal());
            user.pressOk();
        },
        {}, &parent);
    QVERIFY(outcome.shown);
    QVERIFY(parent.children().isEmpty());
}

void DialogTest::theParentMayBeMissing()
{
    const Outcome outcome = select(
        ports, [](const User &user) { QVERIFY(!user.dialog->parentWidget()); }, {}, nullptr);
    QVERIFY(outcome.shown);
}

void DialogTest::theDialogIsGoneAfterwards()
{
    const Outcome outcome = select(ports, [](const User &user) { user.pressCancel(); });
    QVERIFY(outcome.shown);
    QVERIFY(outcome.gone);
    QVERIFY(QApplication::topLevelWidgets().isEmpty());
}

void DialogTest::thePromptIsHiddenUntilSet()
{
    StringListSelectorDialog dialog;
    dialog.show();
    const User user(&dialog);
    QVERIFY(!user.label->isVisible());
    QVERIFY(user.list->isVisible());
    dialog.setText(QStringLiteral("text"));
    QVERIFY(user.label->isVisible());
}

void DialogTest::thePromptIsReplaced()
{
    StringListSelectorDialog dialog;
    dialog.setText(QStringLiteral("one"));
    dialog.setText(QStringLiteral("two"));
    QCOMPARE(User(&dialog).label->text(), QStringLiteral("two:"));
}

void DialogTest::listsAreAppended()
{
    StringListSelectorDialog dialog;
    const QStringList more{QStringLiteral("ttyACM1"), QStringLiteral("a")};
    dialog.setStringList(ports);
    dialog.setStringList({});
    dialog.setStringList(more);
    QCOMPARE(textsOf(User(&dialog).list), ports + more);
}

void DialogTest::nothingIsSelectedAtFirst()
{
    StringListSelectorDialog dialog;
    dialog.setStringList(ports);
    QCOMPARE(dialog.selectedText(), QString());
    dialog.show();
    QVERIFY(User(&dialog).list->selectedItems().isEmpty());
    QCOMPARE(dialog.selectedText(), QString());
}

void DialogTest::theSelectedTextFollowsTheSelection()
{
    StringListSelectorDialog dialog;
    dialog.setStringList(ports);
    QListWidget *const list = User(&dialog).list;
    list->item(2)->setSelected(true);
    QCOMPARE(dialog.selectedText(), ports[2]);
    list->item(0)->setSelected(true);
    QCOMPARE(dialog.selectedText(), ports[0]);
    list->setCurrentItem(list->item(1), QItemSelectionModel::NoUpdate);
    QCOMPARE(dialog.selectedText(), ports[0]);
    list->clearSelection();
    QCOMPARE(dialog.selectedText(), QString());
}

void DialogTest::promptListAndButtonsStandInAColumn()
{
    StringListSelectorDialog dialog;
    const User user(&dialog);
    const auto *const layout = qobject_cast<QVBoxLayout *>(dialog.layout());
    QVERIFY(layout);
    QCOMPARE(layout->direction(), QBoxLayout::TopToBottom);
    QCOMPARE(layout->count(), 3);
    QCOMPARE(layout->itemAt(0)->widget(), user.label);
    QCOMPARE(layout->itemAt(1)->widget(), user.list);
    QCOMPARE(layout->itemAt(2)->widget(), user.buttons);
}

void DialogTest::theButtonsAreOkAndCancel()
{
    StringListSelectorDialog dialog;
    QCOMPARE(User(&dialog).buttons->standardButtons(), QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
}

int main(int argc, char *argv[])
{
    // No window on the screen of whoever runs the tests.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    const QTemporaryDir directory;
    qputenv("XDG_RUNTIME_DIR", directory.path().toLocal8Bit()); // else the framework leaves one behind
    const QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    DialogTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_dialog.moc"
