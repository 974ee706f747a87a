#pragma once

#include <QDialog>
#include <QString>
#include <QStringList>

class QLabel;
class QListWidget;

/// A modal dialog that shows a prompt and a list of strings, of which the user picks one.
class StringListSelectorDialog : public QDialog {
    Q_OBJECT

public:
    /// \param parent parent widget, may be null
    explicit StringListSelectorDialog(QWidget *parent = nullptr);

    /// Appends \a strings to the list; what stands there stays.
    void setStringList(const QStringList &strings);

    /// Shows \a text, followed by a colon, as the prompt.
    void setText(const QString &text);

    /// The selected string, or an empty one when nothing is selected.
    [[nodiscard]] QString selectedText() const;

    /// Lets the user pick one of \a items; runs a nested event loop until the dialog is closed.
    /// \param text prompt, shown with a colon even when empty
    /// \param title window title; empty: the framework's default
    /// \param parent parent widget, may be null
    /// \return the string picked, or an empty one when the dialog was cancelled or accepted with nothing selected
    static QString select(const QStringList &items, const QString &text, const QString &title, QWidget *parent);

private:
    QLabel *const _label;
    QListWidget *const _list;
};
