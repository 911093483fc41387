#pragma once

#include "app/command_line.h"

#include <QObject>
#include <memory>

class AccessList;
class ConfigWindow;
class LogOptions;
class LogReceiver;
class LogRoutes;
class BrowserWindow;
class HttpServer;
class ChildWindow;
class ConsoleWindow;
class MainWindow;
class StandardServer;
class TftpServer;
class TransferMonitor;
class TransferWindow;

// Builds the running program from the command line and wires the subsystems
// together: the only place that knows all of them. The start-up procedure
// creates the five child windows in the window table, runs the main window's
// load steps (TFTP listener, log endpoint, shared folder) and shows the frame,
// or, in headless mode, prints every transfer-monitor row change to stdout.
class Application : public QObject
{
    Q_OBJECT
public:
    explicit Application(const CommandLineOptions &options, QObject *parent = nullptr);
    ~Application() override;

    void start();
    // Runs the main window's unload steps; headless runs call it on SIGTERM.
    void shutDown();

    MainWindow *mainWindow() const { return m_main.get(); }
    TransferMonitor *monitor() const { return m_monitor.get(); }
    AccessList *accessList() const { return m_accessList.get(); }
    TftpServer *tftpServer() const { return m_tftp.get(); }
    StandardServer *standardServer() const { return m_standard.get(); }
    HttpServer *httpServer() const { return m_http.get(); }
    TransferWindow *transferWindow() const { return m_transferWindow; }
    BrowserWindow *browser() const { return m_browser; }
    ConfigWindow *configWindow() const { return m_config; }
    LogReceiver *logReceiver() const { return m_logReceiver.get(); }
    LogOptions *logOptions() const { return m_logOptions.get(); }

    // Where ACLIST.ini lives: --acl, else the program's folder, else (when that
    // folder cannot be written, as for an installed program) the per-user
    // configuration folder.
    static QString accessListPath(const QString &optionValue);

private:
    void createChildren();
    ConsoleWindow *createConsole();
    void consoleRegistered(int index, ChildWindow *window);
    void loadMainWindow();
    void reportBindFailure(const QString &what, quint16 port, const QString &option, const QString &error);
    void setTftpStandard(bool on);
    // Serves HTTP on `port` (0: stops serving) and shows it in the status bar.
    void setHttpPort(quint16 port);
    void openHttpServerDialog();
    void printLine(const QString &line);

    CommandLineOptions m_options;
    std::unique_ptr<TransferMonitor> m_monitor;
    std::unique_ptr<AccessList> m_accessList;
    std::unique_ptr<TftpServer> m_tftp;
    std::unique_ptr<StandardServer> m_standard;
    std::unique_ptr<HttpServer> m_http;
    std::unique_ptr<LogOptions> m_logOptions;
    std::unique_ptr<LogRoutes> m_logRoutes;
    std::unique_ptr<LogReceiver> m_logReceiver;
    std::unique_ptr<MainWindow> m_main;
    TransferWindow *m_transferWindow = nullptr;
    BrowserWindow *m_browser = nullptr;
    ConfigWindow *m_config = nullptr;
};
