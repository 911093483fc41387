#include "logrecv/log_options.h"
#include "logrecv/log_receiver.h"
#include "logrecv/log_routes.h"

#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QPlainTextEdit>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QUdpSocket>

#include <memory>

#include <time.h>

namespace {
qint64 threadCpuMs()
{
    timespec now {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}
} // namespace

// The log endpoint with real senders: util-linux `logger` for syslog as
// devices send it, and plain UDP sockets where the exact bytes or a second
// loopback address matter. Consoles are stood in for by bare log views.
class TestLogReceiver : public QObject
{
    Q_OBJECT
private:
    struct Console
    {
        QString tag;
        std::unique_ptr<QPlainTextEdit> logbox = std::make_unique<QPlainTextEdit>();
    };

    QTemporaryDir m_dir;
    std::unique_ptr<LogOptions> m_options;
    std::unique_ptr<LogReceiver> m_receiver;
    std::map<int, Console> m_consoles;
    std::unique_ptr<LogRoutes> m_routes;

    void addConsole(int slot, const QString &tag)
    {
        Console &console = m_consoles[slot];
        console.tag = tag;
        m_routes->setConsole(slot, console.logbox.get(), [&console] { return console.tag; });
    }
    QString shown(int slot) const { return m_consoles.at(slot).logbox->toPlainText(); }

    // Sends one message with logger and waits until the receiver has handled it.
    void logger(const QString &message)
    {
        const QString program = QStandardPaths::findExecutable(QStringLiteral("logger"));
        QVERIFY2(!program.isEmpty(), "logger is missing: install the Debian package bsdutils");
        QSignalSpy handled(m_receiver.get(), &LogReceiver::datagramHandled);
        const int rc = QProcess::execute(program,
            { QStringLiteral("-n"), QStringLiteral("127.0.0.1"), QStringLiteral("-P"),
                QString::number(m_receiver->localPort()), QStringLiteral("-d"), message });
        QCOMPARE(rc, 0);
        QVERIFY(handled.wait(5000));
    }

    // Sends raw bytes from a given loopback address and waits for them.
    void sendFrom(const QString &from, const QByteArray &bytes)
    {
        QUdpSocket socket;
        QVERIFY(socket.bind(QHostAddress(from), 0));
        QSignalSpy handled(m_receiver.get(), &LogReceiver::datagramHandled);
        QCOMPARE(socket.writeDatagram(bytes, QHostAddress::LocalHost, m_receiver->localPort()), bytes.size());
        QVERIFY(handled.wait(5000));
    }

    QStringList logFiles() const { return QDir(m_dir.path()).entryList(QDir::Files, QDir::Name); }
    QByteArray fileFor(const QString &sender) const
    {
        const QStringList names
            = QDir(m_dir.path()).entryList({ sender + QStringLiteral(" *.log") }, QDir::Files);
        if (names.size() != 1)
            return QByteArray("<no single file>");
        QFile file(m_dir.filePath(names.constFirst()));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
    }

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_dir.isValid());
        QDir(m_dir.path()).removeRecursively();
        QDir().mkpath(m_dir.path());
        m_options = std::make_unique<LogOptions>();
        m_options->setFolder(m_dir.path());
        m_receiver = std::make_unique<LogReceiver>(m_options.get());
        m_routes = std::make_unique<LogRoutes>();
        m_routes->attach(*m_receiver);
        QVERIFY2(m_receiver->bind(0, QHostAddress::LocalHost), qPrintable(m_receiver->errorString()));
        m_consoles.clear();
    }

    void routing_data()
    {
        QTest::addColumn<QList<int>>("consoleSlots");
        QTest::addColumn<QStringList>("tags");
        QTest::addColumn<int>("expectedSlot"); // 0: dropped
        QTest::newRow("right console") << QList<int> { 3, 4 } << QStringList { "10.0.0.1", "127.0.0.1" } << 4;
        QTest::newRow("unknown sender")
            << QList<int> { 3, 4 } << QStringList { "10.0.0.1", "127.0.0.10" } << 0;
        QTest::newRow("first in slot order wins")
            << QList<int> { 7, 5, 3 } << QStringList { "127.0.0.1", "127.0.0.1", "10.9.9.9" } << 5;
        QTest::newRow("untagged console") << QList<int> { 3 } << QStringList { "" } << 0;
    }
    void routing()
    {
        QFETCH(QList<int>, consoleSlots);
        QFETCH(QStringList, tags);
        QFETCH(int, expectedSlot);
        for (int i = 0; i < consoleSlots.size(); ++i)
            addConsole(consoleSlots.at(i), tags.at(i));
        m_options->setLogToFile(true);

        logger(QStringLiteral("%LINK-3-UPDOWN: Interface Gi0/1, changed state to up"));

        for (const auto &[slot, console] : m_consoles) {
            const bool got = console.logbox->toPlainText().contains(QStringLiteral("changed state to up"));
            QVERIFY2(got == (slot == expectedSlot), qPrintable(QString::number(slot)));
        }
        QCOMPARE(m_receiver->counters().delivered, quint64(expectedSlot ? 1 : 0));
        // A dropped datagram leaves no file either.
        QCOMPARE(logFiles().size(), expectedSlot ? 1 : 0);
    }

    // The view shows exactly what arrived plus CR LF; the file gets the same
    // bytes followed by CR CR LF, one record per datagram, per sender and day.
    void viewAndFile()
    {
        addConsole(3, QStringLiteral("127.0.0.1"));
        addConsole(4, QStringLiteral("127.0.0.2"));
        m_options->setLogToFile(true);

        logger(QStringLiteral("first from logger"));
        logger(QStringLiteral("second from logger"));
        const QByteArray raw = "<189>42: *Mar  1 00:01:02: %SYS-5-CONFIG_I: Configured from console";
        sendFrom(QStringLiteral("127.0.0.2"), raw);

        const QStringList lines = shown(3).split(QLatin1Char('\n'));
        QCOMPARE(lines.size(), 3); // two records and the empty line after the last CR LF
        QVERIFY(lines.at(0).endsWith(QStringLiteral("first from logger")));
        QVERIFY(lines.at(1).endsWith(QStringLiteral("second from logger")));
        QCOMPARE(shown(4), QString::fromLatin1(raw) + QLatin1Char('\n'));

        const QByteArray expected = lines.at(0).toUtf8() + "\r\r\n" + lines.at(1).toUtf8() + "\r\r\n";
        QCOMPARE(fileFor(QStringLiteral("127.0.0.1")), expected);
        QCOMPARE(fileFor(QStringLiteral("127.0.0.2")), raw + "\r\r\n");
        for (const QString &name : logFiles())
            QVERIFY2(
                name.endsWith(QStringLiteral(".log")) && !name.contains(QLatin1Char('/')), qPrintable(name));

        // "Clear Log" empties the view only; with the switch off nothing more is written.
        m_consoles.at(3).logbox->clear();
        m_options->setLogToFile(false);
        logger(QStringLiteral("third, view only"));
        QCOMPARE(fileFor(QStringLiteral("127.0.0.1")), expected);
        QVERIFY(shown(3).contains(QStringLiteral("third, view only")));
        QVERIFY(!shown(3).contains(QStringLiteral("first")));
    }

    void fileName_data()
    {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QString>("name");
        QTest::newRow("day first") << "en_GB"
                                   << "10.1.1.1 26-05-2024.log";
        QTest::newRow("month first") << "en_US"
                                     << "10.1.1.1 5-26-24.log";
        QTest::newRow("dots stay") << "de_DE"
                                   << "10.1.1.1 26.05.24.log";
    }
    void fileName()
    {
        QFETCH(QString, locale);
        QFETCH(QString, name);
        QCOMPARE(
            LogReceiver::logFileName(QStringLiteral("10.1.1.1"), QDate(2024, 5, 26), QLocale(locale)), name);
    }

    // Sizes and bytes syslog peers have choked on: each is shown and written
    // byte for byte, and nothing that arrived is lost.
    void awkwardDatagrams_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("one byte") << QByteArray("x");
        QTest::newRow("1024 bytes") << QByteArray(1024, 'a');
        QTest::newRow("largest datagram") << QByteArray(65507, 'b');
        QTest::newRow("nul bytes") << QByteArray("a\0b\0", 4);
        QTest::newRow("invalid UTF-8") << QByteArray("caf\xe9 \xff\xfe");
        QTest::newRow("embedded line ends") << QByteArray("one\r\ntwo\rthree\n");
        QTest::newRow("RTF and ANSI control text") << QByteArray("{\\rtf1 \\b x}\x1b[31mred\x1b[0m");
    }
    void awkwardDatagrams()
    {
        QFETCH(QByteArray, bytes);
        addConsole(3, QStringLiteral("127.0.0.1"));
        m_options->setLogToFile(true);
        sendFrom(QStringLiteral("127.0.0.1"), bytes);
        QCOMPARE(m_receiver->counters().delivered, quint64(1));
        QCOMPARE(fileFor(QStringLiteral("127.0.0.1")), bytes + "\r\r\n");
        QVERIFY(shown(3).endsWith(QLatin1Char('\n')));
    }

    // A missing folder is made; one that cannot exist costs only the file.
    void unwritableFolder()
    {
        addConsole(3, QStringLiteral("127.0.0.1"));
        m_options->setLogToFile(true);
        m_options->setFolder(m_dir.filePath(QStringLiteral("new/deeper")));
        sendFrom(QStringLiteral("127.0.0.1"), "made the folder");
        QCOMPARE(m_receiver->counters().written, quint64(1));

        QFile blocker(m_dir.filePath(QStringLiteral("plainfile")));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
        blocker.close();
        m_options->setFolder(blocker.fileName() + QStringLiteral("/sub"));
        sendFrom(QStringLiteral("127.0.0.1"), "view keeps this");
        QCOMPARE(m_receiver->counters().writeFailures, quint64(1));
        QVERIFY(shown(3).contains(QStringLiteral("view keeps this")));
    }

    void bindFailure()
    {
        LogReceiver second(m_options.get());
        QVERIFY(!second.bind(m_receiver->localPort(), QHostAddress::LocalHost));
        QVERIFY(!second.errorString().isEmpty());
    }

    // 10,000 messages at 10,000 a second from another process into a shown
    // log view: every one is shown and written, and the event loop never
    // stalls long enough for a user to notice.
    void flood()
    {
        QPlainTextEdit *view = nullptr;
        addConsole(3, QStringLiteral("127.0.0.1"));
        view = m_consoles.at(3).logbox.get();
        // Fonts are loaded on the first paint: a one-off cost paid before the flood.
        view->show();
        QVERIFY(QTest::qWaitForWindowExposed(view));
        tw::appendToLogbox(view, QStringLiteral("warm-up"));
        view->repaint();
        view->clear();
        m_options->setLogToFile(true);

        QProcess sender;
        sender.setProgram(QStringLiteral(TW_FLOOD_SENDER));
        sender.setArguments({ QStringLiteral("127.0.0.1"), QString::number(m_receiver->localPort()),
            QStringLiteral("10000"), QStringLiteral("10000") });
        // Responsiveness is the processor time this thread spends between two
        // turns of the event loop: wall-clock gaps on a loaded machine measure
        // the scheduler, not us.
        QElapsedTimer clock;
        qint64 longestGap = 0;
        QTimer ticker;
        ticker.setInterval(5);
        qint64 last = threadCpuMs();
        connect(&ticker, &QTimer::timeout, this, [&] {
            const qint64 now = threadCpuMs();
            longestGap = qMax(longestGap, now - last);
            last = now;
        });
        clock.start();
        ticker.start();
        sender.start();
        QVERIFY2(sender.waitForStarted(), "flood sender missing");
        last = threadCpuMs(); // starting the sender is not the receiver's stall
        // A real event loop (not QTest's sleeping wait) so the view and the
        // socket are served exactly as in the program.
        QEventLoop loop;
        QTimer check;
        check.setInterval(20);
        connect(&check, &QTimer::timeout, &loop, [&] {
            if (m_receiver->counters().received >= 10000 || clock.elapsed() > 30000)
                loop.quit();
        });
        check.start();
        loop.exec();
        QCOMPARE(m_receiver->counters().received, quint64(10000));
        sender.waitForFinished();
        QCOMPARE(m_receiver->counters().written, quint64(10000));
        QCOMPARE(view->document()->blockCount(), 10001);
        QVERIFY2(longestGap < 50, qPrintable(QStringLiteral("event loop busy for %1 ms").arg(longestGap)));
        qInfo("receive buffer %d bytes, longest busy stretch %lld ms of processor time",
            m_receiver->receiveBufferSize(), longestGap);
    }
};

QTEST_MAIN(TestLogReceiver)
#include "tst_log_receiver.moc"
