#include "access/access_list.h"
#include "access/check_access.h"
#include "access/mask_display.h"

#include <QTest>

namespace {
struct Row
{
    QString file, from, to, status;
};

AccessEntry net(const QString &network, int prefix, const QString &read = "yes", const QString &write = "yes",
    const QString &folder = "/f")
{
    return { network, maskDisplayForm(prefix), read, write, folder, prefix };
}
} // namespace

Q_DECLARE_METATYPE(QList<AccessEntry>)

class TestAccessDecision : public QObject
{
    Q_OBJECT

private:
    QList<Row> m_rows;
    int decide(
        const QList<AccessEntry> &entries, const QString &address, int kind, const AccessVeto &veto = {})
    {
        AccessList list;
        for (const AccessEntry &e : entries)
            list.appendEntry(e);
        m_rows.clear();
        return CheckAccess(
            list, { address, "10.9.9.9", kind, "image.bin" },
            [this](const QString &f, const QString &from, const QString &to, const QString &s) {
                m_rows.append({ f, from, to, s });
            },
            veto);
    }

private Q_SLOTS:
    void decision_data()
    {
        QTest::addColumn<QList<AccessEntry>>("entries");
        QTest::addColumn<QString>("address");
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("result");
        using L = QList<AccessEntry>;
        QTest::newRow("empty list blocks") << L {} << "10.1.2.3" << 1 << -1;
        QTest::newRow("/0 matches all") << L { net("0.0.0.0", 0) } << "203.0.113.9" << 1 << 1;
        QTest::newRow("/32 exact") << L { net("10.1.2.3", 32) } << "10.1.2.3" << 2 << 1;
        QTest::newRow("/32 other host") << L { net("10.1.2.3", 32) } << "10.1.2.4" << 1 << -1;
        QTest::newRow("outside network") << L { net("192.168.1.0", 24) } << "192.168.2.1" << 1 << -1;
        QTest::newRow("odd prefix /20") << L { net("172.16.16.0", 20) } << "172.16.31.200" << 1 << 1;
        QTest::newRow("host bits set in network") << L { net("192.168.1.77", 24) } << "192.168.1.5" << 1 << 1;
        QTest::newRow("last match decides, refuses")
            << L { net("10.1.0.0", 16), net("10.0.0.0", 8, "no") } << "10.1.2.3" << 1 << -1;
        QTest::newRow("last match decides, allows")
            << L { net("10.0.0.0", 8, "no"), net("10.1.0.0", 16) } << "10.1.2.3" << 1 << 2;
        QTest::newRow("later non-matching row irrelevant")
            << L { net("10.0.0.0", 8), net("11.0.0.0", 8, "no") } << "10.1.2.3" << 1 << 1;
        QTest::newRow("write refused, read allowed")
            << L { net("10.0.0.0", 8, "yes", "no") } << "10.1.2.3" << 2 << -1;
        QTest::newRow("read refused, write allowed")
            << L { net("10.0.0.0", 8, "no", "yes") } << "10.1.2.3" << 2 << 1;
        QTest::newRow("capital No allows") << L { net("10.0.0.0", 8, "No", "No") } << "10.1.2.3" << 1 << 1;
        QTest::newRow("empty right allows") << L { net("10.0.0.0", 8, "", "") } << "10.1.2.3" << 2 << 1;
        QTest::newRow("plain dotted mask")
            << L { { "10.0.0.0", "255.0.0.0", "yes", "yes", "/f", 8 } } << "10.200.1.1" << 1 << 1;
        QTest::newRow("octet 1e2 reads 100")
            << L { { "1e2.0.0.0", "255.0.0.0", "", "", "/f", 8 } } << "100.1.1.1" << 1 << 1;
        QTest::newRow("trailing junk ignored")
            << L { { "10x.0.0.0", "255abc.0.0.0", "", "", "/f", 8 } } << "10.1.1.1" << 1 << 1;
        QTest::newRow("empty octets read 0")
            << L { { "...", "...", "", "", "/f", 0 } } << "10.1.1.1" << 1 << 1;
        QTest::newRow("short row fails")
            << L { { "10.0.0", "255.0.0.0", "", "", "/f", 8 } } << "10.1.1.1" << 1 << AccessDecision::Failed;
        QTest::newRow("blank row fails")
            << L { net("0.0.0.0", 0), AccessEntry {} } << "10.1.1.1" << 1 << AccessDecision::Failed;
        QTest::newRow("short address fails")
            << L { net("0.0.0.0", 0) } << "10.1" << 1 << AccessDecision::Failed;
        QTest::newRow("overflowing octet fails") << L { { "40000.0.0.0", "255.0.0.0", "", "", "/f", 8 } }
                                                 << "10.1.1.1" << 1 << AccessDecision::Failed;
    }
    void decision()
    {
        QFETCH(QList<AccessEntry>, entries);
        QFETCH(QString, address);
        QFETCH(int, kind);
        QFETCH(int, result);
        QCOMPARE(decide(entries, address, kind), result);
        // A decision is always recorded exactly once, unless it failed.
        QCOMPARE(m_rows.size(), result == AccessDecision::Failed ? 0 : 1);
        if (!m_rows.isEmpty())
            QCOMPARE(m_rows[0].status, QString(result > 0 ? "Allowed" : "Blocked"));
    }

    void monitorRows_data()
    {
        QTest::addColumn<QString>("read");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("from");
        QTest::addColumn<QString>("to");
        // Requester 10.1.2.3, server 10.9.9.9; blocked rows show the pair swapped.
        QTest::newRow("allowed read") << "yes" << 1 << "Allowed"
                                      << "10.9.9.9"
                                      << "10.1.2.3";
        QTest::newRow("allowed write") << "yes" << 2 << "Allowed"
                                       << "10.1.2.3"
                                       << "10.9.9.9";
        QTest::newRow("blocked read") << "no" << 1 << "Blocked"
                                      << "10.1.2.3"
                                      << "10.9.9.9";
        QTest::newRow("blocked write") << "no" << 2 << "Blocked"
                                       << "10.9.9.9"
                                       << "10.1.2.3";
    }
    void monitorRows()
    {
        QFETCH(QString, read);
        QFETCH(int, kind);
        QFETCH(QString, status);
        QFETCH(QString, from);
        QFETCH(QString, to);
        decide({ net("10.0.0.0", 8, read, read) }, "10.1.2.3", kind);
        QCOMPARE(m_rows.size(), 1);
        QCOMPARE(m_rows[0].file, QString("image.bin"));
        QCOMPARE(m_rows[0].status, status);
        QCOMPARE(m_rows[0].from, from);
        QCOMPARE(m_rows[0].to, to);
    }

    void vetoRefusesLikeARefusal()
    {
        int askedRow = 0;
        const int result = decide({ net("10.0.0.0", 8), net("10.1.0.0", 16) }, "10.1.2.3", 1, [&](int row) {
            askedRow = row;
            return false;
        });
        QCOMPARE(result, -1);
        QCOMPARE(askedRow, 2);
        QCOMPARE(m_rows[0].status, QString("Blocked"));
        QCOMPARE(m_rows[0].from, QString("10.1.2.3")); // blocked-read orientation
    }

    void octetValue_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("value");
        QTest::newRow("display form") << " 255" << 255;
        QTest::newRow("padded") << " 0 " << 0;
        QTest::newRow("empty") << "" << 0;
        QTest::newRow("exponent") << "1e2" << 100;
        QTest::newRow("fraction rounds half to even") << "2.5" << 2;
        QTest::newRow("fraction rounds up") << "7.6" << 8;
        QTest::newRow("negative") << "-1" << -1;
        QTest::newRow("junk") << "abc" << 0;
        QTest::newRow("digits then junk") << "12ab" << 12;
    }
    void octetValue()
    {
        QFETCH(QString, text);
        QFETCH(int, value);
        QCOMPARE(::octetValue(text), std::optional<int>(value));
    }
};

QTEST_GUILESS_MAIN(TestAccessDecision)
#include "tst_access_decision.moc"
