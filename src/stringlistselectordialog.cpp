#include "stringlistselectordialog.h"

#include <QDialogButtonBox>
#include <QEventLoop>
#include <QLabel>
#include <QListWidget>
#include <QTimer>
#include <QVBoxLayout>

#include <chrono>

using namespace std::chrono_literals;

namespace {

/// Processes the last display events of the closed window. The framework's Wayland plugin may wait for
/// ever for its own threads if the program ends meanwhile.
void awaitClosing()
{
    QEventLoop loop;
    QTimer::singleShot(100ms, &loop, &QEventLoop::quit);
    loop.exec();
}

} // namespace

StringListSelectorDialog::StringListSelectorDialog(QWidget *parent)
    : QDialog(parent)
    , _label(new QLabel(this))
    , _list(new QListWidget(this))
{
    _label->hide();
    _list->setSelectionMode(QAbstractItemView::SingleSelection);
    auto *const buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);

    auto *const layout = new QVBoxLayout(this);
    layout->addWidget(_label);
    layout->addWidget(_list);
    layout->addWidget(buttons);

    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
}

void StringListSelectorDialog::setStringList(const QStringList &strings)
{
    _list->addItems(strings);
}

void StringListSelectorDialog::setText(const QString &text)
{
    _label->setText(QStringLiteral("%1:").arg(text));
    _label->show();
}

QString StringListSelectorDialog::selectedText() const
{
    const QList<QListWidgetItem *> selected = _list->selectedItems();
    return selected.isEmpty() ? QString() : selected.first()->text();
}

QString StringListSelectorDialog::select(
    const QStringList &items, const QString &text, const QString &title, QWidget *parent)
{
    StringListSelectorDialog dialog(parent);
    if (!title.isEmpty())
        dialog.setWindowTitle(title);
    dialog.setText(text);
    dialog.setStringList(items);
    const int result = dialog.exec();
    awaitClosing();
    return result == QDialog::Accepted ? dialog.selectedText() : QString();
}
