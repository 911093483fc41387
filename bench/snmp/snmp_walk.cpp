// Walks the whole ifXTable of an agent the way the SNMP tab walks its columns
// (ifNumber first, then GetBulk, columns side by side, through net-snmp) and
// prints the instances and the median wall time of a few rounds.
//
//   bench_snmp_walk PORT v2c COMMUNITY [ROUNDS]
//   bench_snmp_walk PORT v3 USER AUTHPASS PRIVPASS [ROUNDS]   (authPriv, SHA-256, AES-128)
#include "snmp/snmp_agent.h"
#include "snmp/snmp_worker.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 4) {
        std::fprintf(stderr, "usage: bench_snmp_walk PORT v2c COMMUNITY | PORT v3 USER AUTH PRIV [ROUNDS]\n");
        return 2;
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
    QList<qint64> times;
    qsizetype instances = 0;
    for (int r = 0; r < qMax(1, rounds); ++r) {
        QList<QList<SnmpValue>> values;
        QList<SnmpValue> count;
        QElapsedTimer clock;
        clock.start();
        if (!session.get({ Oid { 1, 3, 6, 1, 2, 1, 2, 1, 0 } }, count)
            || !session.bulkWalk(columns, SnmpWorker::bulkRepetitions, values, int(count.value(0).number))) {
            std::fprintf(stderr, "%s\n", qPrintable(session.error()));
            return 1;
        }
        times.append(clock.nsecsElapsed());
        instances = 0;
        for (const auto &column : values)
            instances += column.size();
    }
    std::sort(times.begin(), times.end());
    std::printf("%lld %.1f\n", static_cast<long long>(instances), times[times.size() / 2] / 1e6);
    return 0;
}
