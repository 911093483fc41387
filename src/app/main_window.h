#pragma once

#include "app/window_table.h"

#include <QHash>
#include <QMainWindow>
#include <functional>
#include <optional>

class QLabel;
class QMdiArea;
class QMdiSubWindow;
class QToolBar;

// The frame window `frmForm`, captioned "Tarnwick". It holds the child windows
// in an MDI area, the window table, the toolbar `Toolbar1` with one button per
// child (caption = window name, tag = table index) and the status bar
// `StatusBar1` with a date and a time panel.
//
// Child windows are arranged "side by side": every visible, non-minimised
// child gets the full height of the area and an equal share of its width. The
// arrangement runs on resize and after a child's close request, but only while
// the caption is exactly "Tarnwick", which it is not while a child is
// maximised (the caption then names the child, as MDI frames do).
class MainWindow : public QMainWindow
{
    Q_OBJECT
public:
    using ConsoleFactory = std::function<ChildWindow *()>;
    enum ChildState { Normal = 0, Minimised = 1, Maximised = 2 };

    explicit MainWindow(QWidget *parent = nullptr);
    ~MainWindow() override;

    WindowTable &windowTable() { return m_table; }
    QMdiArea *mdiArea() const { return m_mdi; }
    QToolBar *toolbar() const { return m_toolbar; }

    // Puts `window` into the table at `index` under `name`: MDI frame, caption,
    // icon, tag and toolbar button. The window is not shown.
    void addChild(int index, const QString &name, ChildWindow *window, int buttonImage = 0);
    ChildWindow *child(int index) const;
    QMdiSubWindow *frameOf(int index) const;
    ChildState childState(int index) const;

    // "New Console": refuses with "Thats enough of that!" at the limit.
    void setConsoleFactory(ConsoleFactory factory) { m_consoleFactory = std::move(factory); }
    ChildWindow *newConsole();
    // Consoles really close: their frame goes with them, and so do their
    // toolbar button and their name in the table.
    void registerConsole(int index, ChildWindow *console);

    // The toolbar button of the window with this tag (first one when several
    // consoles share a tag).
    QAction *toolbarButton(const QString &tag) const;
    void setToolbarButtonText(ChildWindow *window, const QString &text);

    void arrangeSideBySide();
    void retileIfPlainCaption();
    // A toolbar click on the button tagged `index`.
    void toolbarClicked(int index);

    // The shared TFTP folder (settings key "FolderPath").
    QString sharedFolder() const { return m_sharedFolder; }
    void setSharedFolder(const QString &folder) { m_sharedFolder = folder; }
    QString readFolderPathSetting() const;
    // "TftpStandard": whether the standard TFTP profile is on (off by default).
    bool readTftpStandardSetting() const;
    void writeTftpStandardSetting(bool on);
    // "TftpMaxTransfers" (1000) and "TftpKeepRows" (5000): the standard profile's
    // transfer limit and how many transfer-list rows are kept.
    int readIntSetting(const QString &name, int fallback) const;
    // The status-bar panel that names the TFTP profile answering requests.
    void showTftpProfile(bool standard);
    QString tftpProfileText() const;
    // "HttpPort": the port the access list's folders are served on over HTTP, 0 (the default) for off.
    quint16 readHttpPortSetting() const;
    void writeHttpPortSetting(quint16 port);
    // The status-bar panel "HTTP: <port>" or "HTTP: off".
    void showHttpPort(quint16 port);
    QString httpPortText() const;
    // A folder given for this run only (--folder): while it is the shared
    // folder, unload leaves the stored "FolderPath" as it was.
    void setRunOnlyFolder(const QString &folder) { m_runOnlyFolder = folder; }
    // Unload steps: the placement (only for a window that has been on screen,
    // so a --headless run writes none, and not while minimised) and the folder.
    void saveSettings();

    // A lasting problem (a port that could not be bound) shown in the status bar.
    void reportProblem(const QString &text);
    QString problemText() const;

Q_SIGNALS:
    void unloading();
    // A console took the table entry `index` (start-up or "New Console").
    void consoleRegistered(int index, ChildWindow *console);

protected:
    void closeEvent(QCloseEvent *event) override;
    void showEvent(QShowEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void updateCaption();
    void updateClock();
    void consoleDestroyed(QObject *console);

    QMdiArea *m_mdi;
    QToolBar *m_toolbar;
    QLabel *m_problem;
    QLabel *m_date;
    QLabel *m_time;
    QLabel *m_tftpProfile;
    QLabel *m_httpPort;
    WindowTable m_table;
    QHash<QObject *, QAction *> m_buttons;
    QHash<QObject *, int> m_consoleIndex;
    ConsoleFactory m_consoleFactory;
    QString m_sharedFolder;
    bool m_saved = false;
    bool m_everShown = false;
    std::optional<QString> m_runOnlyFolder;
};
