#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/modem_options.h"
#include "test_support.h"

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QGroupBox>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

// A port per network connection (the text --connect takes, the dialog, the
// history), against a local TCP device.
class TestConsolePorts : public QObject
{
    Q_OBJECT
    QTcpServer m_device;

    static void choose(QComboBox *combo, const QString &text)
    {
        combo->setCurrentIndex(combo->findText(text));
        Q_EMIT combo->textActivated(text);
    }

private Q_SLOTS:
    void init()
    {
        tw::test::settingsStore().clear();
        ConsoleSession::setTelnetPort(9); // nothing listens there: a wrong port never connects
        if (!m_device.isListening())
            QVERIFY(m_device.listen(QHostAddress::LocalHost, 0));
    }

    void connectTargets()
    {
        // Text, then kind host port user, or "-" when refused.
        const char *const rows[][2] = { { "10.1.1.1", "TCP/IP 10.1.1.1 0 " },
            { "10.1.1.1:2003", "TCP/IP 10.1.1.1 2003 " }, { "cs1.lab:2001", "TCP/IP cs1.lab 2001 " },
            { "ssh://router", "SSH router 0 " }, { "ssh://admin@10.0.0.2:2222", "SSH 10.0.0.2 2222 admin" },
            { "10.1.1.1:0", "-" }, { "10.1.1.1:65536", "-" }, { "10.1.1.1:telnet", "-" },
            { "10.1.1.1:", "-" }, { "10.1.1.1:23:24", "-" }, { ":23", "-" }, { "ssh://admin@", "-" },
            { "ssh://admin:secret@r1", "-" }, { "ssh://r1/etc", "-" }, { "telnet://r1", "-" }, { "", "-" } };
        for (const auto &[text, expected] : rows) {
            const std::optional<ConnectTarget> t = parseConnectTarget(QString::fromLatin1(text));
            const QString parsed = t
                ? QStringLiteral("%1 %2 %3 %4").arg(t->kind, t->host).arg(t->port).arg(t->user)
                : QStringLiteral("-");
            QVERIFY2(parsed == QLatin1String(expected),
                qPrintable(QStringLiteral("%1 gave %2").arg(text, parsed)));
        }
    }

    void historyKeepsPortKindAndUser()
    {
        // An entry as earlier releases wrote it: four octets, nothing more.
        QSettings settings = tw::test::settingsStore();
        for (int i = 0; i < 4; ++i)
            settings.setValue(QStringLiteral("Settings/histroy%1").arg(i), QStringLiteral("10"));
        settings.sync();
        QCOMPARE(ConnectionHistory::target(0), (ConnectTarget { "TCP/IP", "10.10.10.10", 0, "" }));
        QCOMPARE(ConnectionHistory::target(0).effectivePort(), quint16(9));

        const ConnectTarget ssh { "SSH", "10.0.0.2", 2222, "admin" };
        const ConnectTarget cs1 { "TCP/IP", "10.0.0.9", 2001, "" };
        const ConnectTarget cs2 { "TCP/IP", "10.0.0.9", 2002, "" };
        const ConnectTarget plain { "TCP/IP", "10.0.0.9", 0, "" };
        for (const ConnectTarget &t : { ssh, cs1, cs2, plain, cs1 })
            ConnectionHistory::remember(t);
        // One console server, one entry per port; the reused port moved to the front.
        const QList<ConnectTarget> expected { cs1, plain, cs2, ssh, { "TCP/IP", "10.10.10.10", 0, "" } };
        for (int n = 0; n < expected.size(); ++n)
            QCOMPARE(ConnectionHistory::target(n), expected[n]);
        settings.sync();
        QCOMPARE(settings.value("Settings/histroy4").toString(), QStringLiteral("2001"));
        QVERIFY(!settings.contains("Settings/histroy9")); // the default port: as earlier releases wrote it
        QCOMPARE(settings.value("Settings/histroy19").toString(), QStringLiteral("2222"));

        // SSH on port 22 is its own entry beside raw TCP to the same address.
        ConnectionHistory::remember(ConnectTarget { "SSH", "10.0.0.9", 0, "" });
        QCOMPARE(ConnectionHistory::target(0), (ConnectTarget { "SSH", "10.0.0.9", 0, "" }));
        QCOMPARE(ConnectionHistory::target(1), cs1);
    }

    void dialogConnectsTcpOnItsPort()
    {
        ConsoleSession session;
        ModemOptions dialog;
        dialog.setWhoasked(&session);
        dialog.show();
        choose(dialog.connectWith(), QStringLiteral("SSH"));
        QCOMPARE(dialog.portBox()->text(), QStringLiteral("22"));
        QVERIFY(dialog.userBox()->isEnabled());
        choose(dialog.connectWith(), QStringLiteral("TCP/IP"));
        QCOMPARE(dialog.portBox()->text(), QStringLiteral("9")); // the Telnet port of this run
        QVERIFY(!dialog.userBox()->isEnabled() && dialog.netFrame()->isEnabled());
        QApplication::setActiveWindow(&dialog);
        QVERIFY(QTest::qWaitForWindowActive(&dialog));
        dialog.octetBox(0)->setFocus();
        // A dot moves on to the next box, leading zeros go, Backspace in an empty box goes back.
        for (const char *keys : { "127.", "000.", "\b", ".", "0.", "1" })
            QTest::keyClicks(QApplication::focusWidget(), keys);
        dialog.portBox()->clear();
        QTest::keyClicks(dialog.portBox(), QString::number(m_device.serverPort()));
        QTest::mouseClick(dialog.okButton(), Qt::LeftButton);
        QVERIFY(m_device.waitForNewConnection(30000));
        delete m_device.nextPendingConnection();
        QCOMPARE(session.devicePort(), m_device.serverPort());
        QCOMPARE(session.deviceAddress(), QStringLiteral("127.0.0.1"));
        QCOMPARE(ConnectionHistory::target(0),
            (ConnectTarget { "TCP/IP", "127.0.0.1", m_device.serverPort(), "" }));

        // The history entry brings its port back.
        ModemOptions again;
        again.show();
        choose(again.connectWith(), QStringLiteral("History0"));
        QCOMPARE(again.portBox()->text(), QString::number(m_device.serverPort()));
    }
};

QTEST_MAIN(TestConsolePorts)
#include "tst_console_ports.moc"
