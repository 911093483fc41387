#include "console_window.h"

#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/console_terminal.h"
#include "console/idle_bar.h"
#include "console/log_session_dialog.h"
#include "console/modem_options.h"
#include "console/session_log.h"
#include "console/ssh_connection.h"
#include "console/ssh_prompts.h"
#include "console/terminal_view.h"
#include "console/terminal_widget.h"
#include "util/message_box.h"
#include "util/twips.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QDateTime>
#include <QDir>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMdiSubWindow>
#include <QMenuBar>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSerialPort>
#include <QTabBar>
#include <QTextCursor>
#include <QVBoxLayout>

using tw::twips;

namespace {
QGroupBox *makeFrame(const QString &name, const QString &title, QWidget *parent)
{
    auto *frame = new QGroupBox(title, parent);
    frame->setObjectName(name);
    return frame;
}

QVBoxLayout *emptyContainer(QGroupBox *frame)
{
    auto *layout = new QVBoxLayout(frame);
    layout->setContentsMargins(0, 0, 0, 0);
    return layout;
}

// Side panels (flash backup, ROMMON) take this width at the right.
constexpr int panelWidth = 4200;
} // namespace

ConsoleWindow::ConsoleWindow(QWidget *parent)
    : ChildWindow(parent)
    , m_session(new ConsoleSession(this))
{
    setObjectName(QStringLiteral("Console"));
    setWindowTitle(QStringLiteral("Terminal"));
    setHideOnClose(false);
    setAttribute(Qt::WA_DeleteOnClose);
    resize(twips(9600), twips(6600));

    m_menuBar = new QMenuBar(this);
    m_menuBar->setNativeMenuBar(false);
    auto addMenuAction = [this](const char *name, const QString &text) {
        QAction *action = m_menuBar->addAction(text);
        action->setObjectName(QLatin1String(name));
        return action;
    };
    m_newConnection = addMenuAction("MnuNewConnection", QStringLiteral("New Connection"));
    m_disconnect = addMenuAction("MnuDisconnect", QStringLiteral("Disconnect"));
    m_newConsole = addMenuAction("MnuNewConsole", QStringLiteral("New Console"));
    m_removeConsole = addMenuAction("MnuRemoveConsole", QStringLiteral("Remove Console"));
    m_backUpFlash = addMenuAction("MnuBackUpFlash", QStringLiteral("BackUpFlash"));
    m_rommon = addMenuAction("MnuRommon", QStringLiteral("Rommon TFTP"));
    // Ctrl+Break for keyboards without a Pause/Break key.
    m_sendBreak = addMenuAction("MnuSendBreak", QStringLiteral("Send Break"));
    m_terminalEmulation = addMenuAction("MnuTerminalEmulation", QStringLiteral("Terminal Emulation"));
    m_terminalEmulation->setCheckable(true);
    m_logSession = addMenuAction("MnuLogSession", QStringLiteral("Log Session..."));
    m_logSession->setCheckable(true);

    m_tabStrip = new QTabBar(this);
    m_tabStrip->setObjectName(QStringLiteral("TabStrip1"));
    m_tabStrip->setDrawBase(true);
    for (const char *tab : { "Console", "SNMP", "Log", "Options" })
        m_tabStrip->addTab(QLatin1String(tab));

    buildPages();
    connectSession();

    connect(m_newConnection, &QAction::triggered, this, &ConsoleWindow::openConnectionDialog);
    connect(m_disconnect, &QAction::triggered, m_session, &ConsoleSession::disconnectSession);
    connect(m_newConsole, &QAction::triggered, this, &ConsoleWindow::newConsoleRequested);
    connect(m_removeConsole, &QAction::triggered, this, &ConsoleWindow::removeConsole);
    connect(m_sendBreak, &QAction::triggered, m_session, &ConsoleSession::sendBreak);
    connect(m_terminalEmulation, &QAction::triggered, this, [this](bool on) {
        m_session->setTerminalEmulation(on);
        if (!m_session->connectionKind().isEmpty()
            && m_session->connectionKind() != QLatin1String("Serial")) {
            ConnectTarget target;
            target.kind = m_session->sshSession() ? QStringLiteral("SSH") : QStringLiteral("TCP/IP");
            target.host = m_session->deviceAddress();
            target.port = m_session->devicePort();
            ConnectionHistory::setTerminalEmulation(target, on);
        }
    });
    connect(m_logSession, &QAction::triggered, this, &ConsoleWindow::logSession);
    connect(m_tabStrip, &QTabBar::currentChanged, this, &ConsoleWindow::selectTab);

    selectTab(0);
}

ConsoleWindow::~ConsoleWindow() = default;

void ConsoleWindow::buildPages()
{
    m_frames[0] = makeFrame(QStringLiteral("Frame1"), QStringLiteral("Console"), this);
    m_consoleBox = new TerminalView(m_frames[0]);
    m_terminalBox = new TerminalWidget(m_session->terminal(), m_frames[0]);
    m_terminalBox->hide();
    m_idleBar = new IdleBar(m_session, m_frames[0]);
    m_clearConsole = new QPushButton(QStringLiteral("Clear Console"), m_frames[0]);
    m_clearConsole->setObjectName(QStringLiteral("Command1"));
    m_clearConsole->setFocusPolicy(Qt::NoFocus);

    m_frames[1] = makeFrame(QStringLiteral("Frame2"), QStringLiteral("SNMP"), this);
    emptyContainer(m_frames[1]);

    m_frames[2] = makeFrame(QStringLiteral("Frame3"), QString(), this);
    m_logBox = new QPlainTextEdit(m_frames[2]);
    m_logBox->setObjectName(QStringLiteral("logbox"));
    m_logBox->setReadOnly(true);
    m_logBox->setUndoRedoEnabled(false);
    m_clearLog = new QPushButton(QStringLiteral("Clear Log"), m_frames[2]);
    m_clearLog->setObjectName(QStringLiteral("Command2"));

    m_frames[3] = makeFrame(QStringLiteral("Frame4"), QStringLiteral("Settings"), this);
    auto *logServer = makeFrame(QStringLiteral("Frame8"), QStringLiteral("LogServer"), m_frames[3]);
    m_logToFile = new QCheckBox(QStringLiteral("Log To File"), logServer);
    m_logToFile->setObjectName(QStringLiteral("Check1"));
    m_choosePath = new QPushButton(QStringLiteral("Choose Path"), logServer);
    m_choosePath->setObjectName(QStringLiteral("Command7"));
    m_pathLabel = new QLabel(QStringLiteral("Path to file"), logServer);
    m_pathLabel->setObjectName(QStringLiteral("Label16"));
    auto *logServerLayout = new QGridLayout(logServer);
    logServerLayout->addWidget(m_logToFile, 0, 0);
    logServerLayout->addWidget(m_choosePath, 0, 1);
    logServerLayout->addWidget(m_pathLabel, 1, 0, 1, 2);

    auto *tftpLabel = new QLabel(QStringLiteral("TFTP Server Address"), m_frames[3]);
    tftpLabel->setObjectName(QStringLiteral("Label10"));
    m_tftpServer = new QLineEdit(m_frames[3]);
    m_tftpServer->setObjectName(QStringLiteral("Text1"));
    tftpLabel->setBuddy(m_tftpServer);
    auto *tftpRow = new QHBoxLayout;
    tftpRow->addWidget(tftpLabel);
    tftpRow->addWidget(m_tftpServer, 1);
    auto *settingsLayout = new QVBoxLayout(m_frames[3]);
    settingsLayout->addWidget(logServer);
    settingsLayout->addLayout(tftpRow);
    settingsLayout->addStretch(1);

    m_backUpFlashFrame = makeFrame(QStringLiteral("Frame6"), QStringLiteral("BackUpFlash"), this);
    emptyContainer(m_backUpFlashFrame);
    m_backUpFlashFrame->hide();
    m_rommonFrame = makeFrame(QStringLiteral("Frame7"), QStringLiteral("TFTP Rommon "), this);
    emptyContainer(m_rommonFrame);
    m_rommonFrame->hide();
    // Whoever shows or hides a side panel gets the page resized to match.
    m_backUpFlashFrame->installEventFilter(this);
    m_rommonFrame->installEventFilter(this);

    connect(m_clearConsole, &QPushButton::clicked, m_session, &ConsoleSession::clearTerminal);
    connect(m_clearLog, &QPushButton::clicked, m_logBox, &QPlainTextEdit::clear);
}

void ConsoleWindow::connectSession()
{
    connect(m_session, &ConsoleSession::terminalAppend, m_consoleBox, &TerminalView::putText);
    connect(m_session, &ConsoleSession::terminalDeleteLast, m_consoleBox, &TerminalView::deleteLastChar);
    connect(m_session, &ConsoleSession::terminalCleared, m_consoleBox, &QPlainTextEdit::clear);
    connect(m_session, &ConsoleSession::logAppend, this, [this](const QString &text) {
        QTextCursor cursor(m_logBox->document());
        cursor.movePosition(QTextCursor::End);
        cursor.insertText(text);
    });
    connect(m_session, &ConsoleSession::captionChanged, this, [this](const QString &caption) {
        m_caption = caption;
        updateTitle();
        Q_EMIT captionChanged(caption);
    });
    connect(
        m_session->terminal(), &ConsoleTerminal::enabledChanged, this, &ConsoleWindow::onTerminalEmulation);
    connect(m_terminalBox, &TerminalWidget::breakRequested, m_session, &ConsoleSession::sendBreak);
    connect(m_terminalBox, &TerminalWidget::gridChanged, this, &ConsoleWindow::sendTerminalSize);
    SessionLog *log = m_session->sessionLog();
    connect(log, &SessionLog::started, this, [this] {
        m_logSession->setChecked(true);
        updateTitle();
    });
    connect(log, &SessionLog::stopped, this, [this] {
        m_logSession->setChecked(false);
        updateTitle();
    });
    connect(log, &SessionLog::failed, this, [this](const QString &message) {
        // Said in the console itself: a dialog would stop a flood's display.
        m_session->appendTerminal(message + QStringLiteral("\r\n"), ConsoleSession::errorColour);
    });
    connect(m_session, &ConsoleSession::messageBoxRequested, this,
        [](const QString &text) { tw::messageBox(text, QMessageBox::Warning); });
    attachSshPrompts(this, m_session->ssh());
    connect(m_consoleBox, &TerminalView::keyBytes, m_session, &ConsoleSession::send);
    connect(m_consoleBox, &TerminalView::breakRequested, m_session, &ConsoleSession::sendBreak);
    connect(m_consoleBox, &TerminalView::pasteRequested, m_session,
        [this](const QString &text) { m_session->send(text.toLatin1()); });
}

void ConsoleWindow::selectTab(int index)
{
    if (index < 0 || index > 3)
        return;
    if (m_tabStrip->currentIndex() != index)
        m_tabStrip->setCurrentIndex(index); // comes back here through currentChanged
    for (int i = 0; i < 4; ++i)
        m_frames[i]->setVisible(i == index);
    relayout();
    if (index == 0)
        (m_session->terminalEmulation() ? static_cast<QWidget *>(m_terminalBox) : m_consoleBox)->setFocus();
}

void ConsoleWindow::relayout()
{
    const int top = m_menuBar->sizeHint().height();
    m_menuBar->setGeometry(0, 0, width(), top);

    int usableWidth = width();
    const bool panel = m_backUpFlashFrame->isVisibleTo(this) || m_rommonFrame->isVisibleTo(this);
    if (panel) {
        const int panelLeft = qMax(0, width() - twips(panelWidth) - twips(60));
        QRect area(panelLeft, top + twips(60), twips(panelWidth), qMax(0, height() - top - twips(120)));
        if (m_backUpFlashFrame->isVisibleTo(this) && m_rommonFrame->isVisibleTo(this)) {
            const int half = area.height() / 2;
            m_backUpFlashFrame->setGeometry(area.adjusted(0, 0, 0, -half));
            m_rommonFrame->setGeometry(area.adjusted(0, area.height() - half, 0, 0));
        } else {
            (m_backUpFlashFrame->isVisibleTo(this) ? m_backUpFlashFrame : m_rommonFrame)->setGeometry(area);
        }
        usableWidth = panelLeft;
    }

    // The tab strip is the window's width less 100 and its height less 200;
    // a page is 600 narrower than the window, 250 above its bottom edge and
    // 125 from its left edge (all in twips).
    const int stripHeight = m_tabStrip->sizeHint().height();
    m_tabStrip->setGeometry(twips(50), top + twips(50), qMax(0, usableWidth - twips(100)), stripHeight);
    const int pageTop = top + twips(50) + stripHeight;
    const QRect page(
        twips(125), pageTop, qMax(0, usableWidth - twips(600)), qMax(0, height() - twips(250) - pageTop));
    for (int i = 0; i < 4; ++i) {
        // Hidden pages keep their size until they are shown.
        if (m_frames[i]->isVisibleTo(this))
            layoutPage(i, page);
    }
}

void ConsoleWindow::layoutPage(int index, const QRect &area)
{
    QGroupBox *frame = m_frames[index];
    frame->setGeometry(area);
    const int viewLeft = twips(75);
    const int viewTop = twips(300);
    const int viewWidth = qMax(0, area.width() - twips(150));
    if (index == 0) {
        // The terminal leaves room beneath it for the idle bar and "Clear Console".
        const int boxHeight = qMax(0, area.height() - twips(900));
        m_consoleBox->setGeometry(viewLeft, viewTop, viewWidth, boxHeight);
        m_terminalBox->setGeometry(viewLeft, viewTop, viewWidth, boxHeight);
        sendTerminalSize();
        const int below = viewTop + boxHeight + twips(60);
        const int buttonWidth = qMax(twips(1500), m_clearConsole->sizeHint().width());
        const int buttonHeight = twips(450);
        m_clearConsole->setGeometry(viewLeft + viewWidth - buttonWidth, below, buttonWidth, buttonHeight);
        m_idleBar->setGeometry(
            viewLeft, below + twips(90), qMax(0, viewWidth - buttonWidth - twips(120)), twips(270));
    } else if (index == 2) {
        m_logBox->setGeometry(viewLeft, viewTop, viewWidth, qMax(0, area.height() - twips(500)));
        // "Clear Log" sits in the frame's top edge, right-aligned, above the view.
        const QSize hint = m_clearLog->sizeHint();
        m_clearLog->setGeometry(
            viewLeft + viewWidth - hint.width(), 0, hint.width(), qMin(hint.height(), viewTop));
    }
    // The SNMP and settings pages lay out their own contents.
}

void ConsoleWindow::sendTerminalSize()
{
    // An SSH shell's pty follows the view's size in characters.
    if (m_session->terminalEmulation()) {
        m_session->ssh()->setTerminalSize(m_terminalBox->gridColumns(), m_terminalBox->gridRows());
        return;
    }
    const QFontMetrics metrics(m_consoleBox->font());
    const QRect text = m_consoleBox->viewport()->rect();
    m_session->ssh()->setTerminalSize(
        qMax(20, text.width() / qMax(1, metrics.horizontalAdvance(QLatin1Char('M')))),
        qMax(5, text.height() / qMax(1, metrics.lineSpacing())));
}

void ConsoleWindow::onTerminalEmulation(bool on)
{
    m_terminalEmulation->setChecked(on);
    const bool focused = m_consoleBox->hasFocus() || m_terminalBox->hasFocus();
    m_terminalBox->setVisible(on);
    m_consoleBox->setVisible(!on);
    if (focused || m_tabStrip->currentIndex() == 0)
        (on ? static_cast<QWidget *>(m_terminalBox) : m_consoleBox)->setFocus();
    sendTerminalSize();
}

void ConsoleWindow::updateTitle()
{
    const SessionLog *log = m_session->sessionLog();
    if (log->isActive())
        setWindowTitle(
            QStringLiteral("%1 [Logging to %2]").arg(m_caption, QDir::toNativeSeparators(log->path())));
    else
        setWindowTitle(m_caption);
}

QString ConsoleWindow::shownText() const
{
    if (m_session->terminalEmulation())
        return m_session->terminal()->screen().allText();
    return m_consoleBox->toPlainText();
}

void ConsoleWindow::logSession()
{
    SessionLog *log = m_session->sessionLog();
    if (log->isActive()) {
        log->stop();
        return;
    }
    m_logSession->setChecked(false);
    QString folder = m_logFolder ? m_logFolder() : QString();
    if (folder.isEmpty() || !QDir(folder).exists())
        folder = QDir::homePath();
    const QString offered = QDir(folder).filePath(
        SessionLog::offeredName(m_session->deviceAddress().isEmpty() ? m_caption : m_session->deviceAddress(),
            QDateTime::currentDateTime()));
    auto *dialog = new LogSessionDialog(offered, window());
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::ApplicationModal);
    connect(dialog, &QDialog::accepted, this, [this, dialog] {
        SessionLog *log = m_session->sessionLog();
        if (dialog->path().isEmpty())
            return;
        if (!log->start(dialog->path(), dialog->mode())) {
            tw::messageBox(QStringLiteral("Cannot log to %1: %2").arg(dialog->path(), log->errorString()),
                QMessageBox::Warning);
        }
    });
    dialog->show();
}

void ConsoleWindow::openConnectionDialog()
{
    auto *dialog = new ModemOptions(window());
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWhoasked(m_session);
    dialog->setWindowModality(Qt::ApplicationModal);
    dialog->show();
}

void ConsoleWindow::removeConsole()
{
    m_session->clearTerminal();
    if (QMdiSubWindow *frame = mdiFrame())
        frame->close();
    else
        close();
}

bool ConsoleWindow::eventFilter(QObject *watched, QEvent *event)
{
    if ((watched == m_backUpFlashFrame || watched == m_rommonFrame)
        && (event->type() == QEvent::ShowToParent || event->type() == QEvent::HideToParent))
        relayout();
    return ChildWindow::eventFilter(watched, event);
}

void ConsoleWindow::resizeEvent(QResizeEvent *event)
{
    ChildWindow::resizeEvent(event);
    relayout();
}

void ConsoleWindow::showEvent(QShowEvent *event)
{
    ChildWindow::showEvent(event);
    relayout();
}

void ConsoleWindow::closeEvent(QCloseEvent *event)
{
    ChildWindow::closeEvent(event);
    if (!event->isAccepted())
        return;
    if (m_session->serialOpen())
        m_session->serialPort()->close();
    Q_EMIT consoleUnloaded(tag());
}
