#include "console_test_support.h"

#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/modem_options.h"

#include <QApplication>
#include <QComboBox>
#include <QGroupBox>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QTest>

namespace {
QStringList comboItems(QComboBox *combo)
{
    QStringList items;
    for (int i = 0; i < combo->count(); ++i)
        items << combo->itemText(i);
    return items;
}

// Chooses an entry the way a user does, with the keyboard.
void choose(QComboBox *combo, const QString &text)
{
    const int target = combo->findText(text);
    combo->setCurrentIndex(target == 0 ? 1 : target - 1);
    QTest::keyClick(combo, target == 0 ? Qt::Key_Up : Qt::Key_Down);
    QCOMPARE(combo->currentText(), text);
}

QStringList octets(const char *dotted)
{
    return QString::fromLatin1(dotted).split(QLatin1Char('.'));
}
} // namespace

class TestModemOptions : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();

    void defaults();
    void historyFillsTheOctetBoxes();
    void historyIsMostRecentFirst_data();
    void historyIsMostRecentFirst();
    void octetBoxTyping();
    void okConnectsTcpAndRemembers();
    void okConnectsSerial();
};

void TestModemOptions::init()
{
    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings.clear();
}

void TestModemOptions::defaults()
{
    ModemOptions dialog;
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Connection Settings"));
    QCOMPARE(comboItems(dialog.connectWith()),
        QStringList(
            { "Serial", "TCP/IP", "History0", "History1", "History2", "History3", "History4", "History5" }));
    QCOMPARE(dialog.connectWith()->currentText(), QStringLiteral("Serial"));
    QCOMPARE(comboItems(dialog.serialField(5)), QStringList({ "Hardware", "Software", "Xon/Xoff" }));
    const QStringList expected { "1", "9600", "None", "8", "1", "Xon/Xoff" };
    const int order[] = { 7, 1, 2, 3, 4, 5 };
    for (int i = 0; i < 6; ++i)
        QCOMPARE(dialog.serialField(order[i])->currentText(), expected[i]);
    QVERIFY(dialog.serialFrame()->isEnabled());
    QVERIFY(!dialog.netFrame()->isEnabled());
}

void TestModemOptions::historyFillsTheOctetBoxes()
{
    {
        QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
        settings.beginGroup(QStringLiteral("Settings"));
        const QStringList values { "10", "20", "30", "40" };
        for (int i = 0; i < 4; ++i)
            settings.setValue(QStringLiteral("histroy%1").arg(10 + i), values[i]);
        // Entry 1 lies under 5..8: a neighbour that must not leak in.
        settings.setValue(QStringLiteral("histroy9"), QStringLiteral("99"));
    }
    ModemOptions dialog;
    dialog.show();
    QComboBox *combo = dialog.connectWith();
    choose(combo, QStringLiteral("History2"));
    for (int i = 0; i < 4; ++i)
        QCOMPARE(dialog.octetBox(i)->text(), QString::number(10 * (i + 1)));
    QVERIFY(dialog.netFrame()->isEnabled());
    QVERIFY(!dialog.serialFrame()->isEnabled());

    choose(combo, QStringLiteral("Serial"));
    QVERIFY(dialog.serialFrame()->isEnabled());
    choose(combo, QStringLiteral("History5")); // never written: empty boxes
    QCOMPARE(dialog.octetBox(0)->text(), QString());
}

void TestModemOptions::historyIsMostRecentFirst_data()
{
    QTest::addColumn<QStringList>("connected");
    QTest::addColumn<QStringList>("expected"); // entries 0..5 afterwards, dotted

    QTest::newRow("new addresses push down") << QStringList { "10.0.0.1",
        "10.0.0.2" } << QStringList { "10.0.0.2", "10.0.0.1", "...", "...", "...", "..." };
    QTest::newRow("same address twice, no duplicate") << QStringList { "10.0.0.1",
        "10.0.0.1" } << QStringList { "10.0.0.1", "...", "...", "...", "...", "..." };
    QTest::newRow("entry 3 moves to the front")
        << QStringList { "10.0.0.4", "10.0.0.3", "10.0.0.2", "10.0.0.1", "10.0.0.4" }
        << QStringList { "10.0.0.4", "10.0.0.1", "10.0.0.2", "10.0.0.3", "...", "..." };
    QTest::newRow("seventh address drops the oldest")
        << QStringList { "1.1.1.1", "2.2.2.2", "3.3.3.3", "4.4.4.4", "5.5.5.5", "6.6.6.6", "7.7.7.7" }
        << QStringList { "7.7.7.7", "6.6.6.6", "5.5.5.5", "4.4.4.4", "3.3.3.3", "2.2.2.2" };
    // Entry 5 is not searched, so reusing it keeps a second copy at the end.
    QTest::newRow("reusing entry 5 duplicates it")
        << QStringList { "1.1.1.1", "2.2.2.2", "3.3.3.3", "4.4.4.4", "5.5.5.5", "6.6.6.6", "1.1.1.1" }
        << QStringList { "1.1.1.1", "6.6.6.6", "5.5.5.5", "4.4.4.4", "3.3.3.3", "2.2.2.2" };
    QTest::newRow("a host name is not remembered") << QStringList { "10.0.0.1",
        "router.example" } << QStringList { "10.0.0.1", "...", "...", "...", "...", "..." };
}

void TestModemOptions::historyIsMostRecentFirst()
{
    QFETCH(QStringList, connected);
    QFETCH(QStringList, expected);
    // Nothing listens here; the sessions' connection attempts fail harmlessly.
    ConsoleSession::setTelnetPort(9);
    ConsoleSession session;
    for (const QString &host : connected)
        connectTcpRemembered(&session, host);
    for (int n = 0; n < ConnectionHistory::entryCount; ++n)
        QCOMPARE(ConnectionHistory::entry(n).join(QLatin1Char('.')), expected[n]);
    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings.beginGroup(QStringLiteral("Settings"));
    if (settings.contains(QStringLiteral("histroy0"))) {
        QCOMPARE(
            settings.value(QStringLiteral("histroy3")).toString(), octets(qPrintable(expected[0])).at(3));
        QVERIFY(!settings.contains(QStringLiteral("histroy4"))); // the unused fifth key of the stride
    }
}

void TestModemOptions::octetBoxTyping()
{
    ModemOptions dialog;
    dialog.show();
    QApplication::setActiveWindow(&dialog);
    QVERIFY(QTest::qWaitForWindowActive(&dialog));
    choose(dialog.connectWith(), QStringLiteral("TCP/IP"));

    dialog.octetBox(0)->setFocus();
    QTest::keyClicks(dialog.octetBox(0), "192");
    QTest::keyClick(dialog.octetBox(0), Qt::Key_Period, {}, 10);
    QCOMPARE(dialog.octetBox(0)->text(), QStringLiteral("192"));
    QTRY_COMPARE(QApplication::focusWidget(), static_cast<QWidget *>(dialog.octetBox(1)));

    QTest::keyClicks(dialog.octetBox(1), "0");
    QCOMPARE(dialog.octetBox(1)->text(), QStringLiteral("0"));
    QTest::keyClicks(dialog.octetBox(1), "07");
    QCOMPARE(dialog.octetBox(1)->text(), QStringLiteral("7"));

    // Backspace in an empty box goes back; in a full one it edits.
    dialog.octetBox(2)->setFocus();
    QTest::keyClick(dialog.octetBox(2), Qt::Key_Backspace);
    QTRY_COMPARE(QApplication::focusWidget(), static_cast<QWidget *>(dialog.octetBox(1)));
    QTest::keyClick(dialog.octetBox(1), Qt::Key_Backspace);
    QCOMPARE(dialog.octetBox(1)->text(), QString());
    QCOMPARE(QApplication::focusWidget(), static_cast<QWidget *>(dialog.octetBox(1)));
}

void TestModemOptions::okConnectsTcpAndRemembers()
{
    QTcpServer device;
    QVERIFY(device.listen(QHostAddress::LocalHost, 0));
    ConsoleSession::setTelnetPort(device.serverPort());
    ConsoleSession session;
    ModemOptions dialog;
    dialog.setWhoasked(&session);
    dialog.show();
    choose(dialog.connectWith(), QStringLiteral("TCP/IP"));
    const char *parts[] = { "127", "0", "0", "1" };
    for (int i = 0; i < 4; ++i)
        QTest::keyClicks(dialog.octetBox(i), parts[i]);
    QTest::mouseClick(dialog.okButton(), Qt::LeftButton);

    QVERIFY(device.waitForNewConnection(5000));
    QCOMPARE(session.connectionKind(), QStringLiteral("TCP/IP"));
    QCOMPARE(session.deviceAddress(), QStringLiteral("127.0.0.1"));
    QCOMPARE(ConnectionHistory::entry(0), octets("127.0.0.1"));
    QVERIFY(!dialog.isVisible());
}

void TestModemOptions::okConnectsSerial()
{
    PtyDevice line;
    QVERIFY(line.isValid());
    ConsoleSession session;
    ModemOptions dialog;
    dialog.setWhoasked(&session);
    dialog.show();
    dialog.serialField(7)->setCurrentText(line.path());
    QTest::mouseClick(dialog.okButton(), Qt::LeftButton);
    QVERIFY(session.serialOpen());
    QCOMPARE(session.connectionKind(), QStringLiteral("Serial"));
    QCOMPARE(session.serialSettings(), QStringLiteral("9600,N,8,1"));
    QTRY_COMPARE(line.received(), QByteArray("\r"));
    // A serial connection leaves the address history alone.
    QCOMPARE(ConnectionHistory::entry(0), QStringList({ "", "", "", "" }));
}

QTEST_MAIN(TestModemOptions)
#include "tst_modem_options.moc"
