// Runs the TFTP server with no window: tftp_bench_server [--headless]
// [--tftp-port N] [--acl FILE] [--folder DIR] [--confine]. Prints every change
// of a transfer-monitor row as `tarnwick --headless` does. Without --acl, one
// row lets everyone read and write in --folder.

#include "access/access_list.h"
#include "access/mask_display.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addOption({ "headless", "No window (always the case here)." });
    parser.addOption({ "tftp-port", "UDP port of the TFTP listener.", "N", "69" });
    parser.addOption({ "acl", "Access list file.", "FILE" });
    parser.addOption({ "folder", "Shared folder.", "DIR", QDir::currentPath() });
    parser.addOption({ "confine", "Refuse names that leave the access row's folder." });
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
    return app.exec();
}
