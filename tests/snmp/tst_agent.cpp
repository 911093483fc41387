#include "snmp/snmp_poller.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUdpSocket>
#include <QtTest>

// Polls a real net-snmp agent on a loopback port and compares what the SNMP
// tab would show with what the agent's own tool and the kernel report.
class TestAgent : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void pollRealAgent();

private:
    QString run(const QString &program, const QStringList &args, bool wait = true);
    QString snmpget(const QString &oid)
    {
        return run(m_snmpget, { "-v1", "-c", "tarnwick", "-Oqv", "-t", "1", "-r", "1", m_agentAddress, oid });
    }

    QTemporaryDir m_dir;
    QProcess m_agent;
    QString m_snmpget;
    quint16 m_port = 0;
    QString m_agentAddress;
};

static QString sysNet(const QString &name, const char *file)
{
    QFile f(QStringLiteral("/sys/class/net/%1/%2").arg(name, QLatin1String(file)));
    return f.open(QIODevice::ReadOnly) ? QString::fromLatin1(f.readAll()).trimmed() : QString();
}

QString TestAgent::run(const QString &program, const QStringList &args, bool wait)
{
    QProcess &p = wait ? *new QProcess(this) : m_agent;
    // No MIB files: numeric identifiers only and no screens of MIB warnings.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char *name : { "MIBDIRS", "SNMP_PERSISTENT_DIR", "SNMPCONFPATH" })
        env.insert(QLatin1String(name), m_dir.path());
    env.insert(QStringLiteral("MIBS"), QString());
    p.setProcessEnvironment(env);
    p.start(program, args);
    if (!wait)
        return p.waitForStarted(5000) ? QStringLiteral("started") : p.errorString();
    p.waitForFinished(5000);
    p.deleteLater();
    return p.exitCode() == 0 ? QString::fromLatin1(p.readAllStandardOutput()).trimmed() : QString();
}

void TestAgent::initTestCase()
{
    const QString snmpd
        = QStandardPaths::findExecutable(QStringLiteral("snmpd"), { "/usr/sbin", "/usr/bin" });
    if (snmpd.isEmpty())
        QFAIL("snmpd not found: install the Debian package snmpd");
    m_snmpget = QStandardPaths::findExecutable(QStringLiteral("snmpget"));
    if (m_snmpget.isEmpty())
        QFAIL("snmpget not found: install the Debian package snmp");

    QFile conf(m_dir.filePath(QStringLiteral("snmpd.conf")));
    QVERIFY(conf.open(QIODevice::WriteOnly) && conf.write("rocommunity tarnwick 127.0.0.1\n") > 0);
    conf.close();
    QUdpSocket probe; // a free port for the agent
    QVERIFY(probe.bind(QHostAddress::LocalHost, 0));
    m_port = probe.localPort();
    probe.close();
    m_agentAddress = QStringLiteral("127.0.0.1:%1").arg(m_port);

    m_agent.setProcessChannelMode(QProcess::MergedChannels);
    const QString started = run(
        snmpd, { "-f", "-Lo", "-C", "-u", "root", "-c", conf.fileName(), "udp:" + m_agentAddress }, false);
    QCOMPARE(started, QStringLiteral("started"));
    QElapsedTimer t;
    t.start();
    while (snmpget(QStringLiteral("1.3.6.1.2.1.2.1.0")).isEmpty()) {
        if (m_agent.state() != QProcess::Running || t.elapsed() > 10000)
            QFAIL(qPrintable("snmpd did not come up: " + QString::fromLocal8Bit(m_agent.readAll())));
        QTest::qWait(100);
    }
}

void TestAgent::cleanupTestCase()
{
    m_agent.terminate();
    if (!m_agent.waitForFinished(3000))
        m_agent.kill();
}

void TestAgent::pollRealAgent()
{
    SnmpPoller::setAgentPort(m_port);
    SnmpPoller poller([] { return QStringLiteral("127.0.0.1"); });
    poller.setCommunity(QStringLiteral("tarnwick"));
    poller.setStepInterval(5);

    // Junk arriving between the agent's answers is dropped and polling goes on.
    QUdpSocket junk;
    QTimer junkTimer;
    connect(&junkTimer, &QTimer::timeout, this, [&] {
        QByteArray bytes(QRandomGenerator::global()->bounded(0, 200), '\0');
        for (char &c : bytes)
            c = char(QRandomGenerator::global()->bounded(256));
        if (poller.localPort())
            junk.writeDatagram(bytes, QHostAddress::LocalHost, poller.localPort());
    });
    junkTimer.start(2);

    // The walk is over when the state has rested at "Waiting" for a while.
    QElapsedTimer sinceChange;
    sinceChange.start();
    connect(&poller, &SnmpPoller::stateChanged, this, [&sinceChange] { sinceChange.restart(); });
    poller.start();
    QTRY_VERIFY_WITH_TIMEOUT(
        poller.state() == QLatin1String("Waiting") && sinceChange.elapsed() > 300, 20000);

    // Everything below came back for our 256-byte datagrams.
    const int count = snmpget(QStringLiteral("1.3.6.1.2.1.2.1.0")).toInt();
    QCOMPARE(poller.interfacesText(), QString::number(count));
    QVERIFY2(poller.uptimeText().endsWith(QLatin1String(" minutes")), qPrintable(poller.uptimeText()));
    QCOMPARE(poller.cpuText(), QStringLiteral("0 %")); // the agent's noSuchName, shown as a value

    QStandardItemModel *m = poller.statistics();
    QCOMPARE(m->rowCount(), count + 5);
    int compared = 0;
    for (const QString &name :
        QDir(QStringLiteral("/sys/class/net")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const int index = sysNet(name, "ifindex").toInt();
        if (index < 1 || index > m->rowCount())
            continue; // interfaces numbered beyond the list are not shown
        const auto cell = [m, index](int column) { return m->item(index - 1, column)->text(); };
        QCOMPARE(cell(0), name);
        QCOMPARE(cell(2), sysNet(name, "mtu"));
        QCOMPARE(cell(3), snmpget(QStringLiteral("1.3.6.1.2.1.2.2.1.5.%1").arg(index)));
        const QString mac = sysNet(name, "address").toUpper().replace(QLatin1Char(':'), QLatin1Char('#'));
        QCOMPARE(cell(4), mac == QLatin1String("00#00#00#00#00#00") ? QString() : mac); // none for loopback
        const bool up = snmpget(QStringLiteral("1.3.6.1.2.1.2.2.1.7.%1").arg(index)) == QLatin1String("1");
        QCOMPARE(cell(5), up ? QStringLiteral("Ad up") : QStringLiteral("Ad Down"));
        ++compared;
    }
    qInfo("compared %d interfaces with the agent and the kernel", compared);
    QVERIFY(compared >= 1);
}

QTEST_GUILESS_MAIN(TestAgent)
#include "tst_agent.moc"
