#include "main_window.h"

#include "util/image_list.h"
#include "util/message_box.h"
#include "util/twips.h"

#include <QAction>
#include <QCloseEvent>
#include <QDateTime>
#include <QLabel>
#include <QLocale>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QSettings>
#include <QStatusBar>
#include <QTimer>
#include <QToolBar>
#include <memory>

namespace {
const QString caption = QStringLiteral("Tarnwick");

// The per-user settings store: application "Tarnwick", section "Settings".
std::unique_ptr<QSettings> settingsStore()
{
    auto settings = std::make_unique<QSettings>(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings->beginGroup(QStringLiteral("Settings"));
    return settings;
}
} // namespace

MainWindow::MainWindow(QWidget *parent)
    : QMainWindow(parent)
    , m_mdi(new QMdiArea(this))
    , m_toolbar(new QToolBar(QStringLiteral("Toolbar1"), this))
    , m_problem(new QLabel(this))
    , m_date(new QLabel(this))
    , m_time(new QLabel(this))
    , m_tftpProfile(new QLabel(this))
    , m_httpPort(new QLabel(this))
{
    setObjectName(QStringLiteral("frmForm"));
    setWindowTitle(caption);
    m_mdi->setObjectName(QStringLiteral("MDIClient"));
    m_mdi->setHorizontalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    m_mdi->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    m_mdi->installEventFilter(this);
    setCentralWidget(m_mdi);
    connect(m_mdi, &QMdiArea::subWindowActivated, this, &MainWindow::updateCaption);

    m_toolbar->setObjectName(QStringLiteral("Toolbar1"));
    m_toolbar->setMovable(false);
    m_toolbar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    addToolBar(Qt::TopToolBarArea, m_toolbar);

    statusBar()->setObjectName(QStringLiteral("StatusBar1"));
    m_problem->setObjectName(QStringLiteral("ProblemPanel"));
    m_date->setObjectName(QStringLiteral("DatePanel"));
    m_time->setObjectName(QStringLiteral("TimePanel"));
    m_tftpProfile->setObjectName(QStringLiteral("TftpProfilePanel"));
    statusBar()->addWidget(m_problem, 1);
    statusBar()->addPermanentWidget(m_tftpProfile);
    m_httpPort->setObjectName(QStringLiteral("HttpPortPanel"));
    statusBar()->addPermanentWidget(m_httpPort);
    showHttpPort(0);
    statusBar()->addPermanentWidget(m_date);
    statusBar()->addPermanentWidget(m_time);
    auto *clock = new QTimer(this);
    connect(clock, &QTimer::timeout, this, &MainWindow::updateClock);
    clock->start(1000);
    updateClock();

    // The designed placement; the stored placement keys are never read back.
    resize(tw::twips(15360), tw::twips(10800));
}

MainWindow::~MainWindow()
{
    // Consoles report their destruction to this window; let them go while the
    // table and the buttons still exist.
    delete m_mdi;
}

void MainWindow::addChild(int index, const QString &name, ChildWindow *window, int buttonImage)
{
    if (index < 0 || index >= WindowTable::size)
        return;
    QMdiSubWindow *frame = m_mdi->addSubWindow(window);
    frame->setObjectName(name + QStringLiteral("Frame"));
    frame->hide();
    window->setWindowTitle(name);
    window->setTag(QString::number(index));
    window->setWindowIcon(tw::imageListIcon(1));
    m_table.instances[index] = window;
    m_table.names[index] = name;

    QAction *button = m_toolbar->addAction(name);
    button->setData(index);
    if (buttonImage > 0)
        button->setIcon(tw::imageListIcon(buttonImage));
    button->setObjectName(QStringLiteral("Button") + QString::number(index));
    connect(button, &QAction::triggered, this, [this, button] { toolbarClicked(button->data().toInt()); });
    m_buttons.insert(window, button);

    connect(frame, &QMdiSubWindow::windowStateChanged, this, &MainWindow::updateCaption);
    connect(window, &ChildWindow::closeRequested, this, [this, window] {
        if (window->mdiFrame() && window->mdiFrame()->isHidden())
            retileIfPlainCaption();
    });
}

ChildWindow *MainWindow::child(int index) const
{
    if (index < 0 || index >= WindowTable::size)
        return nullptr;
    return m_table.instances[index];
}

QMdiSubWindow *MainWindow::frameOf(int index) const
{
    ChildWindow *window = child(index);
    return window ? window->mdiFrame() : nullptr;
}

MainWindow::ChildState MainWindow::childState(int index) const
{
    QMdiSubWindow *frame = frameOf(index);
    if (!frame)
        return Normal;
    if (frame->isMinimized())
        return Minimised;
    if (frame->isMaximized())
        return Maximised;
    return Normal;
}

ChildWindow *MainWindow::newConsole()
{
    if (m_table.count == WindowTable::consoleLimit) {
        tw::messageBox(QStringLiteral("Thats enough of that!"));
        return nullptr;
    }
    if (!m_consoleFactory)
        return nullptr;
    ++m_table.count;
    const int index = m_table.count;
    ChildWindow *console = m_consoleFactory();
    addChild(index, QStringLiteral("Console") + QString::number(index - 3), console);
    registerConsole(index, console);
    console->mdiFrame()->show();
    console->show();
    return console;
}

void MainWindow::registerConsole(int index, ChildWindow *console)
{
    m_consoleIndex.insert(console, index);
    // The tag may later be shared with an older console at the same index; the
    // button and the table slot are found through the window itself.
    connect(console, &QObject::destroyed, this, &MainWindow::consoleDestroyed);
    if (QMdiSubWindow *frame = console->mdiFrame())
        frame->setAttribute(Qt::WA_DeleteOnClose);
    if (QAction *button = m_buttons.value(console))
        button->setIcon(tw::imageListIcon(2));
    Q_EMIT consoleRegistered(index, console);
}

void MainWindow::consoleDestroyed(QObject *console)
{
    if (QAction *button = m_buttons.take(console)) {
        m_toolbar->removeAction(button);
        button->deleteLater();
    }
    const int index = m_consoleIndex.take(console);
    if (index > 0 && index < WindowTable::size)
        m_table.names[index].clear();
    --m_table.count;
}

QAction *MainWindow::toolbarButton(const QString &tag) const
{
    const QList<QAction *> actions = m_toolbar->actions();
    for (QAction *action : actions) {
        if (action->data().toString() == tag)
            return action;
    }
    return nullptr;
}

void MainWindow::setToolbarButtonText(ChildWindow *window, const QString &text)
{
    if (QAction *button = m_buttons.value(window))
        button->setText(text);
}

void MainWindow::arrangeSideBySide()
{
    QList<QMdiSubWindow *> tiled;
    bool anyMinimised = false;
    const QList<QMdiSubWindow *> frames = m_mdi->subWindowList(QMdiArea::CreationOrder);
    for (QMdiSubWindow *frame : frames) {
        if (frame->isHidden())
            continue;
        if (frame->isMinimized())
            anyMinimised = true;
        else if (!frame->isMaximized())
            tiled << frame;
    }
    if (tiled.isEmpty())
        return;
    QRect area = m_mdi->viewport()->rect();
    // Minimised children sit in a row along the bottom; keep them uncovered.
    if (anyMinimised)
        area.setBottom(area.bottom() - m_mdi->fontMetrics().height() * 2 - 8);
    const int share = area.width() / int(tiled.size());
    int x = area.left();
    for (int i = 0; i < tiled.size(); ++i) {
        const int width = (i == tiled.size() - 1) ? area.right() + 1 - x : share;
        tiled[i]->setGeometry(x, area.top(), width, area.height());
        x += width;
    }
}

void MainWindow::retileIfPlainCaption()
{
    if (windowTitle() == caption)
        arrangeSideBySide();
}

void MainWindow::toolbarClicked(int index)
{
    ChildWindow *target = child(index);
    QMdiSubWindow *frame = target ? target->mdiFrame() : nullptr;
    if (!frame)
        return;
    QMdiSubWindow *active = m_mdi->activeSubWindow();
    auto *activeChild = active ? qobject_cast<ChildWindow *>(active->widget()) : nullptr;
    const bool isActive = activeChild && activeChild->tag() == target->tag() && frame->isVisible();
    const ChildState state = childState(index);

    if (!isActive || state == Minimised) {
        frame->show();
        if (state == Minimised)
            frame->showNormal();
        m_mdi->setActiveSubWindow(frame);
        target->setFocus();
    } else if (state == Normal) {
        frame->showMaximized();
    } else {
        frame->showNormal();
    }
    updateCaption();
    if (childState(index) == Normal)
        retileIfPlainCaption();
}

void MainWindow::updateCaption()
{
    QString title = caption;
    const QList<QMdiSubWindow *> frames = m_mdi->subWindowList();
    for (QMdiSubWindow *frame : frames) {
        if (frame->isVisible() && frame->isMaximized() && frame->widget()) {
            title = QStringLiteral("%1 - [%2]").arg(caption, frame->widget()->windowTitle());
            break;
        }
    }
    setWindowTitle(title);
}

void MainWindow::updateClock()
{
    const QDateTime now = QDateTime::currentDateTime();
    const QLocale locale;
    m_date->setText(locale.toString(now.date(), QLocale::ShortFormat));
    m_time->setText(locale.toString(now.time(), QLocale::ShortFormat));
}

QString MainWindow::readFolderPathSetting() const
{
    return settingsStore()->value(QStringLiteral("FolderPath"), QString()).toString();
}

bool MainWindow::readTftpStandardSetting() const
{
    return settingsStore()->value(QStringLiteral("TftpStandard"), false).toBool();
}

int MainWindow::readIntSetting(const QString &name, int fallback) const
{
    bool ok = false;
    const int value = settingsStore()->value(name, fallback).toInt(&ok);
    return ok && value > 0 ? value : fallback;
}

void MainWindow::writeTftpStandardSetting(bool on)
{
    settingsStore()->setValue(QStringLiteral("TftpStandard"), on);
}

void MainWindow::showTftpProfile(bool standard)
{
    m_tftpProfile->setText(standard ? tr("TFTP: standard") : tr("TFTP: classic"));
    m_tftpProfile->setToolTip(standard ? tr("TFTP requests are answered with the standard profile: options, "
                                            "block roll-over, ERROR replies and retransmission.")
                                       : tr("TFTP requests are answered with the classic profile."));
}

QString MainWindow::tftpProfileText() const
{
    return m_tftpProfile->text();
}

quint16 MainWindow::readHttpPortSetting() const
{
    const uint port = settingsStore()->value(QStringLiteral("HttpPort"), 0).toUInt();
    return port <= 65535 ? quint16(port) : 0;
}

void MainWindow::writeHttpPortSetting(quint16 port)
{
    settingsStore()->setValue(QStringLiteral("HttpPort"), port);
}

void MainWindow::showHttpPort(quint16 port)
{
    m_httpPort->setText(port > 0 ? QStringLiteral("HTTP: %1").arg(port) : QStringLiteral("HTTP: off"));
}

QString MainWindow::httpPortText() const
{
    return m_httpPort->text();
}

void MainWindow::saveSettings()
{
    const std::unique_ptr<QSettings> settings = settingsStore();
    if (m_everShown && !isMinimized()) {
        // Placement in twips, the window units of the designed layout.
        const QRect placement = geometry();
        settings->setValue(QStringLiteral("MainLeft"), placement.left() * tw::twipsPerPixel);
        settings->setValue(QStringLiteral("MainTop"), placement.top() * tw::twipsPerPixel);
        settings->setValue(QStringLiteral("MainWidth"), placement.width() * tw::twipsPerPixel);
        settings->setValue(QStringLiteral("MainHeight"), placement.height() * tw::twipsPerPixel);
    }
    if (m_sharedFolder != m_runOnlyFolder)
        settings->setValue(QStringLiteral("FolderPath"), m_sharedFolder);
    settings->sync();
}

void MainWindow::reportProblem(const QString &text)
{
    const QString shown = m_problem->text();
    m_problem->setText(shown.isEmpty() ? text : shown + QStringLiteral("  |  ") + text);
    m_problem->setToolTip(m_problem->text());
}

QString MainWindow::problemText() const
{
    return m_problem->text();
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    if (!m_saved) {
        Q_EMIT unloading();
        saveSettings();
        m_saved = true;
    }
    QMainWindow::closeEvent(event);
}

void MainWindow::showEvent(QShowEvent *event)
{
    m_everShown = true;
    QMainWindow::showEvent(event);
}

bool MainWindow::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_mdi && event->type() == QEvent::Resize)
        QTimer::singleShot(0, this, &MainWindow::retileIfPlainCaption);
    return QMainWindow::eventFilter(watched, event);
}
