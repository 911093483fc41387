// The ROMMON sequence's texts are read as each line goes out, and the TFTP
// server box is offered the local address on the device's network. (What
// reaches the device, and when, is tested through a console on a
// pseudo-terminal.)

#include "recovery/local_address.h"
#include "recovery/rommon_sequence.h"

#include <QSignalSpy>
#include <QTest>

class TestRommonSequence : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void textsReadWhenSent();
    void serverAddressFacingDevice_data();
    void serverAddressFacingDevice();
};

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
