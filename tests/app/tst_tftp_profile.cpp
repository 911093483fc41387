#include "test_main.h"
#include "app/application.h"
#include "app/command_line.h"
#include "app/main_window.h"
#include "tftp/tftp_server.h"

#include <QAction>
#include <QElapsedTimer>
#include <QNetworkDatagram>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

// The TFTP profile switch as the user meets it: --tftp-standard, the
// "Standard TFTP" menu entry and its stored setting, the status-bar panel,
// the failed access decision in the status bar, and the headless program
// answering curl with progress lines.
class TftpProfileTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_temp;

    static quint16 freeUdpPort()
    {
        QUdpSocket probe;
        probe.bind(QHostAddress::LocalHost, 0);
        return probe.localPort();
    }

    std::unique_ptr<Application> startApp(bool option, const QVariant &stored)
    {
        QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
        settings.clear();
        if (stored.isValid())
            settings.setValue(QStringLiteral("Settings/TftpStandard"), stored);
        settings.sync();
        CommandLineOptions options;
        options.tftpPort = freeUdpPort();
        options.logPort = freeUdpPort();
        options.aclFile = m_temp.filePath(QStringLiteral("ACLIST.ini"));
        options.tftpStandard = option;
        auto app = std::make_unique<Application>(options);
        app->start();
        return app;
    }

    static bool storedStandard()
    {
        return QSettings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"))
            .value(QStringLiteral("Settings/TftpStandard"), false)
            .toBool();
    }

private Q_SLOTS:
    void switchMenuSettingAndPanel()
    {
        CommandLineOptions parsed;
        QCOMPARE(parseCommandLine({ "tarnwick", "--tftp-standard" }, parsed).action, CommandLineResult::Run);
        QVERIFY(parsed.tftpStandard);

        // Off by default; the menu entry turns it on, stores it, and the panel follows.
        auto app = startApp(false, {});
        auto *entry = app->mainWindow()->findChild<QAction *>(QStringLiteral("MnuStandardTftp"));
        QVERIFY(entry && entry->isCheckable());
        QCOMPARE(entry->text(), QStringLiteral("Standard TFTP"));
        QVERIFY(!entry->isChecked() && !app->tftpServer()->standardProfile());
        QCOMPARE(app->mainWindow()->tftpProfileText(), QStringLiteral("TFTP: classic"));
        entry->trigger();
        QVERIFY(entry->isChecked() && app->tftpServer()->standardProfile() && storedStandard());
        QCOMPARE(app->mainWindow()->tftpProfileText(), QStringLiteral("TFTP: standard"));
        app.reset();

        // The stored setting turns it on at start; the option does for one run without storing it.
        app = startApp(false, true);
        QVERIFY(app->tftpServer()->standardProfile());
        app.reset();
        app = startApp(true, false);
        auto *checked = app->mainWindow()->findChild<QAction *>(QStringLiteral("MnuStandardTftp"));
        QVERIFY(checked->isChecked() && app->tftpServer()->standardProfile() && !storedStandard());
        checked->trigger();
        QVERIFY(!app->tftpServer()->standardProfile() && !storedStandard());
        QCOMPARE(app->mainWindow()->tftpProfileText(), QStringLiteral("TFTP: classic"));
    }

    // A blank line in a hand-edited ACLIST.ini makes the decision fail: the status bar names the row.
    void failedDecisionInStatusBar()
    {
        QFile acl(m_temp.filePath(QStringLiteral("ACLIST.ini")));
        QVERIFY(acl.open(QIODevice::WriteOnly));
        acl.write("0.0.0.0; 0 . 0 . 0 . 0 ;yes;yes;/tmp;0;\r\n\r\n");
        acl.close();
        auto app = startApp(true, {});
        const quint16 port = app->tftpServer()->slotLocalPort(1);
        QUdpSocket client;
        client.bind(QHostAddress::LocalHost, 0);
        client.writeDatagram(QByteArray("\0\1f.bin\0octet\0", 14), QHostAddress::LocalHost, port);
        QTRY_VERIFY(client.hasPendingDatagrams());
        QCOMPARE(client.receiveDatagram().data().left(4), QByteArray("\0\5\0\2", 4));
        QTRY_VERIFY(app->mainWindow()->problemText().contains(QStringLiteral("access-list row 2")));
    }

    // The installed program as a jump host runs it: headless, standard profile, curl fetching a file.
    void headlessWithCurl()
    {
        const QString folder = m_temp.filePath(QStringLiteral("share"));
        QVERIFY(QDir().mkpath(folder));
        QFile image(folder + QStringLiteral("/image.bin"));
        QVERIFY(image.open(QIODevice::WriteOnly));
        image.write(QByteArray(3000000, 'x'));
        image.close();
        QFile acl(m_temp.filePath(QStringLiteral("jump.ini")));
        QVERIFY(acl.open(QIODevice::WriteOnly));
        acl.write(QStringLiteral("0.0.0.0; 0 . 0 . 0 . 0 ;yes;no;%1;0;\r\n").arg(folder).toLocal8Bit());
        acl.close();
        const quint16 port = freeUdpPort();
        QProcess server;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_temp.filePath(QStringLiteral("config")));
        server.setProcessEnvironment(env);
        server.start(QStringLiteral(TW_PROGRAM),
            { "--headless", "--tftp-standard", "--tftp-port", QString::number(port), "--log-port",
                QString::number(freeUdpPort()), "--acl", acl.fileName() });
        QVERIFY(server.waitForStarted());
        QByteArray out;
        QElapsedTimer clock;
        clock.start();
        while (!out.contains("Listen") && clock.elapsed() < 60000 && server.state() == QProcess::Running) {
            server.waitForReadyRead(500);
            out += server.readAllStandardOutput();
        }
        QVERIFY2(out.contains("Listen"), (out + server.readAllStandardError()).constData());
        QProcess curl;
        curl.start(QStandardPaths::findExecutable(QStringLiteral("curl")),
            { "-sS", "-o", m_temp.filePath(QStringLiteral("got.bin")),
                QStringLiteral("tftp://127.0.0.1:%1/image.bin").arg(port) });
        QVERIFY2(curl.waitForStarted(), "curl not found: install the curl package");
        QVERIFY(curl.waitForFinished(60000));
        QCOMPARE(curl.exitCode(), 0);
        QCOMPARE(QFileInfo(m_temp.filePath(QStringLiteral("got.bin"))).size(), 3000000);
        clock.restart();
        while (!out.contains("3000000 bytes") && clock.elapsed() < 10000) {
            server.waitForReadyRead(200);
            out += server.readAllStandardOutput();
        }
        server.terminate();
        QVERIFY(server.waitForFinished(10000));
        out += server.readAllStandardOutput();
        QVERIFY2(out.contains("\t127.0.0.1\tAllowed\t3000000 bytes"), out.constData());
        QVERIFY(out.contains("FINISHED OK"));
    }
};

TW_TEST_MAIN(TftpProfileTest)
#include "tst_tftp_profile.moc"
