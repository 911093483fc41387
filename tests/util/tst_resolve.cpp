#include "util/cls_resolve.h"
#include "util/message_box.h"

#include <QTest>

// Name resolution against the machine's own resolver: /etc/hosts always maps
// localhost, so both directions have an answer without any network.
class TestResolve : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        m_messages.clear();
        tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_messages << text; });
    }
    void cleanup() { tw::setMessageBoxHook({}); }

    void localhostBothWays()
    {
        clsResolve resolve;
        QCOMPARE(resolve.GetHostNameFromIP(QStringLiteral("127.0.0.1")), QStringLiteral("localhost"));
        QCOMPARE(resolve.GetIPFromHostName(QStringLiteral("localhost")), QStringLiteral("127.0.0.1"));
        QVERIFY2(m_messages.isEmpty(), qPrintable(m_messages.join('|')));
    }

    void invalidAddresses_data()
    {
        QTest::addColumn<QString>("address");
        QTest::newRow("all ones") << QStringLiteral("255.255.255.255");
        QTest::newRow("word") << QStringLiteral("router1");
        QTest::newRow("empty") << QString();
        QTest::newRow("octet too big") << QStringLiteral("10.1.1.256");
        QTest::newRow("embedded nul") << QStringLiteral("127.0.0.1") + QChar(0) + QStringLiteral("junk");
    }
    void invalidAddresses()
    {
        QFETCH(QString, address);
        QCOMPARE(clsResolve().GetHostNameFromIP(address), QString());
        QCOMPARE(m_messages, QStringList { QStringLiteral("Invalid IP address") });
    }

    void addressWithoutName()
    {
        // A documentation-only address: nothing may be registered for it.
        QCOMPARE(clsResolve().GetHostNameFromIP(QStringLiteral("192.0.2.123")), QString());
        QCOMPARE(m_messages, QStringList { QStringLiteral("Call to gethostbyaddr failed.") });
    }

    void unknownNameIsQuiet_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("reserved domain") << QStringLiteral("no-such-host.invalid");
        QTest::newRow("empty") << QString();
        QTest::newRow("overlong label") << QString(300, QChar('a'));
    }
    void unknownNameIsQuiet()
    {
        QFETCH(QString, name);
        QCOMPARE(clsResolve().GetIPFromHostName(name), QString());
        QVERIFY(m_messages.isEmpty());
    }

private:
    QStringList m_messages;
};

QTEST_GUILESS_MAIN(TestResolve)
#include "tst_resolve.moc"
