#include "console/console_session.h"
#include "console/ssh_config.h"
#include "console/ssh_connection.h"
#include "private_sshd.h"
#include "test_support.h"
#include "tftp/tftp_test_peer.h"

#include <QLocalServer>
#include <QLocalSocket>

#include <csignal>

// How an SSH console logs in and ends against a private sshd: an agent that
// never answers, a server that gives up during the login, keys offered the
// way OpenSSH offers them, a logout, a peer that stops answering, a jump host
// (a second sshd) in the way, ~/.ssh/config read as OpenSSH reads it, old
// devices' algorithms and small RSA keys.
class TestConsoleSshLogin : public QObject
{
    Q_OBJECT
    PrivateSshd m_sshd;
    PrivateSshd m_jump;
    ConsoleSession *m_session = nullptr;
    QString m_text;

    void connectTo(const QString &host = QStringLiteral("fake-r1"))
    {
        m_text.clear();
        m_session->ConnectSSH(host, 0, QString());
    }
    bool loggedIn() const { return m_text.endsWith(QLatin1String("R1#")) && m_session->sshOpen(); }

    // `ssh -G` for host with only the given file: keyword -> values.
    static QMultiHash<QString, QString> openssh(const QString &file, const QString &host)
    {
        QProcess ssh;
        ssh.start(QStringLiteral("ssh"), { QStringLiteral("-G"), QStringLiteral("-F"), file, host });
        ssh.waitForFinished(30000);
        QMultiHash<QString, QString> values;
        for (const QByteArray &line : ssh.readAllStandardOutput().split('\n')) {
            const qsizetype space = line.indexOf(' ');
            if (space > 0)
                values.insert(QString::fromUtf8(line.left(space)), QString::fromUtf8(line.mid(space + 1)));
        }
        return values;
    }

    static QString normalised(const QString &value)
    {
        return value == QLatin1String("true") ? QStringLiteral("yes")
            : value == QLatin1String("false") ? QStringLiteral("no")
            : value == QLatin1String("none")  ? QStringLiteral("0")
                                              : value;
    }

    // Opens host, waits for its prompt or the refusal, and closes: what the console showed.
    QString visit(const QString &host)
    {
        connectTo(host);
        (void)QTest::qWaitFor(
            [this] { return loggedIn() || m_session->connectionKind().isEmpty(); }, PrivateSshd::waitMs);
        m_session->disconnectSession();
        return m_text;
    }
    bool logIn()
    {
        connectTo();
        return QTest::qWaitFor([this] { return loggedIn(); }, PrivateSshd::waitMs);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_sshd.prepare(), "sshd or ssh-keygen is missing: install openssh-server");
        QVERIFY(m_jump.prepare(false));
        QVERIFY2(QFile::exists(QStringLiteral("/usr/bin/ssh")), "ssh is missing: install openssh-client");
    }

    void init()
    {
        m_session = new ConsoleSession;
        m_session->ssh()->setHandshakeTimeout(600000); // a slow agent or jump host is no failure here
        // Line ends as the console shows them: CR LF or a lone CR is one break.
        connect(m_session, &ConsoleSession::terminalAppend, this, [this](QString text) {
            m_text += text.replace(QLatin1String("\r\n"), QLatin1String("\n"))
                          .replace(QLatin1Char('\r'), QLatin1Char('\n'));
        });
        qunsetenv("SSH_AUTH_SOCK");
        QVERIFY(tw::test::writeFile(
            m_sshd.path("authorized_keys"), tw::test::readFile(m_sshd.sshFile("id_ed25519.pub"))));
    }

    void cleanup()
    {
        delete m_session;
        m_sshd.stop();
        m_jump.stop();
    }

    void silentAgentFreezesNothing()
    {
        m_sshd.start();
        tftptest::Fixture tftp("served meanwhile");
        QLocalServer agent;
        QVERIFY(agent.listen(m_sshd.path(QStringLiteral("silent.sock"))));
        qputenv("SSH_AUTH_SOCK", QFile::encodeName(agent.fullServerName()));

        // Held by the agent: the TFTP server in the same process keeps serving.
        m_session->ssh()->setAgentTimeout(600000);
        connectTo();
        QTRY_VERIFY_WITH_TIMEOUT(agent.hasPendingConnections(), PrivateSshd::waitMs);
        QLocalSocket *held = agent.nextPendingConnection();
        QTRY_VERIFY_WITH_TIMEOUT(held->bytesAvailable() >= 5, PrivateSshd::waitMs);
        tftptest::Client client;
        QCOMPARE(tftp.download(client, "f.bin"), QByteArray("served meanwhile"));
        QVERIFY(!m_text.contains(QLatin1String("R1#")));
        // An agent that goes away: the key file takes over.
        held->abort();
        QTRY_VERIFY2_WITH_TIMEOUT(loggedIn(), qPrintable(m_text), PrivateSshd::waitMs);
        m_session->disconnectSession();

        // Past the time limit the login goes on without the agent.
        m_session->ssh()->setAgentTimeout(50);
        QVERIFY2(logIn(), qPrintable(m_text));
        QVERIFY2(m_text.contains(QLatin1String("SSH agent did not answer; trying other methods\n")),
            qPrintable(m_text));
    }

    void keysOfferedAsOpenSshDoes()
    {
        // Three keys in a real ssh-agent, the server gives up after two refusals.
        QProcess agent;
        const QString socket = m_sshd.path(QStringLiteral("agent.sock"));
        agent.start(QStringLiteral("ssh-agent"), { "-D", "-a", socket });
        QVERIFY(agent.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(socket), PrivateSshd::waitMs);
        qputenv("SSH_AUTH_SOCK", QFile::encodeName(socket));
        for (const char *name : { "k1", "k2", "k3" }) {
            const QString key = m_sshd.sshFile(QLatin1String(name));
            QVERIFY(PrivateSshd::keygen(key) && PrivateSshd::run(QStringLiteral("ssh-add"), { "-q", key }));
        }
        QVERIFY(tw::test::writeFile(
            m_sshd.path("authorized_keys"), tw::test::readFile(m_sshd.sshFile("k3.pub"))));

        // No IdentityFile names k3: the agent's keys in its order, and the
        // server closes the connection, which is said at once, with its reason.
        m_sshd.start("MaxAuthTries 2\n");
        connectTo();
        QTRY_VERIFY2_WITH_TIMEOUT(
            m_session->connectionKind().isEmpty(), qPrintable(m_text), PrivateSshd::waitMs);
        QVERIFY2(m_text.contains(QLatin1String("SSH Err: Connection closed by fake-r1 during login: ")),
            qPrintable(m_text));
        QVERIFY2(m_text.contains(QLatin1String("Too many authentication failures")), qPrintable(m_text));

        // The IdentityFile's key goes first, as OpenSSH offers it (with
        // IdentitiesOnly no other key of the agent would follow).
        for (const QByteArray only : { "no", "yes" }) {
            m_sshd.start("MaxAuthTries 2\n", "    IdentityFile ~/.ssh/k3\n    IdentitiesOnly " + only + '\n');
            QVERIFY2(logIn(), qPrintable(m_text));
            QTRY_VERIFY_WITH_TIMEOUT(m_sshd.log().contains("Accepted publickey"), PrivateSshd::waitMs);
            QCOMPARE(m_sshd.log().count("Failed publickey"), 0);
            m_session->disconnectSession();
        }
    }

    void keepAlivesLogoutAndLostPeer()
    {
        // A count no slow machine runs out of while the peer is alive.
        m_sshd.start({}, "    ServerAliveInterval 1\n    ServerAliveCountMax 1000\n");
        QVERIFY2(logIn(), qPrintable(m_text));
        // Two idle rounds, the second of which typed backspace-space on raw TCP.
        m_session->setTimerIntervals(0, 1);
        QTRY_COMPARE_WITH_TIMEOUT(m_session->keepAlive(), qint16(2), PrivateSshd::waitMs);
        QTRY_COMPARE_WITH_TIMEOUT(m_session->keepAlive(), qint16(1), PrivateSshd::waitMs);
        m_session->setTimerIntervals(0, 1000);
        m_session->send("show version\r");
        QTRY_VERIFY_WITH_TIMEOUT(
            m_text.contains(QLatin1String("R1#show version\nFake IOS")), PrivateSshd::waitMs);
        QTRY_VERIFY_WITH_TIMEOUT(m_sshd.log().contains("keepalive@openssh.com"), PrivateSshd::waitMs);

        // A logout says so, with the shell's status; any other key does nothing, Enter reconnects.
        m_session->send("logout 3\r");
        QTRY_VERIFY_WITH_TIMEOUT(
            m_text.endsWith(QLatin1String("Press Enter to reconnect\n")), PrivateSshd::waitMs);
        QVERIFY2(m_text.contains(QLatin1String("Session closed by fake-r1 (exit status 3)\n")),
            qPrintable(m_text.right(300)));
        QVERIFY(!m_text.contains(QLatin1String("timed out")));
        m_session->send("x");
        QCOMPARE(m_session->connectionKind(), QString());
        m_session->send("\r");
        QTRY_VERIFY_WITH_TIMEOUT(loggedIn(), PrivateSshd::waitMs);
        m_session->disconnectSession();

        // The device stops answering: lost after the unanswered keep-alives.
        QVERIFY(m_sshd.writeClientConfig("    ServerAliveInterval 1\n    ServerAliveCountMax 2\n"));
        QVERIFY2(logIn(), qPrintable(m_text));
        QVERIFY(m_sshd.signalSessions(SIGSTOP));
        QTRY_VERIFY_WITH_TIMEOUT(
            m_text.endsWith(QLatin1String("Press Enter to reconnect\n")), PrivateSshd::waitMs);
        QVERIFY2(
            m_text.contains(QLatin1String("Connection to fake-r1 lost: no answer to keep-alives for 2 s\n")),
            qPrintable(m_text));
        m_sshd.signalSessions(SIGKILL);
    }

    void jumpHostsNamedPerHop()
    {
        // jump1 authorises a key of its own, not the console's.
        m_jump.start();
        const auto jumpConfig = [this](quint16 port, const QByteArray &more = {}) {
            return "    ProxyJump jump1\nHost jump1\n    HostName 127.0.0.1\n    Port "
                + QByteArray::number(port) + "\n    User " + m_sshd.user.toUtf8()
                + "\n    IdentityFile ~/.ssh/jump_key\n" + more;
        };
        QVERIFY(PrivateSshd::keygen(m_sshd.sshFile("jump_key"), "ecdsa", "open sesame"));
        m_sshd.start({}, jumpConfig(tw::test::freeTcpPort()));
        QStringList asked;
        connect(m_session->ssh(), &SshConnection::hostKeyQuestion, this, [&](const QString &host) {
            asked << host;
            m_session->ssh()->answerHostKey(SshConnection::HostKeyAnswer::AcceptAndSave);
        });
        connect(m_session->ssh(), &SshConnection::secretsRequested, this,
            [&](const QString &, const QString &, const QStringList &prompts) {
                asked << prompts;
                m_session->ssh()->answerSecrets({ QStringLiteral("open sesame") });
            });
        const auto failsWith = [this](const QString &message) {
            return visit(QStringLiteral("fake-r1")).contains(QLatin1String("SSH Err: ") + message);
        };
        QVERIFY2(failsWith(QStringLiteral("cannot reach jump1: Connection refused")), qPrintable(m_text));

        // Its unknown host key is asked as the target's would be; then it
        // refuses the key.
        QVERIFY(m_sshd.writeClientConfig(jumpConfig(m_jump.port)));
        QVERIFY2(failsWith(QStringLiteral("jump host jump1: authentication failed\n")), qPrintable(m_text));
        const QString jumpHost = QStringLiteral("jump host jump1 (127.0.0.1 port %1)").arg(m_jump.port);
        QCOMPARE(asked, QStringList({ jumpHost }));
        QVERIFY(PrivateSshd::run(QStringLiteral("ssh-keygen"),
            { "-F", QStringLiteral("[127.0.0.1]:%1").arg(m_jump.port), "-f",
                m_sshd.sshFile("known_hosts") }));

        // Taken, after its passphrase: the target's session runs through
        // jump1, then through jump1 twice.
        QVERIFY(tw::test::writeFile(
            m_jump.path("authorized_keys"), tw::test::readFile(m_sshd.sshFile("jump_key.pub"))));
        for (const QByteArray hops : { "jump1", "jump1,jump1" }) {
            QVERIFY(m_sshd.writeClientConfig(
                jumpConfig(m_jump.port).replace("ProxyJump jump1\n", "ProxyJump " + hops + '\n')));
            QVERIFY2(logIn(), qPrintable(m_text));
            m_session->send("show version\r");
            QTRY_VERIFY_WITH_TIMEOUT(m_text.contains(QLatin1String("Fake IOS")), PrivateSshd::waitMs);
        }
        QTRY_COMPARE_WITH_TIMEOUT(m_jump.log().count("Accepted publickey"), 3, PrivateSshd::waitMs);
        QCOMPARE(asked.count(QStringLiteral("Passphrase for key %1:").arg(m_sshd.sshFile("jump_key"))), 3);
        QCOMPARE(asked.count(jumpHost), 1); // saved the first time

        // jump1 dies under the open session.
        QVERIFY(m_jump.signalSessions(SIGKILL));
        QTRY_VERIFY_WITH_TIMEOUT(m_session->connectionKind().isEmpty(), PrivateSshd::waitMs);
        QVERIFY2(m_text.contains(QLatin1String("Connection to fake-r1 lost: jump host jump1: ")),
            qPrintable(m_text));

        // jump1 cannot reach the target; then its key has changed.
        const QByteArray closedPort = QByteArray::number(tw::test::freeTcpPort());
        QVERIFY(tw::test::writeFile(m_sshd.sshFile("config"),
            tw::test::readFile(m_sshd.sshFile("config"))
                .replace("Port " + QByteArray::number(m_sshd.port) + '\n', "Port " + closedPort + '\n')));
        QVERIFY2(
            failsWith("jump host jump1 cannot reach 127.0.0.1 port " + closedPort + ": Connection refused\n"),
            qPrintable(m_text));
        QVERIFY(m_sshd.trust(m_jump.port));
        QVERIFY2(failsWith(QStringLiteral("jump host jump1: host key changed")), qPrintable(m_text));
    }

    // ~/.ssh/config as OpenSSH's client reads it (`ssh -G` is the oracle), and
    // the README's lines for old devices against an sshd that speaks nothing else.
    void keywordsReadAsOpenSshReadsThem()
    {
        const QString extra = m_sshd.path(QStringLiteral("extra_a.conf"));
        QVERIFY(tw::test::writeFile(extra, "Host secret.lab\n    User spy\n    ConnectTimeout 3\n"));
        const QString file = m_sshd.path(QStringLiteral("config"));
        QVERIFY(tw::test::writeFile(file,
            "# kept by hand\nInclude " + m_sshd.path(QStringLiteral("extra_*.conf")).toUtf8()
                + "\nHost *.lab !secret.lab\n"
                  "    User labuser\n"
                  "    IdentityFile ~/.ssh/lab_key\n"
                  "    IDENTITIESONLY yes\n"
                  "    ServerAliveInterval=15\n"
                  "Host r1 r2\n"
                  "    HostName 127.0.0.9\n"
                  "    IdentityFile ~/.ssh/k1\n"
                  "    IdentityFile %d/.ssh/k2\n"
                  "    PreferredAuthentications keyboard-interactive,password\n"
                  "    PasswordAuthentication no\n"
                  "    NumberOfPasswordPrompts 1\n"
                  "    RequiredRSASize 768\n"
                  "    ProxyCommand nc %h %p\n"
                  "Match originalhost r2\n"
                  "    ServerAliveCountMax 9\n"
                  "    User later\n"
                  "Match host 127.0.0.9 user later\n"
                  "    Port 2222\n"
                  "Host *\n"
                  "    User everyone\n"
                  "    KbdInteractiveAuthentication no\n"
                  "    PubkeyAuthentication no\n"
                  "    ServerAliveInterval 30\n"
                  "    ConnectTimeout 7\n"
                  "    ProxyJump bastion\n"));
        const QString home = QDir::homePath();
        for (const QString host : { "a.lab", "secret.lab", "r1", "r2", "other" }) {
            const QMultiHash<QString, QString> oracle = openssh(file, host);
            QVERIFY2(!oracle.isEmpty(), "ssh -G gave nothing");
            const SshConfig ours = SshConfig::read({ file }, host, m_sshd.user);
            // Of ProxyJump and ProxyCommand, whichever comes first holds.
            QList<std::pair<QString, QString>> compared = { { "user", ours.value("user", m_sshd.user) },
                { "hostname", ours.value("hostname", host) }, { "proxyjump", ours.value("proxyjump") },
                { "proxycommand", ours.value("proxycommand") } };
            for (const auto &[keyword, byDefault] :
                { std::pair { "identitiesonly", false }, { "pubkeyauthentication", true },
                    { "passwordauthentication", true }, { "kbdinteractiveauthentication", true } })
                compared.append({ keyword, QString(ours.flag(keyword, byDefault) ? "yes" : "no") });
            for (const auto &[keyword, byDefault] :
                { std::pair { "port", 22 }, { "numberofpasswordprompts", 3 }, { "connecttimeout", 0 },
                    { "serveraliveinterval", 0 }, { "serveralivecountmax", 3 }, { "requiredrsasize", 1024 } })
                compared.append({ keyword, QString::number(ours.number(keyword, byDefault)) });
            for (const auto &[keyword, value] : compared)
                QCOMPARE(QString(host + ' ' + keyword + ' ' + value),
                    QString(host + ' ' + keyword + ' ' + normalised(oracle.value(keyword))));
            QCOMPARE(ours.value("preferredauthentications"), oracle.value("preferredauthentications"));
            QStringList files = oracle.values("identityfile");
            std::reverse(files.begin(), files.end()); // QMultiHash gives the latest first
            for (QString &name : files)
                name.replace(QLatin1String("%d"), home).replace(QLatin1Char('~'), home);
            QCOMPARE(ours.identityFiles(), files);
        }

        // Algorithm lists: "+", "-" (with wildcards), "^" and plain, applied to
        // OpenSSH's own defaults, as it applies them.
        const QMultiHash<QString, QString> defaults
            = openssh(QStringLiteral("/dev/null"), QStringLiteral("x"));
        const QList<std::pair<QString, QString>> settings = {
            { "kexalgorithms", "+diffie-hellman-group14-sha1,diffie-hellman-group1-sha1" },
            { "kexalgorithms", "-*-sha512,ecdh-sha2-nistp384" }, { "ciphers", "^aes128-cbc,aes256-ctr" },
            { "macs", "hmac-sha1,hmac-sha2-256" },
            { "hostkeyalgorithms", "+ssh-ed25519,ssh-rsa" }, // one already there stays where it is
        };
        for (const auto &[keyword, setting] : settings) {
            QVERIFY(
                tw::test::writeFile(file, "Host x\n    " + keyword.toUtf8() + ' ' + setting.toUtf8() + '\n'));
            QCOMPARE(SshConfig::resolveAlgorithms(setting, defaults.value(keyword)),
                openssh(file, "x").value(keyword));
        }
    }

    void oldDevicesWithTheReadmeLines()
    {
        // The README's example, pointed at the private sshd.
        QByteArray readme = tw::test::readFile(QStringLiteral(TW_SOURCE_DIR "/README.md"));
        const qsizetype start = readme.indexOf("      Host old-switch\n");
        QVERIFY(start > 0);
        QByteArray block = readme.mid(start, readme.indexOf("\n\n", start) - start);
        for (const QByteArray kind : { "KexAlgorithms +", "HostKeyAlgorithms +", "Ciphers +", "MACs +" })
            QVERIFY2(block.contains(kind), kind.constData());
        QVERIFY(PrivateSshd::keygen(m_sshd.path("rsa_host_key"), "rsa"));
        // The device's address becomes the private sshd's.
        const qsizetype hostName = block.indexOf("HostName ") + 9;
        block.replace(hostName, block.indexOf('\n', hostName) - hostName, "127.0.0.1");
        const auto clientLines = [&] {
            return "\n" + block + "\n    Port " + QByteArray::number(m_sshd.port) + "\n    User "
                + m_sshd.user.toUtf8() + "\n";
        };

        // Devices with only ssh-rsa, hmac-sha1, and group 14 with aes128-cbc or (the oldest) group 1
        // with 3DES: the README's lines reach them; libssh's defaults alone do not.
        for (const QByteArray kexAndCipher :
            { "group14-sha1\nCiphers aes128-cbc", "group1-sha1\nCiphers 3des-cbc" }) {
            m_sshd.start("KexAlgorithms diffie-hellman-" + kexAndCipher
                    + "\nHostKeyAlgorithms ssh-rsa\nMACs hmac-sha1\n",
                {}, QStringLiteral("rsa_host_key"));
            QVERIFY(m_sshd.writeClientConfig(clientLines()));
            QString text = visit(QStringLiteral("old-switch"));
            QVERIFY2(text.endsWith(QLatin1String("R1#\n\nDisconected\n")), qPrintable(text));
            text = visit(QStringLiteral("fake-r1"));
            QVERIFY2(text.contains(QLatin1String("SSH Err: cannot connect to fake-r1")), qPrintable(text));
        }
    }

    void smallRsaKeys()
    {
        // ssh-keygen makes no RSA key under 1024 bits; openssl does, in a form libssh reads.
        const QString key = m_sshd.sshFile("small_rsa");
        QVERIFY2(
            PrivateSshd::run(QStringLiteral("openssl"), { "genrsa", "-traditional", "-out", key, "768" }),
            "openssl is missing: install openssl");
        const QByteArray lines = "    IdentityFile ~/.ssh/small_rsa\n    IdentitiesOnly yes\n";
        m_sshd.start({}, lines);
        QString text = visit(QStringLiteral("fake-r1"));
        QVERIFY2(text.startsWith(key
                     + QLatin1String(": an RSA key of 768 bits, under 1024 (RequiredRSASize); "
                                     "not offered\n")),
            qPrintable(text));
        QTRY_VERIFY_WITH_TIMEOUT(
            m_sshd.log().contains("Disconnected from authenticating user"), PrivateSshd::waitMs);
        QVERIFY(!m_sshd.log().contains("Invalid key length"));

        // A host that says so gets it, with a warning; libssh goes no lower
        // than 768 bits. (The server, OpenSSH's, then refuses it itself.)
        QVERIFY(m_sshd.writeClientConfig(lines + "    RequiredRSASize 512\n"));
        text = visit(QStringLiteral("fake-r1"));
        QVERIFY2(
            text.startsWith(QLatin1String(
                "RequiredRSASize 512 for fake-r1: RSA keys under 768 bits are never accepted\nWARNING: RSA "
                "keys of 768 bits and more are accepted for fake-r1 (RequiredRSASize); keys under 1024 bits "
                "are weak\n")),
            qPrintable(text));
        QVERIFY(!text.contains(QLatin1String("not offered")));
        QTRY_VERIFY_WITH_TIMEOUT(m_sshd.log().contains("Invalid key length"), PrivateSshd::waitMs);
    }
};

QTEST_MAIN(TestConsoleSshLogin)
#include "tst_console_ssh_login.moc"
