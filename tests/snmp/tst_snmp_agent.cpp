#include "snmp/snmp_credentials.h"
#include "snmp/snmp_monitor.h"
#include "snmp/snmp_page.h"
#include "snmp/snmp_poller.h"
#include "test_support.h"

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
    void v3LevelsAndErrors();
    void timeOutAndRecovery();
    void pageWithoutKeyring();

private:
    bool startAgent();
    void stopAgent();
    SnmpTarget target(const QString &user = QString()) const;

    QTemporaryDir m_dir;
    QProcess m_agent;
    quint16 m_port = 0;
};

bool TestSnmpAgent::startAgent()
{
    const QString snmpd = QStandardPaths::findExecutable(QStringLiteral("snmpd"), { "/usr/sbin" });
    if (snmpd.isEmpty())
        return false;
    m_agent.setProcessChannelMode(QProcess::MergedChannels);
    m_agent.start(snmpd,
        { "-f", "-Lo", "-C", "-c", m_dir.filePath("snmpd.conf"), "-u", "root",
            QStringLiteral("udp:127.0.0.1:%1").arg(m_port) });
    if (!m_agent.waitForStarted()) {
        qWarning() << "snmpd did not start:" << m_agent.errorString();
        return false;
    }
    // Ready once it answers: a v2c GetRequest to our own monitor's worker would do, snmpget is simpler.
    for (int i = 0; i < 100; ++i) {
        QProcess get;
        get.start(QStringLiteral("snmpget"),
            { "-v2c", "-c", "tarnwick", "-t", "1", "-r", "0", "-Oqv",
                QStringLiteral("127.0.0.1:%1").arg(m_port), "1.3.6.1.2.1.1.3.0" });
        if (get.waitForFinished(10000) && get.exitCode() == 0)
            return true;
        if (m_agent.state() != QProcess::Running) {
            qWarning() << "snmpd ended:" << m_agent.readAll();
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
    QFile conf(m_dir.filePath("snmpd.conf"));
    QVERIFY(conf.open(QIODevice::WriteOnly));
    conf.write("rocommunity tarnwick 127.0.0.1\n"
               "createUser tw-authpriv SHA-256 auth-secret-1 AES priv-secret-1\n"
               "createUser tw-auth SHA auth-secret-2\n"
               "createUser tw-noauth\n"
               "rouser tw-authpriv priv\n"
               "rouser tw-auth auth\n"
               "rouser tw-noauth noauth\n");
    conf.close();
    QVERIFY2(startAgent(), m_agent.readAll());
    SnmpPoller::setAgentPort(m_port);
}

void TestSnmpAgent::cleanupTestCase()
{
    stopAgent();
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
}

// Each security level polls; a wrong password, either one, and an unknown user are told in words.
void TestSnmpAgent::v3LevelsAndErrors()
{
    SnmpMonitor monitor([] { return QStringLiteral("127.0.0.1"); });
    monitor.setIntervalMs(1000);
    struct Case
    {
        const char *user;
        SnmpTarget::Level level;
        SnmpTarget::Auth auth;
        const char *authPassword;
        const char *privPassword;
        const char *state; // what the state starts with
    };
    using L = SnmpTarget::Level;
    using A = SnmpTarget::Auth;
    const Case cases[] = {
        { "tw-authpriv", L::AuthPriv, A::Sha256, "auth-secret-1", "priv-secret-1", "OK " },
        { "tw-auth", L::AuthNoPriv, A::Sha1, "auth-secret-2", "", "OK " },
        { "tw-noauth", L::NoAuthNoPriv, A::Sha1, "", "", "OK " },
        { "tw-authpriv", L::AuthPriv, A::Sha256, "wrong-secret", "priv-secret-1", "Wrong digest" },
        { "tw-authpriv", L::AuthPriv, A::Sha256, "auth-secret-1", "wrong-secret", "Decryption error" },
        { "tw-nobody", L::AuthNoPriv, A::Sha1, "auth-secret-2", "", "Unknown user name \"tw-nobody\"" },
    };
    for (const Case &c : cases) {
        SnmpTarget t = target(QLatin1String(c.user));
        t.level = c.level;
        t.auth = c.auth;
        t.priv = SnmpTarget::Priv::Aes128;
        t.authPassword = QLatin1String(c.authPassword);
        t.privPassword = QLatin1String(c.privPassword);
        monitor.setTarget(t);
        monitor.start();
        QTRY_VERIFY2_WITH_TIMEOUT(monitor.state().startsWith(QLatin1String(c.state)),
            qPrintable(QLatin1String(c.user) + ": " + monitor.state()), 30000);
        if (QLatin1String(c.state) == QLatin1String("OK "))
            QVERIFY(monitor.table()->rowCount() > 0);
    }
}

// An agent that stops answering shows as such after the time-out and tries; polling carries on and picks
// up again once it is back.
void TestSnmpAgent::timeOutAndRecovery()
{
    SnmpMonitor monitor([] { return QStringLiteral("127.0.0.1"); });
    monitor.setTarget(target(QStringLiteral("tw-auth")));
    SnmpTarget t = target(QStringLiteral("tw-auth"));
    t.level = SnmpTarget::Level::AuthNoPriv;
    t.authPassword = QStringLiteral("auth-secret-2");
    monitor.setTarget(t);
    monitor.setIntervalMs(1000);
    monitor.start();
    QTRY_VERIFY_WITH_TIMEOUT(monitor.state().startsWith(QLatin1String("OK ")), 30000);
    stopAgent();
    QTRY_COMPARE_WITH_TIMEOUT(monitor.state(), QStringLiteral("No response from 127.0.0.1 (2 tries)"), 30000);
    QVERIFY2(startAgent(), m_agent.readAll());
    QTRY_VERIFY_WITH_TIMEOUT(monitor.state().startsWith(QLatin1String("OK ")), 60000);
    QVERIFY(monitor.isRunning());
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
    QCOMPARE(version->currentText(), QStringLiteral("v1 (classic)"));
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

    QSettings settings = tw::test::settingsStore();
    settings.sync();
    QFile stored(settings.fileName());
    QVERIFY(stored.open(QIODevice::ReadOnly));
    const QByteArray text = stored.readAll();
    QVERIFY(text.contains("tw-authpriv"));
    QVERIFY(!text.contains("secret"));

    SnmpPage again([] { return QString(); });
    again.loadProfile(QStringLiteral("127.0.0.1"));
    QCOMPARE(QStringList({ again.findChild<QComboBox *>(QStringLiteral("SnmpVersion"))->currentText(),
                 again.findChild<QLineEdit *>(QStringLiteral("SnmpUser"))->text(),
                 again.findChild<QComboBox *>(QStringLiteral("SnmpAuth"))->currentText(),
                 again.findChild<QSpinBox *>(QStringLiteral("SnmpInterval"))->text() }),
        QStringList({ "v3", "tw-authpriv", "SHA-256", "1 s" }));
}

QTEST_MAIN(TestSnmpAgent)
#include "tst_snmp_agent.moc"
