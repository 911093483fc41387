#include "console/connection_history.h"
#include "snmp/snmp_credentials.h"
#include "snmp/snmp_monitor.h"
#include "snmp/snmp_page.h"
#include "snmp/snmp_poller.h"
#include "test_support.h"
#include "util/message_box.h"

#include <QtNetwork>
#include <QtTest>
#include <QtWidgets>

// The v2c and v3 monitor against net-snmp's own agent on a loopback port, with a private configuration: a
// community, and v3 users at each security level.
class TestSnmpAgent : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void v2cWalkAndRates();
    void classicPoller();
    void v3LevelsAndErrors();
    void countersWrapAndRestart();
    void closeWhileWaiting();
    void pageWithoutKeyring();
    void namedDevicesPruned();

private:
    bool startAgent() { return startAgent(m_agent, m_dir.filePath("snmpd.conf"), m_port); }
    static bool startAgent(QProcess &agent, const QString &conf, quint16 port, const QStringList &more = {});
    void stopAgent();
    SnmpTarget target(const QString &user = QString()) const;

    QTemporaryDir m_dir;
    QProcess m_agent;
    quint16 m_port = 0;
};

bool TestSnmpAgent::startAgent(QProcess &agent, const QString &conf, quint16 port, const QStringList &more)
{
    const QString snmpd = QStandardPaths::findExecutable(QStringLiteral("snmpd"), { "/usr/sbin" });
    if (snmpd.isEmpty())
        return false;
    agent.setProcessChannelMode(QProcess::MergedChannels);
    agent.start(snmpd,
        QStringList { "-f", "-Lo", "-C", "-c", conf, "-u", "root" } + more
            + QStringList { QStringLiteral("udp:127.0.0.1:%1").arg(port) });
    if (!agent.waitForStarted()) {
        qWarning() << "snmpd did not start:" << agent.errorString();
        return false;
    }
    // Ready once it answers: a v2c GetRequest to our own monitor's worker would do, snmpget is simpler.
    for (int i = 0; i < 100; ++i) {
        QProcess get;
        get.start(QStringLiteral("snmpget"),
            { "-v2c", "-c", "tarnwick", "-t", "1", "-r", "0", "-Oqv",
                QStringLiteral("127.0.0.1:%1").arg(port), "1.3.6.1.2.1.1.3.0" });
        if (get.waitForFinished(10000) && get.exitCode() == 0)
            return true;
        if (agent.state() != QProcess::Running) {
            qWarning() << "snmpd ended:" << agent.readAll();
            return false;
        }
    }
    return false;
}

void TestSnmpAgent::stopAgent()
{
    m_agent.terminate();
    m_agent.waitForFinished(10000);
}

void TestSnmpAgent::initTestCase()
{
    QVERIFY2(!QStandardPaths::findExecutable(QStringLiteral("snmpget")).isEmpty(),
        "install Debian's snmp and snmpd");
    // The agent writes its persistent state at exit into a snmpd.conf of its own: not over ours.
    QVERIFY(QDir(m_dir.path()).mkpath(QStringLiteral("persist")));
    for (const char *name : { "MIBDIRS", "SNMPCONFPATH" })
        qputenv(name, QFile::encodeName(m_dir.path()));
    qputenv("SNMP_PERSISTENT_DIR", QFile::encodeName(m_dir.filePath(QStringLiteral("persist"))));
    qputenv("MIBS", "");
    m_port = tw::test::freeUdpPort();
    QVERIFY(tw::test::writeFile(m_dir.filePath("snmpd.conf"),
        "rocommunity tarnwick 127.0.0.1\n"
        "createUser tw-authpriv SHA-256 auth-secret-1 AES priv-secret-1\n"
        "createUser tw-auth SHA auth-secret-2\n"
        "createUser tw-noauth\n"
        "rouser tw-authpriv priv\n"
        "rouser tw-auth auth\n"
        "rouser tw-noauth noauth\n"));
    QVERIFY2(startAgent(), m_agent.readAll());
    SnmpPoller::setAgentPort(m_port);
}

void TestSnmpAgent::cleanupTestCase()
{
    stopAgent();
    // Every monitor's worker thread has ended by itself.
    QTRY_COMPARE_WITH_TIMEOUT(SnmpMonitor::workersRunning(), 0, 60000);
}

SnmpTarget TestSnmpAgent::target(const QString &user) const
{
    SnmpTarget t;
    t.version = user.isEmpty() ? 2 : 3;
    t.community = QStringLiteral("tarnwick");
    t.user = user;
    t.timeoutMs = 1000;
    t.tries = 2;
    return t;
}

static QString sysNet(const QString &name, const char *file)
{
    QFile f(QStringLiteral("/sys/class/net/%1/%2").arg(name, QLatin1String(file)));
    return f.open(QIODevice::ReadOnly) ? QString::fromLatin1(f.readAll()).trimmed() : QString();
}

// The GetBulk walk finds the kernel's interfaces by index and name; traffic pushed through loopback shows
// as a rate on the loopback row and in its history.
void TestSnmpAgent::v2cWalkAndRates()
{
    SnmpMonitor monitor([] { return QStringLiteral("127.0.0.1"); });
    monitor.setTarget(target());
    monitor.setIntervalMs(1000);
    monitor.start();
    QTRY_VERIFY_WITH_TIMEOUT(monitor.state().startsWith(QLatin1String("OK ")), 30000);
    QMap<int, QString> shown, kernel;
    QStandardItemModel *t = monitor.table();
    for (int row = 0; row < t->rowCount(); ++row)
        shown.insert(monitor.interfaceAt(row), t->item(row, SnmpMonitor::NameColumn)->text());
    for (const QString &name :
        QDir(QStringLiteral("/sys/class/net")).entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        kernel.insert(sysNet(name, "ifindex").toInt(), name);
    QCOMPARE(shown, kernel);

    const int lo = kernel.key(QStringLiteral("lo"));
    QVERIFY(lo > 0);
    QUdpSocket sink;
    QVERIFY(sink.bind(QHostAddress::LocalHost, 0));
    connect(&sink, &QUdpSocket::readyRead, &sink, [&sink] {
        while (sink.hasPendingDatagrams())
            sink.receiveDatagram();
    });
    QUdpSocket source;
    QTimer push;
    connect(&push, &QTimer::timeout, &source, [&] {
        for (int i = 0; i < 20; ++i)
            source.writeDatagram(QByteArray(60000, 'x'), QHostAddress::LocalHost, sink.localPort());
    });
    push.start(5);
    // Pushing ~1.2 MB per tick: well above anything the polling itself sends.
    QTRY_VERIFY_WITH_TIMEOUT(
        monitor.inRate(lo).value_or(0) > 10e6 && monitor.outRate(lo).value_or(0) > 10e6, 60000);
    QVERIFY(!monitor.history(lo).isEmpty());
    push.stop();

    // However wrong the expected row count, a walk that needs several requests per column finds the
    // same instances as one without it.
    SnmpTarget direct = target();
    direct.host = QStringLiteral("127.0.0.1");
    direct.port = m_port;
    AgentSession session(direct);
    const QList<Oid> columns { { 1, 3, 6, 1, 2, 1, 2, 2, 1, 1 }, { 1, 3, 6, 1, 2, 1, 2, 2, 1, 2 },
        { 1, 3, 6, 1, 2, 1, 2, 2, 1, 8 }, { 1, 3, 6, 1, 2, 1, 31, 1, 1, 1, 1 } };
    const auto walk = [&](int expectedRows) {
        QList<QList<SnmpValue>> values;
        QStringList names;
        if (!session.bulkWalk(columns, int(columns.size()), values, expectedRows))
            return QStringList { session.error() };
        for (const auto &column : values)
            for (const SnmpValue &v : column)
                names.append(oidText(v.oid));
        return names;
    };
    const QStringList all = walk(0);
    QCOMPARE(all.size(), kernel.size() * columns.size());
    for (const int rows : { int(kernel.size()), 1, int(kernel.size()) - 1, int(kernel.size()) + 1, 1000 })
        QCOMPARE(walk(rows), all);
}

// The classic poller (v1, a request at a time, junk arriving between the answers) shows what the
// agent's own tool and the kernel say: rows of interface index, name, MTU, speed and physical address.
void TestSnmpAgent::classicPoller()
{
    const QString address = QStringLiteral("127.0.0.1:%1").arg(m_port);
    const auto get = [&](const QString &oid) {
        QProcess p;
        p.start(QStringLiteral("snmpget"),
            { "-v1", "-c", "tarnwick", "-Oqv", "-t", "1", "-r", "1", address, oid });
        p.waitForFinished(30000);
        return p.exitCode() == 0 ? QString::fromLatin1(p.readAllStandardOutput()).trimmed() : QString();
    };
    // Asked before polling starts.
    const int count = get(QStringLiteral("1.3.6.1.2.1.2.1.0")).toInt();
    QList<QStringList> expected;
    for (const QString &name :
        QDir(QStringLiteral("/sys/class/net")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const int index = sysNet(name, "ifindex").toInt();
        if (index < 1 || index > count + 5)
            continue; // interfaces numbered beyond the list are not shown
        const QString mac = sysNet(name, "address").toUpper().replace(QLatin1Char(':'), QLatin1Char('#'));
        expected.append({ QString::number(index), name, sysNet(name, "mtu"),
            get(QStringLiteral("1.3.6.1.2.1.2.2.1.5.%1").arg(index)),
            mac == QLatin1String("00#00#00#00#00#00") ? QString() : mac });
    }
    QVERIFY(!expected.isEmpty());

    SnmpPoller poller([] { return QStringLiteral("127.0.0.1"); });
    poller.setCommunity(QStringLiteral("tarnwick"));
    poller.setStepInterval(5);
    QTimer junkTimer;
    connect(&junkTimer, &QTimer::timeout, this, [&] {
        QUdpSocket().writeDatagram(
            tw::test::junk(*QRandomGenerator::global(), 200), QHostAddress::LocalHost, poller.localPort());
    });
    junkTimer.start(2);

    // The walk has no end signal (the state simply stays "Waiting"): wait until the tab shows it all,
    // however long the agent takes. The first difference is what a failure reports.
    QStandardItemModel *m = poller.statistics();
    const auto firstDifference = [&]() -> QString {
        if (poller.interfacesText() != QString::number(count) || m->rowCount() != count + 5)
            return "interfaces " + poller.interfacesText() + ", rows " + QString::number(m->rowCount());
        for (const QStringList &row : expected) {
            const int r = row.at(0).toInt() - 1;
            const QStringList shown { row.at(0), m->item(r, 0)->text(), m->item(r, 2)->text(),
                m->item(r, 3)->text(), m->item(r, 4)->text() };
            if (shown != row)
                return shown.join(" | ") + " instead of " + row.join(" | ");
        }
        return QString();
    };
    poller.start();
    QTRY_COMPARE_WITH_TIMEOUT(firstDifference(), QString(), 20000);

    // All came back for our 256-byte datagrams; the agent's noSuchName for CPU load is shown as a value.
    QTRY_COMPARE(poller.cpuText(), QStringLiteral("0 %"));
    QVERIFY2(poller.uptimeText().endsWith(QLatin1String(" minutes")), qPrintable(poller.uptimeText()));
    QTRY_COMPARE(poller.state(), QStringLiteral("Waiting"));
}

// Each security level polls; a wrong privacy password and an unknown user are told in words. (The
// page's test polls with authentication and privacy, after a wrong authentication password.)
void TestSnmpAgent::v3LevelsAndErrors()
{
    SnmpMonitor monitor([] { return QStringLiteral("127.0.0.1"); });
    monitor.setIntervalMs(1000);
    using L = SnmpTarget::Level;
    using A = SnmpTarget::Auth;
    // User, level, authentication, its password, the privacy password, what the state starts with.
    for (const auto &[user, level, auth, authPassword, privPassword, state] :
        std::initializer_list<std::tuple<QString, L, A, QString, QString, QString>> {
            { "tw-noauth", L::NoAuthNoPriv, A::Sha1, "", "", "OK " },
            { "tw-authpriv", L::AuthPriv, A::Sha256, "auth-secret-1", "wrong-secret", "Decryption error" },
            { "tw-nobody", L::AuthNoPriv, A::Sha1, "auth-secret-2", "", "Unknown user name \"tw-nobody\"" },
            { "tw-auth", L::AuthNoPriv, A::Sha1, "auth-secret-2", "", "OK " } }) {
        SnmpTarget t = target(user);
        t.level = level;
        t.auth = auth;
        t.priv = SnmpTarget::Priv::Aes128;
        t.authPassword = authPassword;
        t.privPassword = privPassword;
        monitor.setTarget(t);
        monitor.start();
        QTRY_VERIFY2_WITH_TIMEOUT(
            monitor.state().startsWith(state), qPrintable(user + ": " + monitor.state()), 30000);
        QVERIFY(state != QLatin1String("OK ") || monitor.table()->rowCount() > 0);
    }
    // An agent that stops answering shows as such after the time-out and tries; polling carries on and
    // picks up again once it is back.
    stopAgent();
    QTRY_COMPARE_WITH_TIMEOUT(monitor.state(), QStringLiteral("No response from 127.0.0.1 (2 tries)"), 30000);
    QVERIFY2(startAgent(), m_agent.readAll());
    QTRY_VERIFY_WITH_TIMEOUT(monitor.state().startsWith(QLatin1String("OK ")), 60000);
    QVERIFY(monitor.isRunning());
}

// Counters the agent serves through a script the test steers: a 32-bit counter that wraps, a Counter64 just
// below 2^64, the device restarting (sysUpTime back near zero), a 32-bit jump beyond the link and a cleared
// Counter64. Each rate is the exact traffic or none: never negative or absurd.
void TestSnmpAgent::countersWrapAndRestart()
{
    const QString script = QStringLiteral(TW_SOURCE_DIR "/tests/snmp/data/counters_agent.py");
    const QString state = m_dir.filePath(QStringLiteral("counters"));
    const QString conf = m_dir.filePath(QStringLiteral("counters.conf"));
    QByteArray lines = "rocommunity tarnwick 127.0.0.1\n";
    for (const char *subtree : { ".1.3.6.1.2.1.1.3", ".1.3.6.1.2.1.2.2", ".1.3.6.1.2.1.31.1.1" })
        lines += QStringLiteral("pass_persist %1 %2 %3 %1\n")
                     .arg(QLatin1String(subtree), script, state)
                     .toUtf8();
    QVERIFY(tw::test::writeFile(conf, lines));
    QProcess agent;
    const quint16 port = tw::test::freeUdpPort();
    // The agent's own uptime and interface modules stay out: the script's figures are the ones polled.
    QVERIFY2(
        startAgent(agent, conf, port, { "-I", "-system_mib,ifTable,ifXTable,interfaces" }), agent.readAll());
    const auto stop = qScopeGuard([&agent] {
        agent.terminate();
        agent.waitForFinished(10000);
    });

    SnmpWorker worker;
    PollResult polled;
    connect(&worker, &SnmpWorker::polled, this, [&polled](const PollResult &r) { polled = r; });
    SnmpMonitor monitor([] { return QString(); });
    SnmpTarget t = target();
    t.host = QStringLiteral("127.0.0.1");
    t.port = port;
    t.timeoutMs = 20000; // the script answers through a Python process: slow to start on a busy machine
    constexpr quint64 top = std::numeric_limits<quint64>::max();
    constexpr double none = -1;
    struct Step
    {
        quint32 uptime;
        quint64 octets32, octets64;
        double bps32, bps64; // interface 1 (32-bit counters) and 2 (Counter64), each way
    } const steps[] = {
        { 360000, 0x100000000ull - 500000, top - 2000000000, none, none }, // the first reading
        { 361000, 500000, top - 1000000000, 800e3, 800e6 }, // 10 s on: wrapped once; 10^9 more near 2^64
        { 500, 1000, 1000, none, none }, // restarted 5 s ago
        { 1500, 3000, 4000, 1600, 2400 }, // and 10 s later
        { 2500, 3000 + (1ull << 31), 100, none, none }, // 17 Gb/s on a 100 Mb/s link; the Counter64 cleared
    };
    qint64 now = 1700000000000;
    for (const Step &s : steps) {
        QVERIFY(tw::test::writeFile(state,
            QStringLiteral("uptime %1\nin32 %2\nout32 %2\nin64 %3\nout64 %3\n")
                .arg(s.uptime)
                .arg(s.octets32)
                .arg(s.octets64)
                .toLatin1()));
        worker.poll(t);
        QVERIFY2(polled.ok, qPrintable(polled.error));
        QCOMPARE(polled.uptime, s.uptime);
        monitor.takeResult(polled, now += 10000);
        QVERIFY2(monitor.table()->rowCount() == 2, qPrintable(QStringLiteral("uptime %1").arg(s.uptime)));
        QCOMPARE(monitor.inRate(1).value_or(none), s.bps32);
        QCOMPARE(monitor.outRate(1).value_or(none), s.bps32);
        QCOMPARE(monitor.inRate(2).value_or(none), s.bps64);
        QCOMPARE(monitor.outRate(2).value_or(none), s.bps64);
    }
    QCOMPARE(monitor.history(2).size(), 2);
}

// A console closing while its poll waits on a silent device does not wait, and its thread ends: a v2c request
// and a v3 engine discovery give up at once.
void TestSnmpAgent::closeWhileWaiting()
{
    QUdpSocket silent;
    QVERIFY(silent.bind(QHostAddress::LocalHost, 0));
    SnmpPoller::setAgentPort(silent.localPort());
    const auto back = qScopeGuard([this] { SnmpPoller::setAgentPort(m_port); });
    QTRY_COMPARE_WITH_TIMEOUT(SnmpMonitor::workersRunning(), 0, 60000);
    for (const QString &user : { QString(), QStringLiteral("tw-authpriv") }) {
        auto monitor = std::make_unique<SnmpMonitor>([] { return QStringLiteral("127.0.0.1"); });
        SnmpTarget t = target(user);
        t.authPassword = QStringLiteral("auth-secret-1");
        t.privPassword = QStringLiteral("priv-secret-1");
        // Three hours of tries: a close or a thread that waited for them would not end within the test's
        // limit.
        t.timeoutMs = 3600000;
        t.tries = 3;
        monitor->setTarget(t);
        monitor->start();
        QTRY_VERIFY_WITH_TIMEOUT(silent.hasPendingDatagrams(), 30000);
        monitor.reset();
        QVERIFY(SnmpMonitor::finishWorkers(60000));
        while (silent.hasPendingDatagrams())
            silent.receiveDatagram();
    }
}

// The tab end to end with no keyring (as on this machine): the passwords are asked for, kept for this run
// only, asked again when the agent rejects one, and never written to the settings; the other choices are
// remembered for the device.
void TestSnmpAgent::pageWithoutKeyring()
{
    QStringList prompts;
    QStringList answers { "wrong-secret", "priv-secret-1", "auth-secret-1" };
    SnmpCredentials::setPromptHook([&](const QString &prompt) -> std::optional<QString> {
        prompts << prompt.section(QLatin1Char(' '), 0, 0);
        return answers.isEmpty() ? std::nullopt : std::optional<QString>(answers.takeFirst());
    });
    const auto unhook = qScopeGuard([] { SnmpCredentials::setPromptHook({}); });

    SnmpPage page([] { return QStringLiteral("127.0.0.1"); });
    page.show();
    auto *version = page.findChild<QComboBox *>(QStringLiteral("SnmpVersion"));
    version->setCurrentIndex(2);
    page.findChild<QLineEdit *>(QStringLiteral("SnmpUser"))->setText(QStringLiteral("tw-authpriv"));
    page.findChild<QComboBox *>(QStringLiteral("SnmpAuth"))->setCurrentText(QStringLiteral("SHA-256"));
    page.findChild<QSpinBox *>(QStringLiteral("SnmpInterval"))->setValue(1);
    auto *start = page.findChild<QPushButton *>(QStringLiteral("SNMPStart"));
    auto *state = page.findChild<QLabel *>(QStringLiteral("Label7"));

    QTest::mouseClick(start, Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(state->text().startsWith(QLatin1String("Wrong digest")), 30000);
    QCOMPARE(prompts, QStringList({ "Authentication", "Privacy" }));
    QTRY_VERIFY(!page.monitor()->isRunning());
    // Only the rejected password is asked for again; after that, nothing more this run.
    QTest::mouseClick(start, Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(state->text().startsWith(QLatin1String("OK ")), 30000);
    QCOMPARE(prompts, QStringList({ "Authentication", "Privacy", "Authentication" }));
    QTest::mouseClick(page.findChild<QPushButton *>(QStringLiteral("SNMPStop")), Qt::LeftButton);
    QVERIFY(!page.monitor()->isRunning());
    QTest::mouseClick(start, Qt::LeftButton);
    QTRY_VERIFY(page.monitor()->isRunning() && state->text().startsWith(QLatin1String("OK ")));
    QCOMPARE(prompts.size(), 3);

    // Select loopback: the graph follows it.
    auto *view = page.findChild<QTreeView *>(QStringLiteral("snmpInterfaces"));
    QTRY_VERIFY(view->model()->rowCount() > 0);
    view->setCurrentIndex(view->model()->index(0, 0));
    QCOMPARE(page.selectedInterface(), page.monitor()->interfaceAt(0));

    // "Export..." writes the table as shown, and the selected interface's history, each to its file; a file
    // that cannot be written is said so.
    QTemporaryDir out;
    const qsizetype points = page.monitor()->history(page.selectedInterface()).size();
    page.exportCsv(false, out.filePath(QStringLiteral("table.csv")));
    page.exportCsv(true, out.filePath(QStringLiteral("history.csv")));
    const auto lines = [&out](const char *name) {
        return QString::fromUtf8(tw::test::readFile(out.filePath(QLatin1String(name))))
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    };
    const QStringList table = lines("table.csv"), history = lines("history.csv");
    QCOMPARE(table.size(), view->model()->rowCount() + 1);
    QVERIFY(table.value(1).contains(view->model()->index(0, SnmpMonitor::NameColumn).data().toString()));
    QVERIFY(points > 0);
    QCOMPARE(history.size(), points + 1);
    QVERIFY(history.value(0) != table.value(0));
    QStringList said;
    tw::setMessageBoxHook([&said](const QString &text, QMessageBox::Icon) { said << text; });
    page.exportCsv(false, out.filePath(QStringLiteral("missing/table.csv")));
    tw::setMessageBoxHook({});
    QCOMPARE(said.size(), 1);
    QVERIFY(said[0].startsWith(QLatin1String("Cannot write")));

    QSettings settings = tw::test::settingsStore();
    settings.sync();
    const QByteArray text = tw::test::readFile(settings.fileName());
    QVERIFY(text.contains("tw-authpriv"));
    QVERIFY(!text.contains("secret"));

    SnmpPage again([] { return QString(); });
    again.loadProfile(QStringLiteral("127.0.0.1"));
    QCOMPARE(QStringList({ again.findChild<QComboBox *>(QStringLiteral("SnmpVersion"))->currentText(),
                 again.findChild<QLineEdit *>(QStringLiteral("SnmpUser"))->text(),
                 again.findChild<QComboBox *>(QStringLiteral("SnmpAuth"))->currentText(),
                 again.findChild<QSpinBox *>(QStringLiteral("SnmpInterval"))->text() }),
        QStringList({ "v3", "tw-authpriv", "SHA-256", "1 s" }));

    // The device's choices and passwords last as long as a connection history entry holds it: here one by
    // SSH and one raw, then six other devices push both out.
    page.monitor()->stop();
    ConnectTarget ssh;
    ssh.kind = QStringLiteral("SSH");
    ssh.host = QStringLiteral("127.0.0.1");
    ConnectionHistory::remember(
        ConnectTarget { QStringLiteral("TCP/IP"), QStringLiteral("127.0.0.1"), 0, {} });
    ConnectionHistory::remember(ssh);
    for (int i = 2; i <= 7; ++i) {
        QVERIFY(SnmpProfiles::load(QStringLiteral("127.0.0.1")));
        ConnectionHistory::remember(QStringList { "127", "0", "0", QString::number(i) });
    }
    QVERIFY(!ConnectionHistory::hosts().contains(QStringLiteral("127.0.0.1")));
    QVERIFY(!SnmpProfiles::load(QStringLiteral("127.0.0.1")));
    answers = QStringList { "auth-secret-1", "priv-secret-1" };
    QTest::mouseClick(start, Qt::LeftButton);
    QTRY_COMPARE_WITH_TIMEOUT(prompts.size(), 5, 30000);
    QTRY_VERIFY_WITH_TIMEOUT(
        page.monitor()->isRunning() && state->text().startsWith(QLatin1String("OK ")), 30000);
}

// Devices connected by name never enter the connection history: the newest six keep their choices and
// passwords, and each new one pushes the oldest out. Devices the history holds are not counted.
void TestSnmpAgent::namedDevicesPruned()
{
    int prompts = 0;
    SnmpCredentials::setPromptHook([&prompts](const QString &) -> std::optional<QString> {
        ++prompts;
        return QStringLiteral("named-secret");
    });
    const auto unhook = qScopeGuard([] { SnmpCredentials::setPromptHook({}); });
    // Whether the device's password had to be asked for.
    const auto asked = [&](const QString &host) {
        const int before = prompts;
        bool done = false;
        SnmpCredentials::obtain(this,
            SnmpCredentials::key(host, QStringLiteral("tw-named"), QStringLiteral("auth")),
            QStringLiteral("Authentication"), [&done](const std::optional<QString> &) { done = true; });
        return QTest::qWaitFor([&done] { return done; }, 30000) && prompts > before;
    };
    const auto name = [](int i) { return QStringLiteral("switch-%1.lab").arg(i); };
    SnmpProfile profile;
    profile.version = 3;
    profile.target.user = QStringLiteral("tw-named");
    for (int i = 0; i < 6; ++i) {
        SnmpPage::rememberDevice(name(i), profile);
        SnmpPage::rememberDevice(QStringLiteral("127.9.9.%1").arg(i), profile);
        QVERIFY(asked(name(i)));
    }
    QVERIFY(!asked(name(1)));
    SnmpPage::rememberDevice(name(0), profile); // the newest again
    SnmpPage::rememberDevice(name(6), profile);
    QVERIFY(!SnmpProfiles::load(name(1)));
    for (const int kept : { 0, 2, 3, 4, 5, 6 })
        QVERIFY2(SnmpProfiles::load(name(kept)), qPrintable(name(kept)));
    QVERIFY(SnmpProfiles::load(QStringLiteral("127.9.9.0")));
    QVERIFY(asked(name(1)));
    QVERIFY(!asked(name(2)));
}

QTEST_MAIN(TestSnmpAgent)
#include "tst_snmp_agent.moc"
