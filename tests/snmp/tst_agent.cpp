#include "snmp/snmp_poller.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUdpSocket>
#include <QtTest>

// Polls a real net-snmp agent on a loopback port and compares what the SNMP
// tab would show with what the agent's own tools and the kernel report.
class TestAgent : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void pollRealAgent();

private:
    QString snmpget(const QString &oid);

    QTemporaryDir m_dir;
    QProcess m_agent;
    quint16 m_port = 0;
    QString m_snmpget;
};

namespace {

QString readSys(const QString &name, const QString &file)
{
    QFile f(QStringLiteral("/sys/class/net/%1/%2").arg(name, file));
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return QString::fromLatin1(f.readAll()).trimmed();
}

quint16 freeUdpPort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress::LocalHost, 0);
    return probe.localPort();
}

QProcessEnvironment quietEnvironment(const QString &dir)
{
    // No MIB files: numeric identifiers only, and no screens of MIB warnings.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("MIBS"), QString());
    env.insert(QStringLiteral("MIBDIRS"), dir);
    env.insert(QStringLiteral("SNMP_PERSISTENT_DIR"), dir);
    env.insert(QStringLiteral("SNMPCONFPATH"), dir);
    return env;
}

} // namespace

void TestAgent::initTestCase()
{
    const QString snmpd
        = QStandardPaths::findExecutable(QStringLiteral("snmpd"), { "/usr/sbin", "/usr/bin" });
    if (snmpd.isEmpty())
        QFAIL("snmpd not found: install the Debian package snmpd");
    m_snmpget = QStandardPaths::findExecutable(QStringLiteral("snmpget"));
    if (m_snmpget.isEmpty())
        QFAIL("snmpget not found: install the Debian package snmp");
    QVERIFY(m_dir.isValid());

    const QString conf = m_dir.filePath(QStringLiteral("snmpd.conf"));
    QFile f(conf);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write("rocommunity tarnwick 127.0.0.1\n");
    f.close();

    m_port = freeUdpPort();
    m_agent.setProcessEnvironment(quietEnvironment(m_dir.path()));
    m_agent.setProcessChannelMode(QProcess::MergedChannels);
    m_agent.start(snmpd,
        { "-f", "-Lo", "-C", "-u", "root", "-c", conf, QStringLiteral("udp:127.0.0.1:%1").arg(m_port) });
    QVERIFY2(m_agent.waitForStarted(5000), qPrintable(m_agent.errorString()));

    // Ready once it answers its own tool.
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
    if (m_agent.state() == QProcess::Running) {
        m_agent.terminate();
        if (!m_agent.waitForFinished(3000))
            m_agent.kill();
    }
}

QString TestAgent::snmpget(const QString &oid)
{
    QProcess p;
    p.setProcessEnvironment(quietEnvironment(m_dir.path()));
    p.start(m_snmpget,
        { "-v1", "-c", "tarnwick", "-On", "-Oqv", "-t", "1", "-r", "0",
            QStringLiteral("127.0.0.1:%1").arg(m_port), oid });
    p.waitForFinished(5000);
    return p.exitCode() == 0 ? QString::fromLatin1(p.readAllStandardOutput()).trimmed() : QString();
}

void TestAgent::pollRealAgent()
{
    SnmpPoller::setAgentPort(m_port);
    SnmpPoller poller([] { return QStringLiteral("127.0.0.1"); });
    poller.setCommunity(QStringLiteral("tarnwick"));
    poller.setStepInterval(5);

    // The walk is over when the state has rested at "Waiting" for a while.
    QElapsedTimer sinceChange;
    sinceChange.start();
    connect(&poller, &SnmpPoller::stateChanged, this, [&sinceChange] { sinceChange.restart(); });
    poller.start();
    QTRY_VERIFY_WITH_TIMEOUT(
        poller.state() == QLatin1String("Waiting") && sinceChange.elapsed() > 300, 20000);

    // The agent accepted our 256-byte datagrams: everything below came back.
    const int count = snmpget(QStringLiteral("1.3.6.1.2.1.2.1.0")).toInt();
    QVERIFY(count >= 1);
    QCOMPARE(poller.interfacesText(), QString::number(count));
    QVERIFY2(poller.uptimeText().endsWith(QLatin1String(" minutes")), qPrintable(poller.uptimeText()));
    // The agent has no such CPU object; its noSuchName answer shows as a value.
    QCOMPARE(poller.cpuText(), QStringLiteral("0 %"));

    QStandardItemModel *m = poller.statistics();
    QCOMPARE(m->rowCount(), count + 5);
    int compared = 0;
    const QStringList names
        = QDir(QStringLiteral("/sys/class/net")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        const int index = readSys(name, QStringLiteral("ifindex")).toInt();
        if (index < 1 || index > m->rowCount())
            continue; // interfaces numbered beyond the list are not shown
        const auto cell = [m, index](int column) { return m->item(index - 1, column)->text(); };
        QCOMPARE(cell(0), name);
        QCOMPARE(cell(2), readSys(name, QStringLiteral("mtu")));
        QCOMPARE(cell(3), snmpget(QStringLiteral("1.3.6.1.2.1.2.2.1.5.%1").arg(index)));
        QString mac
            = readSys(name, QStringLiteral("address")).toUpper().replace(QLatin1Char(':'), QLatin1Char('#'));
        if (mac == QLatin1String("00#00#00#00#00#00"))
            mac.clear(); // the agent reports no address for the loopback
        QCOMPARE(cell(4), mac);
        const QString admin = snmpget(QStringLiteral("1.3.6.1.2.1.2.2.1.7.%1").arg(index));
        QCOMPARE(cell(5), admin == QLatin1String("1") ? QStringLiteral("Ad up") : QStringLiteral("Ad Down"));
        ++compared;
    }
    qInfo("compared %d interfaces with the agent and the kernel", compared);
    QVERIFY(compared >= 1);
}

QTEST_GUILESS_MAIN(TestAgent)
#include "tst_agent.moc"
