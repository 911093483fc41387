// Walks the whole ifXTable of an agent the way the SNMP tab walks its columns
// (GetBulk, columns side by side, through net-snmp) and prints the instances
// and the wall time of the fastest of a few rounds.
//
//   bench_snmp_walk PORT v2c COMMUNITY [ROUNDS]
//   bench_snmp_walk PORT v3 USER AUTHPASS PRIVPASS [ROUNDS]   (authPriv, SHA-256, AES-128)
//   bench_snmp_walk PORT ui COMMUNITY [POLLS]
// The ui form runs the SNMP tab's monitor (v2c, 1 s polls) for POLLS polls and
// prints the longest the UI thread's event loop was held up, in ms, then the
// same for three idle seconds before (the machine's own share), and the
// longest the monitor took to take in one poll's result on the UI thread.
#include "snmp/snmp_agent.h"
#include "snmp/snmp_monitor.h"
#include "snmp/snmp_poller.h"
#include "snmp/snmp_worker.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 4) {
        std::fprintf(stderr, "usage: bench_snmp_walk PORT v2c COMMUNITY | PORT v3 USER AUTH PRIV [ROUNDS]\n");
        return 2;
    }
    if (args[2] == QLatin1String("ui")) {
        SnmpPoller::setAgentPort(quint16(args[1].toUInt()));
        SnmpMonitor monitor([] { return QStringLiteral("127.0.0.1"); });
        SnmpTarget t;
        t.community = args[3];
        t.timeoutMs = 5000;
        monitor.setTarget(t);
        monitor.setIntervalMs(SnmpMonitor::minimumIntervalMs);
        const int polls = args.value(4, QStringLiteral("10")).toInt();
        int done = 0;
        qint64 worst = 0;
        QElapsedTimer since;
        QTimer beat; // a 5 ms heartbeat: the gap between beats beyond 5 ms is the stall
        QObject::connect(&beat, &QTimer::timeout, [&] {
            worst = qMax(worst, since.nsecsElapsed() - 5000000);
            since.restart();
        });
        QObject::connect(&monitor, &SnmpMonitor::polled, [&](bool ok) {
            if (!ok)
                std::fprintf(stderr, "%s\n", qPrintable(monitor.state()));
            if (++done == polls)
                app.quit();
        });
        // The same heartbeat with the monitor idle first: what the machine's load alone costs.
        since.start();
        beat.start(5);
        QTimer::singleShot(3000, &app, &QCoreApplication::quit);
        app.exec();
        const qint64 idle = worst;
        worst = 0;
        since.restart();
        monitor.start();
        app.exec();
        // What the UI thread itself does per poll: the monitor taking a whole result (rates, table, history),
        // timed on results walked beforehand.
        SnmpTarget direct = t;
        direct.host = QStringLiteral("127.0.0.1");
        direct.port = SnmpPoller::agentPort();
        SnmpWorker worker;
        QList<PollResult> results;
        QObject::connect(&worker, &SnmpWorker::polled, [&](const PollResult &r) { results.append(r); });
        for (int i = 0; i < polls; ++i)
            worker.poll(direct);
        SnmpMonitor quiet([] { return QString(); });
        qint64 longest = 0;
        for (int i = 0; i < results.size(); ++i) {
            QElapsedTimer take;
            take.start();
            quiet.takeResult(results[i], 1700000000000 + i * 1000);
            longest = qMax(longest, take.nsecsElapsed());
        }
        std::printf("%lld %.1f %.1f %.1f\n", static_cast<long long>(monitor.table()->rowCount()), worst / 1e6,
            idle / 1e6, longest / 1e6);
        return 0;
    }
    SnmpTarget t;
    t.host = QStringLiteral("127.0.0.1");
    t.port = quint16(args[1].toUInt());
    int rounds = 5;
    if (args[2] == QLatin1String("v3")) {
        t.version = 3;
        t.user = args.value(3);
        t.level = SnmpTarget::Level::AuthPriv;
        t.auth = SnmpTarget::Auth::Sha256;
        t.priv = SnmpTarget::Priv::Aes128;
        t.authPassword = args.value(4);
        t.privPassword = args.value(5);
        rounds = args.value(6, QStringLiteral("5")).toInt();
    } else {
        t.community = args[3];
        rounds = args.value(4, QStringLiteral("5")).toInt();
    }
    t.timeoutMs = 5000;
    QList<Oid> columns;
    for (quint32 c = 1; c <= 19; ++c)
        columns.append(Oid { 1, 3, 6, 1, 2, 1, 31, 1, 1, 1, c });
    AgentSession session(t);
    if (!session.open()) {
        std::fprintf(stderr, "%s\n", qPrintable(session.error()));
        return 1;
    }
    qint64 best = -1;
    qsizetype instances = 0;
    for (int r = 0; r < qMax(1, rounds); ++r) {
        QList<QList<SnmpValue>> values;
        QElapsedTimer clock;
        clock.start();
        if (!session.bulkWalk(columns, SnmpWorker::bulkRepetitions, values)) {
            std::fprintf(stderr, "%s\n", qPrintable(session.error()));
            return 1;
        }
        const qint64 ns = clock.nsecsElapsed();
        best = best < 0 ? ns : qMin(best, ns);
        instances = 0;
        for (const auto &column : values)
            instances += column.size();
    }
    std::printf("%lld %.1f\n", static_cast<long long>(instances), best / 1e6);
    return 0;
}
