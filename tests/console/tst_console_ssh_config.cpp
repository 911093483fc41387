#include "console/console_session.h"
#include "console/ssh_config.h"
#include "private_sshd.h"
#include "test_support.h"

// ~/.ssh/config as OpenSSH's client reads it (`ssh -G` is the oracle), and
// the README's lines for old devices against an sshd that speaks nothing else.
class TestConsoleSshConfig : public QObject
{
    Q_OBJECT
    PrivateSshd m_sshd;

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

    static QString yesNo(bool value) { return value ? QStringLiteral("yes") : QStringLiteral("no"); }
    static QString normalised(const QString &value)
    {
        return value == QLatin1String("true") ? QStringLiteral("yes")
            : value == QLatin1String("false") ? QStringLiteral("no")
            : value == QLatin1String("none")  ? QStringLiteral("0")
                                              : value;
    }

    // What a console shows, line ends as one break.
    static QString run(ConsoleSession &session, const QString &host)
    {
        QString text;
        const QMetaObject::Connection collect = QObject::connect(&session, &ConsoleSession::terminalAppend,
            &session, [&text](QString part) { text += part.replace(QLatin1Char('\r'), QString()); });
        session.ConnectSSH(host, 0, QString());
        (void)QTest::qWaitFor(
            [&] {
                return session.sshOpen() ? text.endsWith(QLatin1String("R1#"))
                                         : session.connectionKind().isEmpty();
            },
            PrivateSshd::waitMs);
        session.disconnectSession();
        QObject::disconnect(collect);
        return text;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_sshd.prepare(), "sshd or ssh-keygen is missing: install openssh-server");
        QVERIFY2(QFile::exists(QStringLiteral("/usr/bin/ssh")), "ssh is missing: install openssh-client");
    }

    void cleanup() { m_sshd.stop(); }

    void keywordsReadAsOpenSshReadsThem()
    {
        const QString extra = m_sshd.path(QStringLiteral("extra_a.conf"));
        QVERIFY(tw::test::writeFile(extra, "Host secret.lab\n    User spy\n    ConnectTimeout 3\n"));
        const QString file = m_sshd.path(QStringLiteral("config"));
        QVERIFY(tw::test::writeFile(file,
            "# kept by hand\n"
            "Include "
                + m_sshd.path(QStringLiteral("extra_*.conf")).toUtf8()
                + "\n"
                  "Host *.lab !secret.lab\n"
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
            const QList<std::pair<QString, QString>> compared = {
                { "user", ours.value("user", m_sshd.user) },
                { "hostname", ours.value("hostname", host) },
                { "port", QString::number(ours.number("port", 22)) },
                { "identitiesonly", yesNo(ours.flag("identitiesonly", false)) },
                { "pubkeyauthentication", yesNo(ours.flag("pubkeyauthentication", true)) },
                { "passwordauthentication", yesNo(ours.flag("passwordauthentication", true)) },
                { "kbdinteractiveauthentication", yesNo(ours.flag("kbdinteractiveauthentication", true)) },
                { "numberofpasswordprompts", QString::number(ours.number("numberofpasswordprompts", 3)) },
                { "connecttimeout", QString::number(ours.number("connecttimeout", 0)) },
                { "serveraliveinterval", QString::number(ours.number("serveraliveinterval", 0)) },
                { "serveralivecountmax", QString::number(ours.number("serveralivecountmax", 3)) },
                { "requiredrsasize", QString::number(ours.number("requiredrsasize", 1024)) },
                // Whichever of the two comes first holds.
                { "proxyjump", ours.value("proxyjump") },
                { "proxycommand", ours.value("proxycommand") },
            };
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
            { "kexalgorithms", "-*-sha512,ecdh-sha2-nistp384" },
            { "ciphers", "^aes128-cbc,aes256-ctr" },
            { "macs", "hmac-sha1,hmac-sha2-256" },
            { "hostkeyalgorithms", "+ssh-rsa" },
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

        // A device with only group 14, ssh-rsa, aes128-cbc and hmac-sha1: the
        // README's lines reach it; libssh's defaults alone do not.
        m_sshd.start("KexAlgorithms diffie-hellman-group14-sha1\nHostKeyAlgorithms ssh-rsa\n"
                     "Ciphers aes128-cbc\nMACs hmac-sha1\n",
            {}, QStringLiteral("rsa_host_key"));
        QVERIFY(m_sshd.writeClientConfig(clientLines()));
        ConsoleSession session;
        QString text = run(session, QStringLiteral("old-switch"));
        QVERIFY2(text.endsWith(QLatin1String("R1#\n\nDisconected\n")), qPrintable(text));
        text = run(session, QStringLiteral("fake-r1"));
        QVERIFY2(text.contains(QLatin1String("SSH Err: cannot connect to fake-r1")), qPrintable(text));

        // The oldest: group 1 and 3DES.
        m_sshd.start("KexAlgorithms diffie-hellman-group1-sha1\nHostKeyAlgorithms ssh-rsa\n"
                     "Ciphers 3des-cbc\nMACs hmac-sha1\n",
            {}, QStringLiteral("rsa_host_key"));
        QVERIFY(m_sshd.writeClientConfig(clientLines()));
        text = run(session, QStringLiteral("old-switch"));
        QVERIFY2(text.endsWith(QLatin1String("R1#\n\nDisconected\n")), qPrintable(text));
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
        ConsoleSession session;
        QString text = run(session, QStringLiteral("fake-r1"));
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
        text = run(session, QStringLiteral("fake-r1"));
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

QTEST_MAIN(TestConsoleSshConfig)
#include "tst_console_ssh_config.moc"
