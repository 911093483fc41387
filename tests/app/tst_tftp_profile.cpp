#include "app/app_under_test.h"
#include "app/main_window.h"
#include "test_support.h"
#include "tftp/tftp_test_peer.h"

#include <QAction>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

// The TFTP profile switch as the user meets it: --tftp-standard, the
// "Standard TFTP" menu entry and its stored setting, the status-bar panel and
// the failed access decision in the status bar. (The headless program serving
// curl with --tftp-standard: app_command_line.)
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

    // A blank line in a hand-edited ACLIST.ini makes the decision fail: each request is answered with
    // ERROR 2 and leaves no row, and the status bar names the row and the cause, reported once.
    void failedDecisionInStatusBar()
    {
        QVERIFY(tw::test::writeFile(m_temp.filePath(QStringLiteral("ACLIST.ini")),
            "0.0.0.0; 0 . 0 . 0 . 0 ;yes;yes;/tmp;0;\r\n\r\n"));
        auto app = startApp(true, {});
        QSignalSpy reports(app->standardServer(), &StandardServer::accessDecisionFailed);
        tftptest::Client client;
        for (int i = 0; i < 2; ++i)
            QCOMPARE(client.ask(tftptest::request(1, "f.bin"), app->standardServer()->port()),
                tftptest::error(2, "Access violation"));
        QTRY_COMPARE(reports.count(), 1);
        const QString problem = app->mainWindow()->problemText();
        QVERIFY2(problem.contains("access-list row 2") && problem.contains("fewer than four"),
            qPrintable(problem));
        QCOMPARE(app->monitor()->transferCount(), 0);
    }
};

QTEST_MAIN(TftpProfileTest)
#include "tst_tftp_profile.moc"
