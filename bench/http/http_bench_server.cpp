// Serves a folder over HTTP with the Transfer window shown, for measuring the
// server and the window's event loop together:
//   http_bench_server --http-port N --folder DIR
// One access row lets everyone read and write in DIR. Prints to stderr, each
// time a request's row finishes, the longest the event loop went without
// running a 5 ms timer since the previous report: "stall MS".

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
    QTimer probe;
    QObject::connect(&probe, &QTimer::timeout, [&] { longest = qMax(longest, sinceTick.restart()); });
    probe.start(5);
    QObject::connect(&monitor, &TransferMonitor::transferRowChanged, [&](int row) {
        if (monitor.transferText(row, TransferMonitor::Status) != QLatin1String("FINISHED OK"))
            return;
        std::fprintf(stderr, "stall %lld\n", longest);
        longest = 0;
    });
    if (!server.start(quint16(parser.value("http-port").toUInt()))) {
        std::fprintf(stderr, "%s\n", qPrintable(server.errorString()));
        return 1;
    }
    return app.exec();
}
