// The ROMMON download sequence on its own: the lines, their order and
// spacing, texts read when each line goes out, stopping and interleaving.

#include "recovery/local_address.h"
#include "recovery/rommon_sequence.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

class TestRommonSequence : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void lines_data();
    void lines();
    void spacingAndTimers();
    void textsReadWhenSent();
    void stopFromReceiver();
    void secondStartInterleaves();
    void serverAddressFacingDevice_data();
    void serverAddressFacingDevice();
};

using Texts = std::array<QString, RommonSequence::fieldCount>;

void TestRommonSequence::lines_data()
{
    QTest::addColumn<QStringList>("texts");
    QTest::addColumn<QList<QByteArray>>("expected");
    QTest::newRow("filled") << QStringList { "10.0.0.2", "255.255.255.0", "10.0.0.1", "10.0.0.9",
        "c2600.bin" }
                            << QList<QByteArray> { "IP_ADDRESS=10.0.0.2\r\n",
                                   "IP_SUBNET_MASK=255.255.255.0\r", "DEFAULT_GATEWAY=10.0.0.1\r",
                                   "TFTP_SERVER=10.0.0.9\r", "TFTP_FILE=c2600.bin\r", "tftpdnld\r" };
    QTest::newRow("empty boxes give bare assignments")
        << QStringList { "", "", "", "", "" }
        << QList<QByteArray> { "IP_ADDRESS=\r\n", "IP_SUBNET_MASK=\r", "DEFAULT_GATEWAY=\r", "TFTP_SERVER=\r",
               "TFTP_FILE=\r", "tftpdnld\r" };
    QTest::newRow("sent as typed, spaces and all")
        << QStringList { " 1.2.3.4 ", "x", "", "", "a b" }
        << QList<QByteArray> { "IP_ADDRESS= 1.2.3.4 \r\n", "IP_SUBNET_MASK=x\r", "DEFAULT_GATEWAY=\r",
               "TFTP_SERVER=\r", "TFTP_FILE=a b\r", "tftpdnld\r" };
}

void TestRommonSequence::lines()
{
    QFETCH(QStringList, texts);
    QFETCH(QList<QByteArray>, expected);
    RommonSequence sequence;
    sequence.setStepInterval(5);
    for (int f = 0; f < RommonSequence::fieldCount; ++f)
        sequence.setText(RommonSequence::Field(f), texts.at(f));
    QSignalSpy lines(&sequence, &RommonSequence::lineReady);
    QSignalSpy finished(&sequence, &RommonSequence::finished);
    sequence.start();
    QVERIFY(finished.wait(2000));
    QList<QByteArray> got;
    for (const auto &args : lines)
        got.append(args.first().toByteArray());
    QCOMPARE(got, expected);
    QVERIFY(!sequence.isRunning());
}

void TestRommonSequence::spacingAndTimers()
{
    RommonSequence sequence;
    QCOMPARE(sequence.stepInterval(), 500);
    QCOMPARE(sequence.text(RommonSequence::SubnetMask), QStringLiteral("255.255.255.0"));
    for (int n = 4; n <= 8; ++n) {
        auto *timer = sequence.findChild<QTimer *>(QStringLiteral("Timer%1").arg(n));
        QVERIFY2(timer, qPrintable(QStringLiteral("Timer%1").arg(n)));
        QVERIFY(timer->isSingleShot());
        QCOMPARE(timer->interval(), 500);
        QVERIFY(!timer->isActive());
    }

    const int interval = 60;
    sequence.setStepInterval(interval);
    QElapsedTimer clock;
    QList<qint64> at;
    QStringList activeAfter;
    connect(&sequence, &RommonSequence::lineReady, this, [&] {
        at.append(clock.elapsed());
        QStringList active;
        for (auto *timer : sequence.findChildren<QTimer *>()) {
            if (timer->isActive())
                active.append(timer->objectName());
        }
        activeAfter.append(active.join(u','));
    });
    QSignalSpy finished(&sequence, &RommonSequence::finished);
    clock.start();
    sequence.start();
    QVERIFY(finished.wait(2000));
    QCOMPARE(at.size(), 6);
    QVERIFY(at.first() < interval / 2);
    for (int i = 1; i < at.size(); ++i) {
        const qint64 gap = at.at(i) - at.at(i - 1);
        QVERIFY2(gap >= interval - 2 && gap < interval * 3, qPrintable(QString::number(gap)));
    }
    // One timer at a time, handing on from Timer4 to Timer8.
    QCOMPARE(activeAfter, (QStringList { "Timer4", "Timer5", "Timer6", "Timer7", "Timer8", "" }));
}

void TestRommonSequence::textsReadWhenSent()
{
    RommonSequence sequence;
    sequence.setStepInterval(5);
    QList<QByteArray> got;
    connect(&sequence, &RommonSequence::lineReady, this, [&](const QByteArray &line) {
        got.append(line);
        if (got.size() == 1)
            sequence.setText(RommonSequence::FileName, QStringLiteral("late.bin"));
    });
    QSignalSpy finished(&sequence, &RommonSequence::finished);
    sequence.start();
    QVERIFY(finished.wait(2000));
    QCOMPARE(got.value(4), QByteArray("TFTP_FILE=late.bin\r"));
}

void TestRommonSequence::stopFromReceiver()
{
    RommonSequence sequence;
    sequence.setStepInterval(5);
    QList<QByteArray> got;
    connect(&sequence, &RommonSequence::lineReady, this, [&](const QByteArray &line) {
        got.append(line);
        if (got.size() == 3)
            sequence.stop();
    });
    sequence.start();
    QTRY_VERIFY(!sequence.isRunning());
    QTest::qWait(50);
    QCOMPARE(got.size(), 3);
}

void TestRommonSequence::secondStartInterleaves()
{
    RommonSequence sequence;
    sequence.setStepInterval(40);
    sequence.setText(RommonSequence::IpAddress, QStringLiteral("1.1.1.1"));
    QList<QByteArray> got;
    connect(&sequence, &RommonSequence::lineReady, this, [&](const QByteArray &line) {
        got.append(line);
        if (got.size() == 2) // first run has moved on to Timer5: press Start again
            sequence.start();
    });
    QSignalSpy finished(&sequence, &RommonSequence::finished);
    sequence.start();
    QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 2, 3000);
    QCOMPARE(got.size(), 12);
    QCOMPARE(got.mid(0, 3),
        (QList<QByteArray> {
            "IP_ADDRESS=1.1.1.1\r\n", "IP_SUBNET_MASK=255.255.255.0\r", "IP_ADDRESS=1.1.1.1\r\n" }));
    // Both runs are complete, each line exactly twice, the second run one step behind.
    for (int step = 0; step <= RommonSequence::fieldCount; ++step)
        QCOMPARE(got.count(RommonSequence::line(step, { "1.1.1.1", "255.255.255.0" })), 2);
    QCOMPARE(got.last(), QByteArray("tftpdnld\r"));
    QVERIFY(got.indexOf("tftpdnld\r") < got.lastIndexOf("TFTP_FILE=\r"));
}

void TestRommonSequence::serverAddressFacingDevice_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("expected");
    QTest::newRow("device on the second network") << "192.168.7.20"
                                                  << "192.168.7.1";
    QTest::newRow("device on the first network") << "10.9.8.7"
                                                 << "10.0.0.5";
    QTest::newRow("device unknown") << ""
                                    << "10.0.0.5";
    QTest::newRow("device elsewhere") << "172.16.0.1"
                                      << "10.0.0.5";
    QTest::newRow("not an address") << "R1"
                                    << "10.0.0.5";
}

void TestRommonSequence::serverAddressFacingDevice()
{
    QFETCH(QString, device);
    QFETCH(QString, expected);
    auto entry = [](const char *ip, int prefix) {
        QNetworkAddressEntry e;
        e.setIp(QHostAddress(QString::fromLatin1(ip)));
        e.setPrefixLength(prefix);
        return e;
    };
    const QList<QNetworkAddressEntry> entries { entry("127.0.0.1", 8), entry("10.0.0.5", 8),
        entry("192.168.7.1", 24) };
    QCOMPARE(tw::localAddressFacing(device, entries), expected);
    QCOMPARE(tw::localAddressFacing(device, {}), QString());
    QCOMPARE(tw::localAddressFacing(device, { entry("127.0.0.1", 8) }), QStringLiteral("127.0.0.1"));
}

QTEST_GUILESS_MAIN(TestRommonSequence)
#include "tst_rommon_sequence.moc"
