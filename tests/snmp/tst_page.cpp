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
    void controls_data();
    void controls();
    void startWithoutDevice();
    void figuresReachLabels();
};

void TestPage::controls_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("text");
    QTest::newRow("ComString") << "ComString"
                               << "comstr";
    QTest::newRow("Label2") << "Label2"
                            << "String";
    QTest::newRow("SNMPStart") << "SNMPStart"
                               << "Start";
    QTest::newRow("SNMPStop") << "SNMPStop"
                              << "Stop";
    QTest::newRow("Uptime") << "Uptime"
                            << "Uptime";
    QTest::newRow("CPU") << "CPU"
                         << "CPU %";
    QTest::newRow("Label1") << "Label1"
                            << "Free Memory";
    QTest::newRow("Label6") << "Label6"
                            << "Next Update";
    QTest::newRow("Label8") << "Label8"
                            << "Interfaces";
    for (const char *value : { "Label3", "Label4", "Label5", "Label7", "Label9" })
        QTest::newRow(value) << value << "";
}

void TestPage::controls()
{
    QFETCH(QString, name);
    QFETCH(QString, text);
    SnmpPage page([] { return QString(); });
    QWidget *w = page.findChild<QWidget *>(name);
    QVERIFY2(w, qPrintable(name));
    if (auto *label = qobject_cast<QLabel *>(w))
        QCOMPARE(label->text(), text);
    else if (auto *button = qobject_cast<QPushButton *>(w))
        QCOMPARE(button->text(), text);
    else if (auto *edit = qobject_cast<QLineEdit *>(w))
        QCOMPARE(edit->text(), text);
    else
        QFAIL("unexpected control kind");

    auto *view = page.findChild<QTreeView *>(QStringLiteral("snmpstats"));
    QVERIFY(view);
    QCOMPARE(view->model()->columnCount(), 20);
    QCOMPARE(view->model()->headerData(19, Qt::Horizontal).toString(), QStringLiteral("if specific"));
}

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

    // The list keeps the room the tab leaves it: 2100 twips less than the page.
    auto *view = page.findChild<QTreeView *>(QStringLiteral("snmpstats"));
    QVERIFY(qAbs((page.height() - view->height()) - 140) <= 10);
}

void TestPage::figuresReachLabels()
{
    SnmpPage page([] { return QString(); });
    auto *community = page.findChild<QLineEdit *>(QStringLiteral("ComString"));
    community->clear();
    QTest::keyClicks(community, QStringLiteral("private"));
    QCOMPARE(page.poller()->community(), QStringLiteral("private"));

    page.poller()->convertSnmp(
        test::response({ test::berOid({ 1, 3, 6, 1, 2, 1, 1, 3, 0 }), 0x43, "\x23\x27" }));
    page.poller()->convertSnmp(test::response({ test::berOid({ 1, 3, 6, 1, 2, 1, 2, 1, 0 }), 0x02, "\x02" }));
    QCOMPARE(page.findChild<QLabel *>(QStringLiteral("Label3"))->text(),
        QStringLiteral("0 days 0 hours 2 minutes"));
    QCOMPARE(page.findChild<QLabel *>(QStringLiteral("Label9"))->text(), QStringLiteral("2"));
    QCOMPARE(page.findChild<QTreeView *>(QStringLiteral("snmpstats"))->model()->rowCount(), 7);
}

QTEST_MAIN(TestPage)
#include "tst_page.moc"
