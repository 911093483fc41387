// Runs the TFTP server with no window: tftp_bench_server [--headless]
// [--tftp-port N] [--acl FILE] [--folder DIR] [--confine] [--tftp-standard]
// [--tftp-max-transfers N] [--window]. Prints every change of a transfer-monitor row as
// `tarnwick --headless` does. Without --acl, one row lets everyone read and
// write in --folder. --window shows the Transfer window (on whatever platform
// Qt runs) and prints to stderr, at the end of each transfer, the longest the
// event loop went without running a 5 ms timer: "stall MS". Each figure is followed by the
// CPU time the UI thread used during that longest gap ("cpu MS") and the time it
// spent runnable but waiting for a core ("queued MS", from the kernel's
// schedstat): on a busy machine a gap is often the thread waiting for a core,
// not working; what is left of the gap it spent blocked (sleeping on a lock,
// a thread pool or a system call).

#include "access/access_list.h"
#include "access/mask_display.h"
#include "tftp/standard_server.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"
#include "tftp/transfer_window.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QSet>
#include <QTimer>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <cstdio>
#include <ctime>
#include <fstream>

int main(int argc, char **argv)
{
    // A window is optional and never needs a display.
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOption({ "headless", "No window (always the case here)." });
    parser.addOption({ "tftp-port", "UDP port of the TFTP listener.", "N", "69" });
    parser.addOption({ "acl", "Access list file.", "FILE" });
    parser.addOption({ "folder", "Shared folder.", "DIR", QDir::currentPath() });
    parser.addOption({ "confine", "Refuse names that leave the access row's folder." });
    parser.addOption({ "tftp-standard", "The standard TFTP profile." });
    parser.addOption({ "tftp-max-transfers", "The standard profile's transfer limit.", "N", "1000" });
    parser.addOption({ "window", "Show the Transfer window and report event-loop stalls." });
    parser.addHelpOption();
    parser.process(app);

    TransferMonitor monitor;
    AccessList acl;
    if (parser.isSet("acl")) {
        acl.setFilePath(parser.value("acl"));
        acl.load_ACL();
    } else {
        acl.appendEntry({ "0.0.0.0", maskDisplayForm(0), "yes", "yes", parser.value("folder"), 0 });
    }
    TftpServer server(&monitor, &acl);
    server.setPort(quint16(parser.value("tftp-port").toUInt()));
    server.setConfine(parser.isSet("confine"));
    StandardServer standard(&monitor, &acl);
    standard.setPort(quint16(parser.value("tftp-port").toUInt()));
    standard.setBindAddress(QHostAddress::LocalHost);
    standard.setConfine(parser.isSet("confine"));
    standard.setMaxTransfers(parser.value("tftp-max-transfers").toInt());
    QObject::connect(&standard, &StandardServer::limitReached,
        [](const QString &text) { std::fprintf(stderr, "%s\n", qPrintable(text)); });
    server.setStandardProfile(parser.isSet("tftp-standard"));

    std::unique_ptr<TransferWindow> window;
    QElapsedTimer sinceTick;
    qint64 longest = 0;
    double longestCpu = 0;
    double cpuAtTick = 0;
    double longestQueued = 0;
    double queuedAtTick = 0;
    const auto threadQueuedMs = [] {
        std::ifstream stat("/proc/thread-self/schedstat");
        double run = 0, queued = 0;
        stat >> run >> queued;
        return queued / 1e6;
    };
    const auto threadCpuMs = [] {
        timespec t {};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return double(t.tv_sec) * 1e3 + double(t.tv_nsec) / 1e6;
    };
    QTimer probe;
    if (parser.isSet("window")) {
        window = std::make_unique<TransferWindow>(&monitor);
        window->resize(900, 700);
        window->show();
        sinceTick.start();
        cpuAtTick = threadCpuMs();
        queuedAtTick = threadQueuedMs();
        QObject::connect(&probe, &QTimer::timeout, [&] {
            const qint64 gap = sinceTick.restart();
            const double cpu = threadCpuMs();
            const double queued = threadQueuedMs();
            if (gap > longest) {
                longest = gap;
                longestCpu = cpu - cpuAtTick;
                longestQueued = queued - queuedAtTick;
            }
            cpuAtTick = cpu;
            queuedAtTick = queued;
        });
        probe.start(5);
        QObject::connect(
            &monitor, &TransferMonitor::transferRowChanged, [&, running = QSet<int>()](int row) mutable {
                // A transfer's final count (no percentage): the stall during it.
                const QString data = monitor.transferText(row, TransferMonitor::DataSentReceived);
                if (data.isEmpty() || data.endsWith(QLatin1String("%)"))) {
                    // The first transfer after a quiet spell: gaps while nothing ran are not its own.
                    if (running.isEmpty())
                        longest = 0, longestCpu = 0, longestQueued = 0;
                    running.insert(row);
                    return;
                }
                running.remove(row);
                std::fprintf(stderr, "stall %lld cpu %.1f queued %.1f\n", longest, longestCpu, longestQueued);
                longest = 0;
                longestCpu = 0;
                longestQueued = 0;
            });
    }

    QObject::connect(&monitor, &TransferMonitor::transferRowChanged, [&](int row) {
        std::printf("%s\n", qPrintable(monitor.transferLine(row)));
        std::fflush(stdout);
    });
    QObject::connect(&monitor, &TransferMonitor::socketRowChanged, [&](int slot) {
        std::printf("%s\n", qPrintable(monitor.socketLine(slot)));
        std::fflush(stdout);
    });
    if (!server.start())
        std::fprintf(stderr, "%s\n", qPrintable(server.errorString()));
    if (parser.isSet("tftp-standard") && !standard.listen())
        std::fprintf(stderr, "%s\n", qPrintable(standard.errorString()));
    return app.exec();
}
