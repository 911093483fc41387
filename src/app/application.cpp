#include "application.h"

#include "access/access_list.h"
#include "access/network_window.h"
#include "app/main_window.h"
#include "app/splash.h"
#include "browser/browser_window.h"
#include "capture/config_window.h"
#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/console_window.h"
#include "console/ssh_connection.h"
#include "logrecv/log_options.h"
#include "logrecv/log_page.h"
#include "logrecv/log_receiver.h"
#include "logrecv/log_routes.h"
#include "recovery/console_recovery.h"
#include "snmp/snmp_page.h"
#include "snmp/snmp_poller.h"
#include "tftp/standard_server.h"
#include "http/http_server.h"
#include "http/http_server_dialog.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"
#include "tftp/transfer_window.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QGroupBox>
#include <QLayout>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QStandardPaths>
#include <cstdio>

Application::Application(const CommandLineOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_monitor(std::make_unique<TransferMonitor>())
    , m_accessList(std::make_unique<AccessList>())
    , m_tftp(std::make_unique<TftpServer>(m_monitor.get(), m_accessList.get()))
    , m_standard(std::make_unique<StandardServer>(m_monitor.get(), m_accessList.get()))
    , m_http(std::make_unique<HttpServer>(m_monitor.get(), m_accessList.get()))
    , m_logOptions(std::make_unique<LogOptions>())
    , m_logRoutes(std::make_unique<LogRoutes>())
    , m_logReceiver(std::make_unique<LogReceiver>(m_logOptions.get()))
{
    m_accessList->setFilePath(accessListPath(m_options.aclFile));
    m_tftp->setPort(m_options.tftpPort);
    m_tftp->setConfine(m_options.confine);
    m_standard->setPort(m_options.tftpPort);
    m_standard->setConfine(m_options.confine);
    ConsoleSession::setTelnetPort(m_options.telnetPort);
    // With no window there is no one to accept a host key or type a password.
    SshConnection::setInteractive(!m_options.headless);
    SnmpPoller::setAgentPort(m_options.snmpPort);
    if (!m_options.logDir.isEmpty())
        m_logOptions->useLogDir(m_options.logDir);
    m_logRoutes->attach(*m_logReceiver);
    // Log routing looks at console slots 3 up to the window count only.
    m_logRoutes->setLastSlot([this] { return m_main ? int(m_main->windowTable().count) : 0; });
}

Application::~Application() = default;

QString Application::accessListPath(const QString &optionValue)
{
    if (!optionValue.isEmpty())
        return optionValue;
    const QString programFolder = QCoreApplication::applicationDirPath();
    if (QFileInfo(programFolder).isWritable())
        return programFolder + QStringLiteral("/ACLIST.ini");
    const QString userFolder = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
        + QStringLiteral("/Tarnwick");
    QDir().mkpath(userFolder);
    const QString path = userFolder + QStringLiteral("/ACLIST.ini");
    static bool said = false;
    if (!said) {
        said = true;
        std::fprintf(stderr, "tarnwick: %s cannot be written; the access list lives in %s\n",
            qPrintable(programFolder), qPrintable(path));
    }
    return path;
}

void Application::start()
{
    m_main = std::make_unique<MainWindow>();
    m_main->setConsoleFactory([this] { return createConsole(); });
    connect(m_main.get(), &MainWindow::consoleRegistered, this, &Application::consoleRegistered);
    if (m_options.headless) {
        connect(m_monitor.get(), &TransferMonitor::transferRowChanged, this,
            [this](int row) { printLine(m_monitor->transferLine(row)); });
        connect(m_monitor.get(), &TransferMonitor::socketRowChanged, this,
            [this](int slot) { printLine(m_monitor->socketLine(slot)); });
    }

    // Start-up: the five windows in table order, then the main window's load
    // steps, the window count, Files shown and capture off.
    createChildren();
    loadMainWindow();
    m_main->windowTable().count = 4;

    const QList<QMdiSubWindow *> frames = m_main->mdiArea()->subWindowList(QMdiArea::CreationOrder);
    for (QMdiSubWindow *frame : frames) {
        if (frame->isHidden())
            frame->show();
    }
    if (!m_main->sharedFolder().isEmpty()) {
        m_main->frameOf(WindowTable::filesIndex)->showMinimized();
        m_main->mdiArea()->setActiveSubWindow(m_main->frameOf(WindowTable::firstConsoleIndex));
    } else {
        m_main->mdiArea()->setActiveSubWindow(m_main->frameOf(WindowTable::filesIndex));
    }

    if (!m_options.connectHost.isEmpty()) {
        const std::optional<ConnectTarget> target = parseConnectTarget(m_options.connectHost);
        auto *console = qobject_cast<ConsoleWindow *>(m_main->child(WindowTable::firstConsoleIndex));
        if (!target) {
            const QString text
                = QStringLiteral("--connect takes HOST, HOST:PORT or ssh://[USER@]HOST[:PORT], "
                                 "not \"%1\"")
                      .arg(m_options.connectHost);
            std::fprintf(stderr, "tarnwick: %s\n", qPrintable(text));
            m_main->reportProblem(text);
        } else if (console) {
            connectRemembered(console->session(), *target);
        }
    }

    if (!m_options.headless) {
        m_main->show();
        // Owned by the main window, so a run that ends before the splash's
        // timer does not leave it behind.
        (new Splash(Splash::defaultShowMilliseconds, m_main.get()))->show();
    }
    m_main->arrangeSideBySide();
}

void Application::createChildren()
{
    m_browser = new BrowserWindow;
    m_main->addChild(WindowTable::filesIndex, QStringLiteral("Files"), m_browser, 1);
    connect(m_browser, &BrowserWindow::sharedFolderChanged, m_main.get(), &MainWindow::setSharedFolder);
    // The access list is loaded when its window is created.
    m_accessList->load_ACL();
    auto *network = new NetworkWindow(m_accessList.get());
    // The Add Network dialog offers the folder browser's folders.
    network->setFolderSource([this] {
        return NetworkWindow::FolderChoice { m_browser->folderList(), m_browser->currentFolder() };
    });
    m_main->addChild(WindowTable::networkIndex, QStringLiteral("Network"), network, 8);
    m_transferWindow = new TransferWindow(m_monitor.get());
    m_main->addChild(WindowTable::transferIndex, QStringLiteral("Transfer"), m_transferWindow, 3);
    connect(m_transferWindow, &TransferWindow::clearOldTransfersRequested, this,
            [this] {
                m_monitor->clearOldTransfers(
                    qMax(m_tftp->highestTransferRowInUse(), m_http->highestTransferRowInUse()));
            });
    connect(m_transferWindow, &TransferWindow::httpServerRequested, this, &Application::openHttpServerDialog);
    connect(m_transferWindow, &TransferWindow::standardProfileToggled, this, [this](bool on) {
        m_main->writeTftpStandardSetting(on);
        setTftpStandard(on);
    });
    ConsoleWindow *console = createConsole();
    m_main->addChild(WindowTable::firstConsoleIndex, QStringLiteral("Console"), console);
    m_main->registerConsole(WindowTable::firstConsoleIndex, console);
    m_config = new ConfigWindow;
    m_main->addChild(WindowTable::configIndex, QStringLiteral("Config"), m_config, 4);
    m_tftp->setCaptureSink(m_config);
    m_standard->setCaptureSink(m_config);
    connect(m_config, &ConfigWindow::capturingChanged, m_standard.get(), &StandardServer::setCapturing);
}

ConsoleWindow *Application::createConsole()
{
    auto *console = new ConsoleWindow;
    connect(console, &ConsoleWindow::newConsoleRequested, m_main.get(), &MainWindow::newConsole);
    connect(console, &ConsoleWindow::captionChanged, m_main.get(),
        [this, console](const QString &caption) { m_main->setToolbarButtonText(console, caption); });

    // The console's device is its TCP host: SNMP polls it and its logs land here.
    auto *snmp = new SnmpPage([console] { return console->session()->deviceAddress(); });
    console->snmpFrame()->layout()->addWidget(snmp);
    // Connecting to a device again brings back the SNMP choices made for it.
    connect(console->session(), &ConsoleSession::deviceAddressChanged, snmp, &SnmpPage::loadProfile);
    connect(snmp, &SnmpPage::startClicked, console, [console] {
        console->selectTab(1);
        console->relayout();
    });
    tw::attachLogPage(console->logBox(), console->logToFileCheck(), console->choosePathButton(),
        console->pathLabel(), m_logOptions.get());
    // "Log Session..." offers its file in the log folder.
    LogOptions *logOptions = m_logOptions.get();
    console->setLogFolderSource([logOptions] { return logOptions->effectiveFolder(); });
    attachRecovery(console);
    return console;
}

void Application::consoleRegistered(int index, ChildWindow *window)
{
    auto *console = qobject_cast<ConsoleWindow *>(window);
    if (!console)
        return;
    m_logRoutes->setConsole(
        index, console->logBox(), [console] { return console->session()->deviceAddress(); });
}

void Application::setTftpStandard(bool on)
{
    // The port is handed over: released by one profile before the other binds it.
    if (on) {
        m_tftp->setStandardProfile(true);
        if (!m_standard->listen())
            reportBindFailure(QStringLiteral("TFTP"), m_options.tftpPort, QStringLiteral("--tftp-port"),
                m_standard->errorString());
    } else {
        m_standard->stopListening();
        m_tftp->setStandardProfile(false);
    }
    m_transferWindow->setStandardProfile(on);
    m_main->showTftpProfile(on);
}

void Application::setHttpPort(quint16 port)
{
    if (port == 0) {
        m_http->stop();
    } else if (!m_http->start(port)) {
        reportBindFailure(m_http->tls() ? QStringLiteral("HTTPS") : QStringLiteral("HTTP"), port,
                          QStringLiteral("--http-port or \"HTTP Server...\""), m_http->errorString());
    }
    m_main->showHttpPort(m_http->port());
}

void Application::openHttpServerDialog()
{
    auto *dialog = new HttpServerDialog(m_http->isRunning() ? m_http->port() : m_main->readHttpPortSetting(),
                                        m_transferWindow);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    connect(dialog, &QDialog::accepted, this, [this, dialog] {
        m_main->writeHttpPortSetting(dialog->port());
        setHttpPort(dialog->port());
    });
    dialog->open();
}

void Application::loadMainWindow()
{
    const auto report = [this](const QString &text) {
        std::fprintf(stderr, "tarnwick: %s\n", qPrintable(text));
        m_main->reportProblem(text);
    };
    connect(m_tftp.get(), &TftpServer::accessDecisionFailed, this, report);
    connect(m_standard.get(), &StandardServer::accessDecisionFailed, this, report);
    connect(m_standard.get(), &StandardServer::limitReached, this, report);
    connect(m_standard.get(), &StandardServer::limitLowered, this, report);
    m_standard->setMaxTransfers(m_options.tftpMaxTransfers > 0
            ? m_options.tftpMaxTransfers
            : m_main->readIntSetting(
                QStringLiteral("TftpMaxTransfers"), StandardServer::defaultMaxTransfers));
    m_monitor->setTrimBlocker([this] { return m_tftp->highestTransferRowInUse() > 0; });
    m_monitor->setKeepRows(
        m_main->readIntSetting(QStringLiteral("TftpKeepRows"), TransferMonitor::defaultKeepRows));
    // --tftp-standard turns the profile on for this run without storing it.
    setTftpStandard(m_options.tftpStandard || m_main->readTftpStandardSetting());
    if (!m_tftp->start())
        reportBindFailure(QStringLiteral("TFTP"), m_options.tftpPort, QStringLiteral("--tftp-port"),
                          m_tftp->errorString());
    connect(m_http.get(), &HttpServer::accessDecisionFailed, this, [this](const QString &text) {
        std::fprintf(stderr, "tarnwick: %s\n", qPrintable(text));
        m_main->reportProblem(text);
    });
    if (!m_http->setTlsFiles(m_options.httpsCert, m_options.httpsKey)) {
        std::fprintf(stderr, "tarnwick: %s\n", qPrintable(m_http->errorString()));
        m_main->reportProblem(m_http->errorString());
    }
    // --http-port serves HTTP for this run without storing it.
    setHttpPort(m_options.httpPort > 0 ? m_options.httpPort : m_main->readHttpPortSetting());
    m_main->setSharedFolder(m_options.folderGiven ? m_options.folder : m_main->readFolderPathSetting());
    if (m_options.folderGiven)
        m_main->setRunOnlyFolder(m_options.folder);
    if (!m_logReceiver->bind(m_options.logPort))
        reportBindFailure(QStringLiteral("Log"), m_options.logPort, QStringLiteral("--log-port"),
            m_logReceiver->errorString());
    m_browser->setSharedFolder(m_main->sharedFolder());
    m_browser->Show_folders();
}

void Application::reportBindFailure(
    const QString &what, quint16 port, const QString &option, const QString &error)
{
    const QString text
        = QStringLiteral("%1 port %2 could not be bound (%3). Run with the privilege to bind it, "
                         "grant it with \"setcap cap_net_bind_service=+ep tarnwick\", or choose "
                         "another port with %4.")
              .arg(what)
              .arg(port)
              .arg(error, option);
    std::fprintf(stderr, "tarnwick: %s\n", qPrintable(text));
    m_main->reportProblem(text);
}

void Application::printLine(const QString &line)
{
    std::fputs(qPrintable(line), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void Application::shutDown()
{
    if (m_main)
        m_main->close();
}
