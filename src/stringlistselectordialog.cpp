#include "stringlistselectordialog.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QListWidget>
#include <QVBoxLayout>

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
    return dialog.exec() == QDialog::Accepted ? dialog.selectedText() : QString();
}
