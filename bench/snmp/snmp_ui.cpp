// The SNMP tab on screen (offscreen platform) polling an agent's interface
// table in v2c every second, the way a user watches a big switch: the table
// view, the selected interface's graph and the figures all live. Measures how
// long the UI thread's event loop is held up.
//
//   bench_snmp_ui PORT COMMUNITY [POLLS]
//
// A 5 ms heartbeat timer runs on the UI thread, first for three seconds with
// the tab idle (the machine's own share of delay), then for POLLS polls.
// Prints: table rows, then for idle and for polling the longest gap between
// beats beyond 5 ms (wall clock, which other processes on the machine lengthen)
// and the most CPU the UI thread itself spent between two beats (its own work,
// which they do not), then the UI thread's CPU for the slowest of five
// renderings of the graph holding a full hour of 1 s points, all in ms.
#include "snmp/rate_graph.h"
#include "snmp/snmp_monitor.h"
#include "snmp/snmp_page.h"
#include "snmp/snmp_poller.h"

#include <QApplication>
#include <QComboBox>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTimer>
#include <QTreeView>

#include <QDateTime>

#include <cmath>
#include <cstdio>
#include <ctime>

namespace {
qint64 threadCpuNs()
{
    timespec ts {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return qint64(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

struct Heartbeat
{
    QTimer timer;
    QElapsedTimer wall;
    qint64 cpu = 0;
    qint64 worstWall = 0;
    qint64 worstCpu = 0;

    Heartbeat()
    {
        QObject::connect(&timer, &QTimer::timeout, [this] {
            const qint64 now = threadCpuNs();
            worstWall = qMax(worstWall, wall.nsecsElapsed() - 5000000);
            worstCpu = qMax(worstCpu, now - cpu);
            wall.restart();
            cpu = now;
        });
    }
    void restart()
    {
        worstWall = worstCpu = 0;
        wall.start();
        cpu = threadCpuNs();
        timer.start(5);
    }
};
} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: bench_snmp_ui PORT COMMUNITY [POLLS]\n");
        return 2;
    }
    SnmpPoller::setAgentPort(quint16(args[1].toUInt()));
    const int polls = args.value(3, QStringLiteral("10")).toInt();

    SnmpPage page([] { return QStringLiteral("127.0.0.1"); });
    page.resize(1200, 900);
    page.show();
    page.findChild<QComboBox *>(QStringLiteral("SnmpVersion"))->setCurrentIndex(1);
    page.findChild<QLineEdit *>(QStringLiteral("ComString"))->setText(args[2]);
    page.findChild<QSpinBox *>(QStringLiteral("SnmpInterval"))->setValue(1);
    page.findChild<QSpinBox *>(QStringLiteral("SnmpTimeout"))->setValue(5);
    auto *view = page.findChild<QTreeView *>(QStringLiteral("snmpInterfaces"));

    Heartbeat beat;
    beat.restart();
    QTimer::singleShot(3000, &app, &QCoreApplication::quit);
    app.exec();
    const qint64 idleWall = beat.worstWall, idleCpu = beat.worstCpu;

    int done = 0;
    QObject::connect(page.monitor(), &SnmpMonitor::polled, &app, [&](bool ok) {
        if (!ok)
            std::fprintf(stderr, "%s\n", qPrintable(page.monitor()->state()));
        if (done == 0 && view->model()->rowCount() > 0) // the graph follows the first interface
            view->setCurrentIndex(view->model()->index(0, 0));
        if (++done == polls)
            app.quit();
    });
    page.findChild<QPushButton *>(QStringLiteral("SNMPStart"))->click();
    beat.restart();
    app.exec();
    const qint64 pollWall = beat.worstWall, pollCpu = beat.worstCpu;

    // An hour at 1 s polling: 3,600 points each way, every one different.
    auto *graph = page.findChild<RateGraph *>();
    QList<SnmpMonitor::Point> hour;
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    for (int i = 0; i < 3600; ++i)
        hour.append(
            { now - (3600 - i) * 1000, 5e8 + 4e8 * std::sin(i / 30.0), 3e8 + 2e8 * std::cos(i / 17.0) });
    graph->setHistory(QStringLiteral("hour"), hour, now);
    qint64 paint = 0;
    for (int i = 0; i < 5; ++i) {
        const qint64 before = threadCpuNs();
        graph->grab();
        paint = qMax(paint, threadCpuNs() - before);
    }
    std::printf("%d %.1f %.1f %.1f %.1f %.1f\n", view->model()->rowCount(), idleWall / 1e6, idleCpu / 1e6,
        pollWall / 1e6, pollCpu / 1e6, paint / 1e6);
    return 0;
}
