#include "response_builder.h"
#include "snmp/snmp_page.h"
#include "snmp/snmp_poller.h"
#include "util/message_box.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTreeView>
#include <QtTest>

class TestPage : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void startWithoutDevice();
    void figuresReachLabels();
};

// Start before the console has a device: the tab is asked forward, the box
// says "No connection" and polling stops; Stop does nothing of its own.
void TestPage::startWithoutDevice()
{
    QStringList boxes;
    tw::setMessageBoxHook([&boxes](const QString &text, QMessageBox::Icon) { boxes << text; });
    SnmpPage page([] { return QString(); });
    page.poller()->setStepInterval(1);
    page.resize(800, 500);
    page.show();
    QSignalSpy started(&page, &SnmpPage::startClicked);

    QTest::mouseClick(page.findChild<QPushButton *>(QStringLiteral("SNMPStart")), Qt::LeftButton);
    QCOMPARE(started.size(), 1);
    QCOMPARE(page.findChild<QLabel *>(QStringLiteral("Label7"))->text(), QStringLiteral("Start"));
    QTRY_COMPARE(boxes, QStringList { QStringLiteral("No connection") });
    QVERIFY(!page.poller()->snmpDelay()->isActive());
    QTest::mouseClick(page.findChild<QPushButton *>(QStringLiteral("SNMPStop")), Qt::LeftButton);
    QCOMPARE(boxes.size(), 1);
    tw::setMessageBoxHook({});

    // The list gets the page less 2100 twips of height.
    auto *view = page.findChild<QTreeView *>(QStringLiteral("snmpstats"));
    QVERIFY(qAbs(page.height() - view->height() - 140) <= 10);
}

void TestPage::figuresReachLabels()
{
    SnmpPage page([] { return QString(); });
    auto *community = page.findChild<QLineEdit *>(QStringLiteral("ComString"));
    QCOMPARE(community->text(), QStringLiteral("comstr"));
    community->clear();
    QTest::keyClicks(community, QStringLiteral("private"));
    QCOMPARE(page.poller()->community(), QStringLiteral("private"));

    page.poller()->convertSnmp(
        test::response({ test::berOid({ 1, 3, 6, 1, 2, 1, 1, 3, 0 }), 0x43, "\x23\x27" }));
    page.poller()->convertSnmp(test::response({ test::berOid({ 1, 3, 6, 1, 2, 1, 2, 1, 0 }), 0x02, "\x02" }));
    const auto label
        = [&page](const char *name) { return page.findChild<QLabel *>(QLatin1String(name))->text(); };
    QCOMPARE(label("Label3"), QStringLiteral("0 days 0 hours 2 minutes"));
    QCOMPARE(label("Label9"), QStringLiteral("2"));
    QCOMPARE(label("Label5"), QString());
    QCOMPARE(label("Uptime") + label("CPU") + label("Label1") + label("Label6") + label("Label8")
            + label("Label2"),
        QStringLiteral("UptimeCPU %Free MemoryNext UpdateInterfacesString"));
    QCOMPARE(page.findChild<QTreeView *>(QStringLiteral("snmpstats"))->model()->rowCount(), 7);
}

QTEST_MAIN(TestPage)
#include "tst_page.moc"
