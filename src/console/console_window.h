#pragma once

#include "util/child_window.h"

#include <functional>

class ConsoleSession;
class IdleBar;
class QAction;
class QCheckBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QMenuBar;
class QPlainTextEdit;
class QPushButton;
class QTabBar;
class TerminalView;
class TerminalWidget;

// `Console`: the window of one device console. It owns its ConsoleSession
// (serial port, TCP socket, timers) and shows it: the terminal (`ConsoleBox`),
// the idle bar (`Picture1`), the log page (`logbox`) and the settings page.
//
// Tabs "Console", "SNMP", "Log", "Options" show exactly one of the pages
// `Frame1` to `Frame4`. `Frame2` (SNMP), `Frame6` (flash backup) and `Frame7`
// (ROMMON) are empty containers with a zero-margin QVBoxLayout that other
// parts of the program fill; the window itself does nothing on the menu
// entries `MnuBackUpFlash` and `MnuRommon`; it lays itself out again
// whenever one of those panels is shown or hidden.
//
// Signals for the main window:
//  - newConsoleRequested(): menu "New Console" (the window table checks the
//    limit and creates the console);
//  - captionChanged(name): the device's prompt named the console (the window
//    caption is already set; the toolbar button follows);
//  - consoleUnloaded(tag): the console is closing for good (its serial port
//    is already closed); the window deletes itself afterwards.
//
// "Terminal Emulation" (`MnuTerminalEmulation`, checkable) swaps ConsoleBox
// for the terminal view (`TerminalBox`) and back; the choice is kept with the
// connection's history entry. "Log Session..." (`MnuLogSession`) starts and
// stops the session log; while it runs the caption says so.
// tag() (ChildWindow) holds the console number.
class ConsoleWindow : public ChildWindow
{
    Q_OBJECT
public:
    explicit ConsoleWindow(QWidget *parent = nullptr);
    ~ConsoleWindow() override;

    ConsoleSession *session() const { return m_session; }
    TerminalView *consoleBox() const { return m_consoleBox; }
    TerminalWidget *terminalBox() const { return m_terminalBox; }
    // What the console shows as text: ConsoleBox's text, or in terminal
    // mode the scrollback and screen (trailing blanks removed).
    QString shownText() const;
    QPlainTextEdit *logBox() const { return m_logBox; }
    QTabBar *tabStrip() const { return m_tabStrip; }
    IdleBar *idleBar() const { return m_idleBar; }

    QGroupBox *consoleFrame() const { return m_frames[0]; }
    QGroupBox *snmpFrame() const { return m_frames[1]; }
    QGroupBox *logFrame() const { return m_frames[2]; }
    QGroupBox *settingsFrame() const { return m_frames[3]; }
    QGroupBox *backUpFlashFrame() const { return m_backUpFlashFrame; }
    QGroupBox *rommonFrame() const { return m_rommonFrame; }

    // Options page controls wired by the log receiver and the flash backup.
    QCheckBox *logToFileCheck() const { return m_logToFile; }
    QPushButton *choosePathButton() const { return m_choosePath; }
    QLabel *pathLabel() const { return m_pathLabel; }
    QLineEdit *tftpServerEdit() const { return m_tftpServer; }

    QAction *newConnectionAction() const { return m_newConnection; }
    QAction *disconnectAction() const { return m_disconnect; }
    QAction *newConsoleAction() const { return m_newConsole; }
    QAction *removeConsoleAction() const { return m_removeConsole; }
    QAction *backUpFlashAction() const { return m_backUpFlash; }
    QAction *rommonAction() const { return m_rommon; }
    QAction *sendBreakAction() const { return m_sendBreak; }
    QAction *terminalEmulationAction() const { return m_terminalEmulation; }
    QAction *logSessionAction() const { return m_logSession; }

    // Where "Log Session..." offers its file (the log folder); home when unset.
    void setLogFolderSource(std::function<QString()> source) { m_logFolder = std::move(source); }
    // "Log Session...": the dialog, or stopping a running log.
    void logSession();

    // Tab index 0 to 3: shows that page only; the terminal page takes the focus.
    void selectTab(int index);
    // Places the tab strip, the visible page and the visible panels for the
    // current size.
    void relayout();

    // Opens the connection dialog for this console (menu "New Connection").
    void openConnectionDialog();
    // Menu "Remove Console": empties the terminal and closes the console.
    void removeConsole();

Q_SIGNALS:
    void newConsoleRequested();
    void captionChanged(const QString &caption);
    void consoleUnloaded(const QString &tag);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    void buildPages();
    void connectSession();
    void layoutPage(int index, const QRect &area);
    void onTerminalEmulation(bool on);
    void updateTitle();
    void sendTerminalSize();

    ConsoleSession *m_session;
    QMenuBar *m_menuBar;
    QTabBar *m_tabStrip;
    QGroupBox *m_frames[4] = {};
    QGroupBox *m_backUpFlashFrame;
    QGroupBox *m_rommonFrame;
    TerminalView *m_consoleBox;
    TerminalWidget *m_terminalBox;
    QString m_caption = QStringLiteral("Terminal");
    std::function<QString()> m_logFolder;
    IdleBar *m_idleBar;
    QPushButton *m_clearConsole;
    QPlainTextEdit *m_logBox;
    QPushButton *m_clearLog;
    QCheckBox *m_logToFile;
    QPushButton *m_choosePath;
    QLabel *m_pathLabel;
    QLineEdit *m_tftpServer;

    QAction *m_newConnection;
    QAction *m_disconnect;
    QAction *m_newConsole;
    QAction *m_removeConsole;
    QAction *m_backUpFlash;
    QAction *m_rommon;
    QAction *m_sendBreak;
    QAction *m_terminalEmulation;
    QAction *m_logSession;
};
