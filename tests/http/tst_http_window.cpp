#include "curl_client.h"
#include "test_support.h"

#include "access/access_list.h"
#include "app/app_under_test.h"
#include "app/main_window.h"
#include "http/http_server.h"
#include "http/http_server_dialog.h"
#include "tftp/transfer_window.h"

#include <QAction>
#include <QCheckBox>
#include <QDialogButtonBox>
#include <QPushButton>
#include <QSpinBox>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

// Switching HTTP serving on and off as the user meets it: --http-port, the
// "HTTP Server..." entry and its "HttpPort" setting, the status-bar panel, a
// port that cannot be bound, and the headless program's monitor lines.
class HttpWindowTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_temp;

    std::unique_ptr<Application> startApp(quint16 httpPort)
    {
        return startApplication(m_temp.path(), [httpPort](CommandLineOptions &o) { o.httpPort = httpPort; });
    }

private Q_SLOTS:
    void optionsMenuSettingAndPanel()
    {
        CommandLineOptions parsed;
        QCOMPARE(
            parseCommandLine({ "tarnwick", "--http-port", "8080" }, parsed).action, CommandLineResult::Run);
        QCOMPARE(parsed.httpPort, quint16(8080));
        QCOMPARE(parseCommandLine({ "tarnwick", "--https-cert", "c.pem" }, parsed).action,
            CommandLineResult::ExitError);

        tw::test::settingsStore().clear();
        auto app = startApp(0);
        QVERIFY(!app->httpServer()->isRunning());
        QCOMPARE(app->mainWindow()->httpPortText(), QStringLiteral("HTTP: off"));

        // "HTTP Server..." turns it on at a port and stores it.
        const quint16 port = tw::test::freeTcpPort();
        auto *entry = app->transferWindow()->findChild<QAction *>(QStringLiteral("MnuHttpServer"));
        QVERIFY(entry);
        QCOMPARE(entry->text(), QStringLiteral("HTTP Server..."));
        entry->trigger();
        auto *dialog = app->transferWindow()->findChild<HttpServerDialog *>();
        QVERIFY(dialog && dialog->isVisible());
        QTest::mouseClick(
            dialog->enabledBox(), Qt::LeftButton, {}, QPoint(4, dialog->enabledBox()->height() / 2));
        QVERIFY(dialog->enabledBox()->isChecked() && dialog->portBox()->isEnabled());
        dialog->portBox()->setValue(port);
        dialog->findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Ok)->click();
        QCOMPARE(app->httpServer()->port(), port);
        QCOMPARE(app->mainWindow()->httpPortText(), QStringLiteral("HTTP: %1").arg(port));
        QCOMPARE(tw::test::settingsStore().value(QStringLiteral("Settings/HttpPort")).toInt(), int(port));
        app.reset();

        // The stored port serves at the next start; a port in use is reported with its reason and the fix.
        app = startApp(0);
        QCOMPARE(app->httpServer()->port(), port);
        app.reset();
        QTcpServer taken;
        QVERIFY(taken.listen(QHostAddress::AnyIPv4, 0));
        app = startApp(taken.serverPort());
        QVERIFY(!app->httpServer()->isRunning());
        QCOMPARE(app->mainWindow()->httpPortText(), QStringLiteral("HTTP: off"));
        QVERIFY2(app->mainWindow()->problemText().contains(
                     QStringLiteral("HTTP port %1 could not be bound (Address already in use)")
                         .arg(taken.serverPort())),
            qPrintable(app->mainWindow()->problemText()));
        QVERIFY(app->mainWindow()->problemText().contains(QStringLiteral("--http-port")));
        // --http-port is for this run only: the stored port is unchanged.
        QCOMPARE(tw::test::settingsStore().value(QStringLiteral("Settings/HttpPort")).toInt(), int(port));

        // Switching it off in the dialog stores 0.
        app->transferWindow()->findChild<QAction *>(QStringLiteral("MnuHttpServer"))->trigger();
        dialog = app->transferWindow()->findChild<HttpServerDialog *>();
        dialog->enabledBox()->setChecked(false);
        dialog->accept();
        QCOMPARE(tw::test::settingsStore().value(QStringLiteral("Settings/HttpPort")).toInt(), 0);
        QCOMPARE(app->mainWindow()->httpPortText(), QStringLiteral("HTTP: off"));
    }

    // The headless program prints each change of an HTTP request's row, as for TFTP.
    void headlessLines()
    {
        QTemporaryDir home;
        QVERIFY(QDir().mkpath(home.filePath("images")));
        QVERIFY(tw::test::writeFile(home.filePath("images/ios.bin"), QByteArray(100000, 'i')));
        AccessList acl;
        acl.setFilePath(home.filePath("ACLIST.ini"));
        acl.appendEntry({ "127.0.0.0", "255.0.0.0", "yes", "yes", home.filePath("images"), 8 });
        acl.save_ACL();
        const quint16 port = tw::test::freeTcpPort();
        QProcess program;
        tw::test::startHeadless(program, home.path(), { "--http-port", QString::number(port) });
        QByteArray seen;
        const QString url = QStringLiteral("http://127.0.0.1:%1/ios.bin").arg(port);
        QTRY_VERIFY_WITH_TIMEOUT(curl({ url }).status == 200, 60000);
        QVERIFY2(
            tw::test::waitForOutput(program, "\thttp: ios.bin\t127.0.0.1\t127.0.0.1\tAllowed\t", seen), seen);
        QVERIFY2(tw::test::waitForOutput(
                     program, "\thttp: ios.bin\t127.0.0.1\t127.0.0.1\tFINISHED OK\t100000 bytes\n", seen),
            seen);
        program.terminate();
        QVERIFY(program.waitForFinished(30000));
    }
};

QTEST_MAIN(HttpWindowTest)
#include "tst_http_window.moc"
