#include "test_support.h"

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
// "HTTP Server..." entry and its "HttpPort" setting, the status-bar panel and
// a port that cannot be bound. (The headless program's HTTP rows: app_command_line.)
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
};

QTEST_MAIN(HttpWindowTest)
#include "tst_http_window.moc"
