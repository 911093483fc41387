#include "logrecv/log_options.h"
#include "logrecv/log_page.h"
#include "logrecv/log_receiver.h"
#include "logrecv/log_routes.h"
#include "test_support.h"
#include "util/mc_popup_menu.h"
#include "util/message_box.h"

#include <QtNetwork>
#include <QtTest>
#include <QtWidgets>

#include <ctime>

struct Console
{
    LogOptions *options;
    QWidget window {};
    QPlainTextEdit *logbox = new QPlainTextEdit(&window);
    QCheckBox *check1 = new QCheckBox(QStringLiteral("Log To File"), &window);
    QPushButton *command7 = new QPushButton(QStringLiteral("Choose Path"), &window);
    QLabel *label16 = new QLabel(&window);
    LogPage *page = tw::attachLogPage(logbox, check1, command7, label16, options);
    void select(const QString &text) { logbox->setTextCursor(logbox->document()->find(text)); }
};

// The log endpoint fed by real senders, and the log page of each console.
class TestLogrecv : public QObject
{
    Q_OBJECT
    std::optional<QTemporaryDir> m_dir;
    std::unique_ptr<LogOptions> m_options;
    std::unique_ptr<LogReceiver> m_receiver;
    std::unique_ptr<LogRoutes> m_routes;
    std::map<int, std::unique_ptr<Console>> m_consoles;
    QStringList m_messages;
    QStringList m_titles;
    QString m_answer;

    void addConsole(int slot, const QString &tag)
    {
        m_consoles[slot] = std::make_unique<Console>(m_options.get());
        m_routes->setConsole(slot, m_consoles[slot]->logbox, [tag] { return tag; });
    }
    QString shown(int slot) const { return m_consoles.at(slot)->logbox->toPlainText(); }

    // Sends with logger, or the raw bytes from a loopback address, and waits until handled.
    void send(const QByteArray &bytes, const QString &from = {})
    {
        QSignalSpy handled(m_receiver.get(), &LogReceiver::datagramHandled);
        const QString port = QString::number(m_receiver->localPort());
        if (from.isEmpty()) {
            QCOMPARE(
                QProcess::execute(QStringLiteral("logger"), { "-n", "127.0.0.1", "-P", port, "-d", bytes }),
                0);
        } else {
            QUdpSocket socket;
            QVERIFY(socket.bind(QHostAddress(from), 0));
            QCOMPARE(socket.writeDatagram(bytes, QHostAddress::LocalHost, port.toUShort()), bytes.size());
        }
        QVERIFY(handled.wait(30000));
    }

    QByteArray fileFor(const QString &sender) const
    {
        const QStringList names = QDir(m_dir->path()).entryList({ sender + " *.log" }, QDir::Files);
        return names.size() == 1 ? tw::test::readFile(m_dir->filePath(names[0])) : "<no single file>";
    }

private Q_SLOTS:
    void init()
    {
        tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_messages << text; });
        LogPage::setFolderPicker([this](QWidget *, const QString &title, const QString &) {
            return (m_titles << title, m_answer);
        });
        m_consoles.clear();
        m_messages.clear();
        m_dir.emplace(); // a fresh, empty log folder
        m_options = std::make_unique<LogOptions>();
        m_options->setFolder(m_dir->path());
        m_options->setLogToFile(true);
        m_receiver = std::make_unique<LogReceiver>(m_options.get());
        m_routes = std::make_unique<LogRoutes>();
        m_routes->attach(*m_receiver);
        QVERIFY2(m_receiver->bind(0, QHostAddress::LocalHost), qPrintable(m_receiver->errorString()));
    }
    void cleanup() { mcPopupMenu::setExecHook({}); }

    // Each datagram goes to the first console in slot order that carries the sender's address, or nowhere.
    // The view shows exactly what arrived plus CR LF; the file the same bytes and CR CR LF, per sender and
    // day.
    void routingViewAndFile()
    {
        addConsole(5, QStringLiteral("127.0.0.1"));
        addConsole(3, QStringLiteral("127.0.0.1"));
        addConsole(4, QStringLiteral("127.0.0.2"));
        addConsole(6, QString());
        send("nobody's", QStringLiteral("127.0.0.3"));
        QCOMPARE(m_receiver->counters().dropped, quint64(1));
        send("first from logger");
        send("second from logger");
        const QStringList lines = shown(3).split(QLatin1Char('\n'));
        QCOMPARE(lines.size(), 3); // two records and the empty line after the last CR LF
        QVERIFY(lines.at(0).endsWith("first from logger") && lines.at(1).endsWith("second from logger"));
        const QByteArray expected = lines.at(0).toUtf8() + "\r\r\n" + lines.at(1).toUtf8() + "\r\r\n";
        QCOMPARE(fileFor("127.0.0.1"), expected);

        // Sizes and bytes syslog peers have choked on, each kept byte for byte.
        QByteArray written;
        for (const QByteArray &bytes : { QByteArray("<189>42: %SYS-5-CONFIG_I: Configured"), QByteArray(),
                 QByteArray(65507, 'b'), QByteArray("a\0b\0", 4), QByteArray("caf\xe9 \xff\xfe"),
                 QByteArray("one\r\ntwo\rthree\n") }) {
            send(bytes, QStringLiteral("127.0.0.2"));
            written += bytes + "\r\r\n";
        }
        QCOMPARE(m_receiver->counters().delivered, quint64(8));
        QCOMPARE(fileFor("127.0.0.2"), written);
        QVERIFY(shown(4).startsWith("<189>42: %SYS-5-CONFIG_I: Configured\n\n"));
        QVERIFY(shown(5).isEmpty() && shown(6).isEmpty());
        QCOMPARE(QDir(m_dir->path()).entryList(QDir::Files).size(), 2); // none for the dropped one

        // An emptied view takes the next line alone; with the switch off nothing more is written.
        m_consoles.at(3)->logbox->clear();
        m_options->setLogToFile(false);
        send("third, view only");
        QCOMPARE(fileFor("127.0.0.1"), expected);
        QVERIFY(shown(3).endsWith("third, view only\n") && shown(3).count('\n') == 1);

        for (const auto &[locale, name] :
            { std::pair { "en_GB", "26-05-2024" }, { "en_US", "5-26-24" }, { "de_DE", "26.05.24" } })
            QCOMPARE(
                LogReceiver::logFileName("127.0.0.5", QDate(2024, 5, 26), QLocale(QLatin1String(locale))),
                QStringLiteral("127.0.0.5 %1.log").arg(QLatin1String(name)));

        // A missing folder is made; one that cannot exist costs only the file. A taken port is refused.
        m_options->setLogToFile(true);
        m_options->setFolder(m_dir->filePath(QStringLiteral("new/deeper")));
        send("made the folder", QStringLiteral("127.0.0.1"));
        QCOMPARE(m_receiver->counters().written, quint64(9));
        QFile blocker(m_dir->filePath(QStringLiteral("plainfile")));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        m_options->setFolder(blocker.fileName() + QStringLiteral("/sub"));
        send("view keeps this", QStringLiteral("127.0.0.1"));
        QCOMPARE(m_receiver->counters().writeFailures, quint64(1));
        QVERIFY(shown(3).endsWith("view only\nmade the folder\nview keeps this\n"));

        LogReceiver second(m_options.get());
        QVERIFY(!second.bind(m_receiver->localPort(), QHostAddress::LocalHost)
            && !second.errorString().isEmpty());
    }

    // 10,000 messages at 10,000 a second from another process into a shown log view: every one
    // is shown and written, and the event loop keeps turning: between two of its turns the receiver
    // takes at most one bounded batch, however fast or slow the machine. (The longest stall in
    // processor time is printed for information; it depends on the machine.)
    void flood()
    {
        addConsole(3, QStringLiteral("127.0.0.1"));
        QPlainTextEdit *view = m_consoles.at(3)->logbox;
        // Fonts are loaded on the first paint: a one-off cost paid before the flood.
        m_consoles.at(3)->window.show();
        QVERIFY(QTest::qWaitForWindowExposed(view));
        tw::appendToLogbox(view, QStringLiteral("warm-up"));
        view->repaint();
        view->clear();

        // Stalls in processor time: wall-clock gaps on a loaded machine measure the scheduler.
        const auto cpuMs = [] { return qint64(std::clock()) * 1000 / CLOCKS_PER_SEC; };
        QProcess sender;
        sender.start(
            TW_FLOOD_SENDER, { "127.0.0.1", QString::number(m_receiver->localPort()), "10000", "10000" });
        QVERIFY2(sender.waitForStarted(), "flood sender missing");
        // A real event loop (not QTest's sleeping wait), served exactly as in the program. A zero
        // timer runs once per turn of the loop.
        QEventLoop loop;
        QTimer ticker;
        qint64 longestGap = 0, last = cpuMs(); // starting the sender is not the receiver's stall
        quint64 largestTurn = 0, before = 0;
        connect(&ticker, &QTimer::timeout, &loop, [&] {
            longestGap = qMax(longestGap, cpuMs() - std::exchange(last, cpuMs()));
            const quint64 received = m_receiver->counters().received;
            largestTurn = qMax(largestTurn, received - std::exchange(before, received));
            if (received >= 10000)
                loop.quit();
        });
        ticker.start(0);
        QTimer::singleShot(30000, &loop, &QEventLoop::quit);
        loop.exec();
        sender.waitForFinished();
        QCOMPARE(m_receiver->counters().received, quint64(10000));
        QCOMPARE(m_receiver->counters().written, quint64(10000));
        QCOMPARE(view->document()->blockCount(), 10001);
        qInfo("longest event-loop stall: %lld ms of processor time; most datagrams in one turn: %llu",
            longestGap, largestTurn);
        QVERIFY(largestTurn <= quint64(LogReceiver::batchLimit));
    }

    // "Log To File" and the folder are program-wide; a cancelled picker changes nothing. The popup's "Copy"
    // copies the selection; "Find" selects the next match after the caret, ignoring case, wrapping once;
    // "IP>Hostname" puts the name in place of the selected address, or shows the resolver's message.
    void consoleControls()
    {
        Console first(m_options.get()), console(m_options.get());
        QVERIFY(first.check1->isChecked() && first.label16->text() == m_dir->path());
        first.window.show();
        QTest::mouseClick(first.check1, Qt::LeftButton);
        QVERIFY(!m_options->logToFile() && !console.check1->isChecked());
        m_answer = QStringLiteral("/var/log/devices");
        QTest::mouseClick(console.command7, Qt::LeftButton);
        m_answer.clear();
        QTest::mouseClick(first.command7, Qt::LeftButton);
        QCOMPARE(m_titles, QStringList(2, QStringLiteral("Choose folder to store log files")));
        QVERIFY(m_options->folder() == "/var/log/devices" && first.label16->text() == "/var/log/devices");
        m_options->useLogDir(
            QStringLiteral("/tmp/run-logs")); // --log-dir: the folder for the run, switched on
        QVERIFY(first.check1->isChecked() && console.check1->isChecked()
            && console.label16->text() == "/tmp/run-logs");

        console.logbox->setPlainText(QStringLiteral("%LINK-3-UPDOWN up\n%LINEPROTO link down 127.0.0.1\n"));
        console.select(QStringLiteral("UPDOWN up"));
        QStringList offered;
        mcPopupMenu::setExecHook([&offered](QMenu *menu, const QPoint &) -> QAction * {
            for (QAction *action : menu->actions())
                offered << action->text();
            return menu->actions().value(0);
        });
        console.page->showPopup(QPoint(10, 10));
        QCOMPARE(offered, (QStringList { "Copy", "Find", "IP>Hostname" }));
        QCOMPARE(QApplication::clipboard()->text(), QStringLiteral("UPDOWN up"));
        // Caret, text, where the match starts (-1: not found); "link" meets "%LINK" first.
        for (const auto &[startAt, what, foundAt] : std::initializer_list<std::tuple<int, QString, int>> {
                 { 0, "link", 1 }, { 7, "link", 29 }, { 40, "link", 1 }, { 0, "bgp", -1 } }) {
            QTextCursor caret(console.logbox->document());
            caret.setPosition(startAt);
            console.logbox->setTextCursor(caret);
            LogPage::setFindPrompt([what = what](QWidget *, const QString &) { return what; });
            console.page->runPopupItem(LogPage::PopupFind);
            const QTextCursor found = console.logbox->textCursor();
            QVERIFY2(foundAt < 0 ? m_messages.size() == 1 && m_messages.constFirst().contains(what)
                                 : found.selectionStart() == foundAt
                        && found.selectedText().toLower() == what.toLower() && m_messages.isEmpty(),
                qPrintable(what + QString::number(startAt)));
        }
        m_messages.clear();
        console.select(QStringLiteral("down"));
        console.page->runPopupItem(LogPage::PopupHostName);
        console.select(QStringLiteral("127.0.0.1"));
        console.page->runPopupItem(LogPage::PopupHostName);
        QCOMPARE(console.logbox->toPlainText(),
            QStringLiteral("%LINK-3-UPDOWN up\n%LINEPROTO link down localhost\n"));
        QCOMPARE(m_messages, QStringList { QStringLiteral("Invalid IP address") });
    }
};

QTEST_MAIN(TestLogrecv)
#include "tst_logrecv.moc"
