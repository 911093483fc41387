#include "snmp/counter_rates.h"
#include "snmp/snmp_agent.h"
#include "snmp/snmp_monitor.h"
#include "snmp/snmp_worker.h"

#include <QtTest>

using namespace CounterRates;

// Rates from counters, and what the monitor makes of whole polls: the arithmetic has to hold at the edges
// (wraps, restarts, resets, missed polls) because a wrong rate looks just like a right one on screen.
class TestSnmpRates : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void counterArithmetic();
    void readingsFromColumns();
    void monitorRatesAndHistory();
};

void TestSnmpRates::counterArithmetic()
{
    // The device clock standing still, and its own 497-day wrap. (Plain wraps, restarts and resets of
    // either counter size: snmp_agent's counters served by a script.)
    QCOMPARE(elapsedTicks(1500, 1500), std::nullopt);
    QCOMPARE(elapsedTicks(0xFFFFFF00u, 0x100u), std::optional<quint32>(0x200));
    QCOMPARE(counterDelta(5000000000ull, 10, 32), std::nullopt); // not a 32-bit value at all

    // 1 Gb/s link (125 MB/s): 5 s of 50 MB/s across a 32-bit wrap reads right.
    const double gig = 125e6;
    const quint64 before = 0xFFFFFFFFull - 100000000ull;
    QCOMPARE(perSecond(before, (before + 250000000ull) & 0xFFFFFFFFull, 32, 500, gig),
        std::optional<double>(50e6));
    // A missed poll: 60 s later on a 1 Gb/s link a 32-bit counter may have gone round twice: no rate.
    QCOMPARE(perSecond(before, before + 10, 32, 6000, gig), std::nullopt);
    // The same missed poll with 64-bit counters is just a longer interval.
    QCOMPARE(perSecond(1000, 1000 + 60 * 1000000ull, 64, 6000, gig), std::optional<double>(1e6));
    // 64-bit counters are believed above the stated speed (loopback claims 10 Mb/s). No time, no rate.
    QCOMPARE(perSecond(0, quint64(gig) * 30, 64, 1000, gig), std::optional<double>(gig * 3));
    QCOMPARE(perSecond(0, 10, 64, 0, gig), std::nullopt);

    QCOMPARE(utilisation(250e6, 1e9), std::optional<double>(25));
    QCOMPARE(utilisation(3e9, 1e9), std::optional<double>(100));
    QCOMPARE(utilisation(1e6, 0), std::nullopt);

    QCOMPARE(QStringList({ bitRateText(0), bitRateText(950), bitRateText(12500), bitRateText(1234567),
                 bitRateText(1e10), bitRateText(999.6e6) }),
        QStringList({ "0 b/s", "950 b/s", "12.5 kb/s", "1.23 Mb/s", "10.0 Gb/s", "1.00 Gb/s" }));
}

void TestSnmpRates::readingsFromColumns()
{
    QCOMPARE(oidText(parseOid(QStringLiteral(" 1.3.6.1.2.1.31.1.1.1.6 "))),
        QStringLiteral("1.3.6.1.2.1.31.1.1.1.6"));
    QVERIFY(parseOid(QStringLiteral("1.3.x")).isEmpty() && parseOid(QStringLiteral("1.4294967296")).isEmpty()
        && parseOid(QStringLiteral("1")).isEmpty());
    const QList<Oid> columns = SnmpTables::interfaceColumns();
    const Oid descr = columns[0];
    QCOMPARE(columnIndex(descr, descr + Oid { 7 }), std::optional<int>(7));
    for (const Oid &bad : { descr + Oid { 0 }, descr + Oid { 0x80000000u }, descr + Oid { 1, 2 }, descr,
             Oid { 1, 3, 6, 1, 2, 1, 2, 2, 1, 3, 7 } })
        QCOMPARE(columnIndex(descr, bad), std::nullopt);

    // Interface 2 has both 64-bit counters; interface 5 only one of them, so it keeps its 32-bit pair;
    // an instance with a two-piece index is not an interface.
    QList<QList<SnmpValue>> values(columns.size());
    // An instance of a column: bytes, or a number of `bits` bits.
    const auto put = [&](const char *dotted, Oid index, const QVariant &content, int bits = 32) {
        const Oid column = parseOid(QLatin1String(dotted));
        SnmpValue v;
        v.oid = column + index;
        if (content.typeId() == QMetaType::QByteArray) {
            v.kind = SnmpValue::Bytes;
            v.bytes = content.toByteArray();
        } else {
            v.kind = SnmpValue::Number;
            v.number = content.toULongLong();
            v.bits = bits;
        }
        values[columns.indexOf(column)].append(v);
    };
    put("1.3.6.1.2.1.2.2.1.2", { 2 }, QByteArray("eth0"));
    put("1.3.6.1.2.1.2.2.1.2", { 5 }, QByteArray("eth1"));
    put("1.3.6.1.2.1.2.2.1.2", { 9 }, QByteArray("x\0y", 3));
    put("1.3.6.1.2.1.2.2.1.2", { 7, 1 }, QByteArray("not an interface"));
    put("1.3.6.1.2.1.31.1.1.1.1", { 2 }, QByteArray("Gi0/2"));
    for (const quint32 index : { 2, 5 }) {
        put("1.3.6.1.2.1.2.2.1.10", { index }, 10 + index); // octets in and out
        put("1.3.6.1.2.1.2.2.1.16", { index }, 20 + index);
    }
    put("1.3.6.1.2.1.31.1.1.1.6", { 2 }, 1ull << 40, 64);
    put("1.3.6.1.2.1.31.1.1.1.6", { 5 }, 99, 64);
    put("1.3.6.1.2.1.31.1.1.1.10", { 2 }, (1ull << 40) + 1, 64);
    put("1.3.6.1.2.1.2.2.1.5", { 2 }, 4294967295u); // speed, and high speed in Mb/s
    put("1.3.6.1.2.1.2.2.1.5", { 5 }, 100000000);
    put("1.3.6.1.2.1.31.1.1.1.15", { 2 }, 25000);
    put("1.3.6.1.2.1.31.1.1.1.15", { 5 }, 0);

    const QList<IfReading> r = SnmpTables::interfaceReadings(values);
    QCOMPARE(r.size(), 3);
    QCOMPARE(
        QStringList({ r[0].name, r[0].descr, QString::number(r[0].octetBits), QString::number(r[0].inOctets),
            QString::number(r[0].outOctets), QString::number(r[0].speedBps, 'f', 0) }),
        QStringList({ "Gi0/2", "eth0", "64", "1099511627776", "1099511627777", "25000000000" }));
    QCOMPARE(QStringList({ r[1].descr, QString::number(r[1].octetBits), QString::number(r[1].inOctets),
                 QString::number(r[1].speedBps, 'f', 0) }),
        QStringList({ "eth1", "32", "15", "100000000" }));
    QCOMPARE(r[2].descr + QString::number(r[2].hasOctets), QStringLiteral("xy0"));
}

static IfReading reading(int index, quint64 in, quint64 out, int bits = 64)
{
    IfReading r;
    r.index = index;
    r.name = QStringLiteral("if%1").arg(index);
    r.admin = r.oper = 1;
    r.speedBps = 1e9;
    r.hasOctets = true;
    r.octetBits = bits;
    r.inOctets = in;
    r.outOctets = out;
    return r;
}

static PollResult poll(quint32 uptime, QList<IfReading> interfaces)
{
    PollResult p;
    p.ok = p.hasUptime = true;
    p.uptime = uptime;
    p.ifNumber = int(interfaces.size());
    p.interfaces = interfaces;
    return p;
}

// Rates go by the device's clock, not ours: a late answer does not make a burst.
void TestSnmpRates::monitorRatesAndHistory()
{
    SnmpMonitor m([] { return QString(); });
    QSignalSpy histories(&m, &SnmpMonitor::historyChanged);
    const qint64 t0 = 1700000000000;
    m.takeResult(poll(1000, { reading(1, 0, 0) }), t0);
    QVERIFY(!m.inRate(1) && histories.isEmpty());
    // 10 device seconds, whatever our clock says: 12.5 MB in = 10 Mb/s, out = 1 Mb/s, 1 % and 0.1 %.
    m.takeResult(poll(2000, { reading(1, 12500000, 1250000) }), t0 + 30000);
    QCOMPARE(*m.inRate(1), 10e6);
    QCOMPARE(*m.outRate(1), 1e6);
    QStandardItemModel *t = m.table();
    QCOMPARE(
        QStringList({ t->item(0, SnmpMonitor::InColumn)->text(), t->item(0, SnmpMonitor::InUseColumn)->text(),
            t->item(0, SnmpMonitor::OutUseColumn)->text(), t->item(0, SnmpMonitor::OperColumn)->text() }),
        QStringList({ "10.0 Mb/s", "1.0", "0.1", "up" }));

    // The device restarted: no rate, no point, and the next poll measures from the new counters.
    m.takeResult(poll(300, { reading(1, 500, 500) }), t0 + 40000);
    QVERIFY(!m.inRate(1) && t->item(0, SnmpMonitor::InColumn)->text().isEmpty());
    m.takeResult(poll(1300, { reading(1, 500 + 1250000, 500) }), t0 + 50000);
    QCOMPARE(*m.inRate(1), 1e6);
    // A failed poll keeps the table and says why; the next answer takes over from the last good one.
    PollResult failed;
    failed.error = QStringLiteral("No response from 127.0.0.9 (3 tries)");
    m.takeResult(failed, t0 + 60000);
    QCOMPARE(m.state(), failed.error);
    QCOMPARE(t->rowCount(), 1);
    m.takeResult(poll(3300, { reading(1, 500 + 1250000 + 2500000, 500), reading(2, 1, 1) }), t0 + 70000);
    QCOMPARE(*m.inRate(1), 1e6);
    QVERIFY(m.state().startsWith(QLatin1String("OK ")));
    QCOMPARE(histories.size(), 3);

    // An hour later the first points have gone; the history and table export as CSV.
    m.takeResult(poll(3300 + 360000, { reading(1, 3750500 + 45000000, 500), reading(2, 1, 1) }),
        t0 + 50000 + SnmpMonitor::historyMs + 1);
    QCOMPARE(m.history(1).size(), 2);
    QCOMPARE(m.historyCsv(1).split(QLatin1Char('\n')).value(2).section(QLatin1Char(','), 1),
        QStringLiteral("100000,0"));
    QCOMPARE(m.tableCsv().section(QLatin1Char('\n'), 0, 0),
        QStringLiteral(
            "Index,Name,Alias,Admin,Oper,Speed,In bit/s,Out bit/s,In %,Out %,Errors/s,Discards/s"));
    QCOMPARE(m.tableCsv().count(QLatin1Char('\n')), 3);
    // An interface that is gone drops its history; a quiet one has rates of 0, not gaps.
    m.takeResult(poll(3300 + 360500, { reading(2, 1, 1) }), t0 + SnmpMonitor::historyMs + 60000);
    QVERIFY(m.history(1).isEmpty() && m.history(2).size() == 2 && t->rowCount() == 1);
}

QTEST_GUILESS_MAIN(TestSnmpRates)
#include "tst_snmp_rates.moc"
