#include "app/app_under_test.h"
#include "app/main_window.h"
#include "test_support.h"
#include "tftp/standard_server.h"
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

    std::unique_ptr<Application> startApp(bool option, const QVariant &stored)
    {
        QSettings settings = tw::test::settingsStore();
        settings.clear();
        if (stored.isValid())
            settings.setValue(QStringLiteral("Settings/TftpStandard"), stored);
        settings.sync();
        return startApplication(m_temp.path(), [option](CommandLineOptions &o) { o.tftpStandard = option; });
    }

    static bool storedStandard()
    {
        return tw::test::settingsStore().value(QStringLiteral("Settings/TftpStandard"), false).toBool();
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
        QVERIFY(tw::test::writeFile(m_temp.filePath(QStringLiteral("ACLIST.ini")),
            "0.0.0.0; 0 . 0 . 0 . 0 ;yes;yes;/tmp;0;\r\n\r\n"));
        auto app = startApp(true, {});
        const quint16 port = app->standardServer()->port();
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
        QVERIFY(tw::test::writeFile(folder + QStringLiteral("/image.bin"), QByteArray(3000000, 'x')));
        const QString acl = m_temp.filePath(QStringLiteral("jump.ini"));
        QVERIFY(
            tw::test::writeFile(acl, "0.0.0.0; 0 . 0 . 0 . 0 ;yes;no;" + folder.toLocal8Bit() + ";0;\r\n"));
        const quint16 port = tw::test::freeUdpPort();
        QProcess server;
        tw::test::startHeadless(
            server, m_temp.path(), { "--tftp-standard", "--tftp-port", QString::number(port), "--acl", acl });
        QVERIFY(server.waitForStarted());
        QByteArray out;
        QVERIFY2(tw::test::waitForOutput(server, "Listen", out),
            (out + server.readAllStandardError()).constData());
        QProcess curl;
        curl.start(QStandardPaths::findExecutable(QStringLiteral("curl")),
            { "-sS", "-o", m_temp.filePath(QStringLiteral("got.bin")),
                QStringLiteral("tftp://127.0.0.1:%1/image.bin").arg(port) });
        QVERIFY2(curl.waitForStarted(), "curl not found: install the curl package");
        QVERIFY(curl.waitForFinished(60000));
        QCOMPARE(curl.exitCode(), 0);
        QCOMPARE(QFileInfo(m_temp.filePath(QStringLiteral("got.bin"))).size(), 3000000);
        tw::test::waitForOutput(server, "FINISHED OK", out);
        server.terminate();
        QVERIFY(server.waitForFinished(30000));
        out += server.readAllStandardOutput();
        // Rows reach the output in batches: the final count comes with the end state.
        QVERIFY2(out.contains("\t127.0.0.1\tFINISHED OK\t3000000 bytes"), out.constData());
    }
};

QTEST_MAIN(TftpProfileTest)
#include "tst_tftp_profile.moc"
