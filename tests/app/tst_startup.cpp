#include "app/app_under_test.h"
#include "app/main_window.h"
#include "console/console_session.h"
#include "console/console_window.h"
#include "test_support.h"
#include "util/message_box.h"

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QMdiArea>
#include <QMdiSubWindow>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QToolBar>
#include <QUdpSocket>

// Start-up and the main window: the window table, the toolbar, the settings
// store, the toolbar click rules with the caption test for tiling, hiding on
// close, and the console count limit with placement by count.
class StartupTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<Application> m_app;
    QStringList m_messages;

    MainWindow *startApp(const QString &folderSetting = QString(),
        const std::function<void(CommandLineOptions &)> &adjust = {})
    {
        QSettings settings = tw::test::settingsStore();
        settings.clear();
        if (!folderSetting.isNull())
            settings.setValue(QStringLiteral("Settings/FolderPath"), folderSetting);
        settings.sync();
        m_app = startApplication(m_temp.path(), adjust);
        return m_app->mainWindow();
    }

    static QList<QMdiSubWindow *> tiledFrames(MainWindow *main)
    {
        QList<QMdiSubWindow *> frames;
        for (QMdiSubWindow *frame : main->mdiArea()->subWindowList(QMdiArea::CreationOrder))
            if (frame->isVisible() && !frame->isMinimized() && !frame->isMaximized())
                frames << frame;
        return frames;
    }

    static void verifySideBySide(MainWindow *main)
    {
        const QList<QMdiSubWindow *> frames = tiledFrames(main);
        QVERIFY(!frames.isEmpty());
        const int height = main->mdiArea()->viewport()->height();
        const int share = main->mdiArea()->viewport()->width() / int(frames.size());
        int x = 0;
        for (QMdiSubWindow *frame : frames) {
            QCOMPARE(frame->geometry().top(), 0);
            QCOMPARE(frame->geometry().left(), x);
            QVERIFY(frame->height() <= height); // room for minimised icons
            QVERIFY(qAbs(frame->width() - share) < int(frames.size()));
            x += frame->width();
        }
    }

    QTemporaryDir m_temp;

private Q_SLOTS:
    void initTestCase()
    {
        tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_messages << text; });
    }

    void cleanup()
    {
        m_app.reset();
        m_messages.clear();
    }

    // Without a stored folder the folder browser stays in front; with one it is
    // minimised and the first console comes forward. Closing stores the
    // placement (in twips) only when the window is not minimised, the folder always.
    void storedFolderAndPlacement()
    {
        MainWindow *main = startApp();
        QVERIFY(main->sharedFolder().isEmpty());
        QCOMPARE(main->childState(WindowTable::filesIndex), MainWindow::Normal);
        QCOMPARE(main->mdiArea()->activeSubWindow(), main->frameOf(WindowTable::filesIndex));
        main->setSharedFolder(m_temp.path());
        main->setGeometry(40, 50, 900, 600);
        const QRect placement = main->geometry();
        main->close();
        {
            QSettings settings = tw::test::settingsStore();
            QCOMPARE(settings.value("Settings/MainLeft").toInt(), placement.left() * 15);
            QCOMPARE(settings.value("Settings/MainTop").toInt(), placement.top() * 15);
            QCOMPARE(settings.value("Settings/MainWidth").toInt(), placement.width() * 15);
            QCOMPARE(settings.value("Settings/MainHeight").toInt(), placement.height() * 15);
            QCOMPARE(settings.value("Settings/FolderPath").toString(), m_temp.path());
        }
        m_app.reset();

        // A second run that ends minimised keeps the last placement but still
        // stores the folder; the window opened at its designed size regardless.
        main = startApp(m_temp.path());
        QCOMPARE(main->sharedFolder(), m_temp.path());
        QCOMPARE(main->childState(WindowTable::filesIndex), MainWindow::Minimised);
        QCOMPARE(main->mdiArea()->activeSubWindow(), main->frameOf(WindowTable::firstConsoleIndex));
        QVERIFY(main->geometry() != placement);
        {
            QSettings settings = tw::test::settingsStore();
            settings.setValue("Settings/MainLeft", 4321);
        }
        main->setSharedFolder(QStringLiteral("/srv/other"));
        main->showMinimized();
        QTRY_VERIFY(main->isMinimized());
        main->close();
        QSettings settings = tw::test::settingsStore();
        QCOMPARE(settings.value("Settings/MainLeft").toInt(), 4321);
        QCOMPARE(settings.value("Settings/FolderPath").toString(), QStringLiteral("/srv/other"));
    }

    // --folder serves one run: the stored folder survives it. A --headless run
    // never shows its window and so stores no placement. A folder chosen during
    // a --folder run is the user's choice and is stored as usual.
    void folderForThisRunAndHeadlessPlacement()
    {
        const QString runFolder = m_temp.path();
        MainWindow *main = startApp(QStringLiteral("/srv/stored"), [&](CommandLineOptions &options) {
            options.folder = runFolder;
            options.folderGiven = true;
            options.headless = true;
        });
        QCOMPARE(main->sharedFolder(), runFolder);
        QVERIFY(!main->isVisible());
        m_app->shutDown();
        {
            QSettings settings = tw::test::settingsStore();
            QCOMPARE(settings.value("Settings/FolderPath").toString(), QStringLiteral("/srv/stored"));
            for (const char *key :
                { "Settings/MainLeft", "Settings/MainTop", "Settings/MainWidth", "Settings/MainHeight" })
                QVERIFY2(!settings.contains(key), key);
        }
        m_app.reset();

        main = startApp(QStringLiteral("/srv/stored"), [&](CommandLineOptions &options) {
            options.folder = runFolder;
            options.folderGiven = true;
        });
        main->setSharedFolder(QStringLiteral("/srv/chosen")); // "Change Folder" during the run
        main->close();
        QSettings settings = tw::test::settingsStore();
        QCOMPARE(settings.value("Settings/FolderPath").toString(), QStringLiteral("/srv/chosen"));
        QVERIFY(settings.contains("Settings/MainLeft"));
    }

    // The real consoles as the program wires them: --connect HOST:PORT reaches
    // that port; a console's TCP host is the address its log view answers to; routing looks at slots 3 up to
    // the window count, so a console left above the count after a removal gets no lines; "Clear Log" empties
    // the view and leaves the log file alone.
    void logLinesReachTheRealConsoles()
    {
        QTcpServer r1, r2; // the devices: r1 named with its port by --connect, r2 on the Telnet port
        QVERIFY(r1.listen(QHostAddress::LocalHost, 0));
        QVERIFY(r2.listen(QHostAddress(QStringLiteral("127.0.0.2")), 0));
        const quint16 logPort = tw::test::freeUdpPort();
        const QString logDir = m_temp.filePath(QStringLiteral("logs"));
        MainWindow *main = startApp(QString(), [&](CommandLineOptions &options) {
            options.telnetPort = r2.serverPort();
            options.logPort = logPort;
            options.connectHost = QStringLiteral("127.0.0.1:%1").arg(r1.serverPort());
            options.logDir = logDir;
        });
        auto *first = qobject_cast<ConsoleWindow *>(main->child(WindowTable::firstConsoleIndex));
        QVERIFY(first);
        QTRY_VERIFY(r1.hasPendingConnections());
        // Datagrams to one socket from loopback arrive in the order sent: once the last one is
        // shown, every earlier one has been routed or dropped.
        const auto sendFrom = [logPort](const char *address, const QByteArray &text) {
            QUdpSocket device;
            QVERIFY(device.bind(QHostAddress(QLatin1String(address)), 0));
            QCOMPARE(device.writeDatagram(text, QHostAddress::LocalHost, logPort), text.size());
        };
        sendFrom("127.0.0.1", "%SYS-5-CONFIG_I: r1 configured");
        QTRY_COMPARE(first->logBox()->toPlainText(), QStringLiteral("%SYS-5-CONFIG_I: r1 configured\n"));

        first->selectTab(2);
        auto *clearLog = first->findChild<QPushButton *>(QStringLiteral("Command2"));
        QVERIFY(clearLog && clearLog->text() == QStringLiteral("Clear Log"));
        main->mdiArea()->setActiveSubWindow(main->frameOf(WindowTable::firstConsoleIndex));
        QTRY_VERIFY(clearLog->isVisible());
        QTest::mouseClick(clearLog, Qt::LeftButton);
        QCOMPARE(first->logBox()->toPlainText(), QString());
        const QStringList files = QDir(logDir).entryList(QDir::Files);
        QCOMPARE(files.size(), 1);
        QCOMPARE(tw::test::readFile(QDir(logDir).filePath(files.at(0))),
            QByteArray("%SYS-5-CONFIG_I: r1 configured\r\r\n"));

        // Consoles at 5 and 6; the one at 6 talks to r2.
        auto *fifth = qobject_cast<ConsoleWindow *>(main->newConsole());
        auto *sixth = qobject_cast<ConsoleWindow *>(main->newConsole());
        QVERIFY(fifth && sixth && main->child(6) == sixth);
        sixth->session()->ConnectTCP(QStringLiteral("127.0.0.2"));
        sendFrom("127.0.0.2", "r2 while in range");
        QTRY_COMPARE(sixth->logBox()->toPlainText(), QStringLiteral("r2 while in range\n"));

        QPointer<ConsoleWindow> closing = fifth;
        main->frameOf(5)->close();
        QTRY_VERIFY(!closing);
        QCOMPARE(main->windowTable().count, qint16(5));
        sendFrom("127.0.0.2", "r2 above the count");
        sendFrom("127.0.0.1", "r1 after it");
        QTRY_COMPARE(first->logBox()->toPlainText(), QStringLiteral("r1 after it\n"));
        QCOMPARE(sixth->logBox()->toPlainText(), QStringLiteral("r2 while in range\n"));
    }

    // The Add Network dialog offers the folder browser's folders: a folder and
    // a link to it that sorts first are both there.
    void addNetworkOffersEveryFolderName()
    {
        QTemporaryDir shared;
        QVERIFY(QDir(shared.path()).mkpath(QStringLiteral("ios-15")));
        QVERIFY(QFile::link(QStringLiteral("ios-15"), shared.filePath(QStringLiteral("current"))));
        MainWindow *main = startApp(shared.path());
        QStringList offered;
        QTimer::singleShot(0, this, [&offered] {
            QWidget *dialog = QApplication::activeModalWidget();
            QVERIFY(dialog);
            auto *combo = dialog->findChild<QComboBox *>(QStringLiteral("Combo1"));
            for (int i = 0; combo && i < combo->count(); ++i)
                offered << combo->itemText(i);
            dialog->close();
        });
        main->child(WindowTable::networkIndex)
            ->findChild<QAction *>(QStringLiteral("MnuAddNetwork"))
            ->trigger();
        const QString s = shared.path() + '/';
        QCOMPARE(offered, (QStringList { shared.path(), s + "current/", s + "ios-15/", QString() }));
    }

    // The window table and its toolbar after start-up, the click rules, and the close boxes.
    void windowTableToolbarAndCloseBoxes()
    {
        MainWindow *main = startApp();
        QCOMPARE(main->windowTitle(), QStringLiteral("Tarnwick"));
        const QStringList names { "Files", "Network", "Transfer", "Console", "Config" };
        const QList<QAction *> buttons = main->toolbar()->actions();
        QCOMPARE(buttons.size(), 5);
        for (int index = 0; index < names.size(); ++index) {
            ChildWindow *window = main->child(index);
            QVERIFY(window);
            QCOMPARE(main->windowTable().names[index], names[index]);
            QCOMPARE(window->windowTitle(), names[index]);
            QCOMPARE(window->tag(), QString::number(index));
            QCOMPARE(buttons[index]->text(), names[index]);
            QCOMPARE(buttons[index]->data().toInt(), index);
        }
        QCOMPARE(tiledFrames(main).size(), 5);
        verifySideBySide(main);
        QAction *network = main->toolbar()->actions().at(WindowTable::networkIndex);

        network->trigger(); // not active: brought forward
        QCOMPARE(main->mdiArea()->activeSubWindow(), main->frameOf(WindowTable::networkIndex));
        QCOMPARE(main->childState(WindowTable::networkIndex), MainWindow::Normal);

        network->trigger(); // active and normal: maximised
        QCOMPARE(main->childState(WindowTable::networkIndex), MainWindow::Maximised);
        QVERIFY(main->windowTitle() != QStringLiteral("Tarnwick"));

        // While maximised, a resize of the frame does not re-tile the others.
        QMdiSubWindow *transfer = main->frameOf(WindowTable::transferIndex);
        const QRect before = transfer->geometry();
        const QSize area = main->mdiArea()->size();
        main->resize(main->width() + 120, main->height() + 40);
        QTRY_VERIFY(main->mdiArea()->size() != area); // the resize has been handled
        QCOMPARE(transfer->geometry(), before);

        network->trigger(); // active and maximised: back to normal, tiled again
        QCOMPARE(main->childState(WindowTable::networkIndex), MainWindow::Normal);
        QCOMPARE(main->windowTitle(), QStringLiteral("Tarnwick"));
        verifySideBySide(main);

        // A minimised child is shown, focused and restored; clicks never minimise.
        main->frameOf(WindowTable::configIndex)->showMinimized();
        QAction *config = main->toolbar()->actions().at(WindowTable::configIndex);
        config->trigger();
        QCOMPARE(main->childState(WindowTable::configIndex), MainWindow::Normal);
        QCOMPARE(main->mdiArea()->activeSubWindow(), main->frameOf(WindowTable::configIndex));
        verifySideBySide(main);

        // The close box hides a fixed window (the toolbar brings it back) and re-tiles the rest.
        for (int index : { WindowTable::filesIndex, WindowTable::networkIndex, WindowTable::transferIndex,
                 WindowTable::configIndex }) {
            QPointer<ChildWindow> window = main->child(index);
            main->frameOf(index)->close();
            QVERIFY2(window && main->frameOf(index) && main->frameOf(index)->isHidden(),
                qPrintable(QString::number(index)));
        }
        QCOMPARE(tiledFrames(main).size(), 1);
        verifySideBySide(main);
        main->toolbar()->actions().at(WindowTable::networkIndex)->trigger();
        QVERIFY(main->frameOf(WindowTable::networkIndex)->isVisible());
    }

    void consoleLimitAndPlacementByCount()
    {
        MainWindow *main = startApp();
        main->setConsoleFactory([] {
            auto *console = new ChildWindow;
            console->setHideOnClose(false);
            return console;
        });
        for (int expected = 5; expected <= 10; ++expected) {
            ChildWindow *console = main->newConsole();
            QVERIFY(console);
            QCOMPARE(main->windowTable().count, qint16(expected));
            QCOMPARE(main->child(expected), console);
            QCOMPARE(main->windowTable().names[expected], QStringLiteral("Console%1").arg(expected - 3));
            QCOMPARE(console->tag(), QString::number(expected));
        }
        QCOMPARE(main->toolbar()->actions().size(), 11);
        QVERIFY(!main->newConsole());
        QCOMPARE(m_messages, QStringList { QStringLiteral("Thats enough of that!") });
        QCOMPARE(main->windowTable().count, qint16(10));

        // Removing the console at index 7 frees its name and button; the next
        // one goes to the index of the new count (10), overwriting that entry.
        QPointer<ChildWindow> seventh = main->child(7);
        ChildWindow *tenth = main->child(10);
        main->frameOf(7)->close();
        QTRY_VERIFY(!seventh);
        QCOMPARE(main->windowTable().count, qint16(9));
        QVERIFY(main->windowTable().names[7].isEmpty());
        QCOMPARE(main->toolbar()->actions().size(), 10);
        ChildWindow *replacement = main->newConsole();
        QVERIFY(replacement);
        QCOMPARE(main->child(10), replacement);
        QVERIFY(replacement != tenth);
        QCOMPARE(main->windowTable().names[10], QStringLiteral("Console7"));
    }
};

QTEST_MAIN(StartupTest)
#include "tst_startup.moc"
