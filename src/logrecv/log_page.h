#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <functional>

class LogOptions;
class QCheckBox;
class QLabel;
class QPlainTextEdit;
class QPoint;
class QPushButton;
class QWidget;

// Wires one console's log controls to the shared LogOptions: "Log To File"
// (`Check1`) sets the program-wide switch and shows it in every console,
// "Choose Path" (`Command7`) asks for the folder, `Label16` shows the folder
// files go to, and the log view (`logbox`) gets its right-click popup "Copy",
// "Find", "IP>Hostname". The console wires "Clear Log" itself; clearing the
// view never touches a file.
//
// "Find" asks for a text and selects its next occurrence after the caret,
// ignoring case and wrapping to the top once. "IP>Hostname" looks up the
// selected address and, when a name is found, puts it in place of the address.
// The page is a child of the log view and lives as long as it does.
class LogPage : public QObject
{
    Q_OBJECT
public:
    enum PopupItem { PopupCopy = 1, PopupFind = 2, PopupHostName = 3 };

    LogPage(QPlainTextEdit *logbox, QCheckBox *check1, QPushButton *command7, QLabel *label16,
        LogOptions *options);

    static QStringList popupCaptions();
    void showPopup(const QPoint &globalPos);
    void runPopupItem(int id);

    void choosePath();
    bool find(const QString &text);
    void replaceSelectionByHostName();

    // Dialogs, replaceable so tests never block on a modal one. The picker
    // returns "" when cancelled; the prompt returns "" when cancelled.
    using FolderPicker = std::function<QString(QWidget *parent, const QString &title, const QString &start)>;
    using FindPrompt = std::function<QString(QWidget *parent, const QString &last)>;
    static void setFolderPicker(FolderPicker picker);
    static void setFindPrompt(FindPrompt prompt);

private:
    void showOptions();

    QPointer<QPlainTextEdit> m_logbox;
    QPointer<QCheckBox> m_check1;
    QPointer<QLabel> m_label16;
    LogOptions *m_options;
    QString m_lastFind;
};

namespace tw {
// Builds the LogPage for a console's widgets; any pointer but logbox and
// options may be null.
LogPage *attachLogPage(
    QPlainTextEdit *logbox, QCheckBox *check1, QPushButton *command7, QLabel *label16, LogOptions *options);
} // namespace tw
