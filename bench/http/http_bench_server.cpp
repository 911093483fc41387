// Serves a folder over HTTP with the Transfer window shown, for measuring the
// server and the window's event loop together:
//   http_bench_server --http-port N --folder DIR
// One access row lets everyone read and write in DIR. Prints to stderr, each
// time a request's row finishes, the longest the event loop went without
// running a 5 ms timer since the previous report, and the most CPU time the
// window's thread used between two runs of that timer: "stall MS busy MS".
// The second does not depend on other load: among n busy tasks sharing a core
// fairly, a stretch of b ms of work takes about n times b of wall time, so
// short stretches are what keeps the loop responsive on a crowded machine.

#include "access/access_list.h"
#include "access/mask_display.h"
#include "http/http_server.h"
#include "tftp/transfer_monitor.h"
#include "tftp/transfer_window.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QTimer>
#include <cstdio>
#include <ctime>

int main(int argc, char **argv)
{
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOption({ "http-port", "TCP port.", "N", "8080" });
    parser.addOption({ "folder", "Served folder.", "DIR", QDir::currentPath() });
    parser.process(app);

    TransferMonitor monitor;
    AccessList acl;
    acl.appendEntry({ "0.0.0.0", maskDisplayForm(0), "yes", "yes", parser.value("folder"), 0 });
    HttpServer server(&monitor, &acl);
    server.setBindAddress(QHostAddress::LocalHost);
    // 200 clients from one address at once: the per-address limit must not be what is measured.
    server.setConnectionLimits(1024, 1024);
    TransferWindow window(&monitor);
    window.resize(900, 700);
    window.show();

    QElapsedTimer sinceTick;
    sinceTick.start();
    qint64 longest = 0;
    const auto threadCpuMs = [] {
        timespec t {};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return double(t.tv_sec) * 1e3 + double(t.tv_nsec) / 1e6;
    };
    double cpuAtTick = threadCpuMs();
    double busiest = 0;
    QTimer probe;
    QObject::connect(&probe, &QTimer::timeout, [&] {
        longest = qMax(longest, sinceTick.restart());
        const double cpu = threadCpuMs();
        busiest = qMax(busiest, cpu - cpuAtTick);
        cpuAtTick = cpu;
    });
    probe.start(5);
    QObject::connect(&monitor, &TransferMonitor::transferRowChanged, [&](int row) {
        if (monitor.transferText(row, TransferMonitor::Status) != QLatin1String("FINISHED OK"))
            return;
        std::fprintf(stderr, "stall %lld busy %.2f\n", longest, busiest);
        longest = 0;
        busiest = 0;
    });
    if (!server.start(quint16(parser.value("http-port").toUInt()))) {
        std::fprintf(stderr, "%s\n", qPrintable(server.errorString()));
        return 1;
    }
    return app.exec();
}
