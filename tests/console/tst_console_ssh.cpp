#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/console_window.h"
#include "console/modem_options.h"
#include "console/ssh_connection.h"
#include "console/terminal_view.h"
#include "logrecv/log_options.h"
#include "logrecv/log_receiver.h"
#include "logrecv/log_routes.h"
#include "test_support.h"

#include <QAction>
#include <QComboBox>
#include <QDialog>
#include <QDir>
#include <QFile>
#include <QLineEdit>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

#include <csignal>
#include <pwd.h>
#include <unistd.h>

// SSH consoles against OpenSSH's sshd, started here as the current user on a
// loopback port in front of a fake device shell. HOME is a temporary folder, so
// nobody's own ~/.ssh is read or written.
class TestConsoleSsh : public QObject
{
    Q_OBJECT
    QTemporaryDir m_dir;
    QString m_home, m_user;
    QProcess m_sshd;
    quint16 m_port = 0;
    QPointer<ConsoleWindow> m_window;

    QString path(const QString &name) const { return m_dir.filePath(name); }
    QString sshFile(const QString &name) const { return m_home + QStringLiteral("/.ssh/") + name; }
    QString consoleText() const { return m_window->shownText(); }
    ConsoleSession &session() const { return *m_window->session(); }

    static bool run(const QString &program, const QStringList &arguments)
    {
        QProcess process;
        process.start(program, arguments);
        return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit
            && process.exitCode() == 0;
    }

    static bool keygen(const QString &file, const char *type = "ed25519", const char *passphrase = "")
    {
        return run(QStringLiteral("ssh-keygen"), { "-q", "-t", type, "-N", passphrase, "-f", file });
    }

    static void writeFile(const QString &name, const QByteArray &text)
    {
        QFile file(name);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(text);
    }

    static QByteArray readFile(const QString &name)
    {
        QFile file(name);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    // Starts sshd on a free loopback port with the given host key.
    void startServer(const QString &hostKey)
    {
        stopServer();
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        m_port = probe.serverPort();
        probe.close();
        const QString config = QStringLiteral("Port %1\nListenAddress 127.0.0.1\nHostKey %2\nPidFile none\n"
                                              "AuthorizedKeysFile %3\nUsePAM no\nStrictModes no\n"
                                              "PermitRootLogin prohibit-password\nPasswordAuthentication no\n"
                                              "KbdInteractiveAuthentication no\nLogLevel DEBUG3\n"
                                              "ForceCommand %4\n")
                                   .arg(m_port)
                                   .arg(path(hostKey), path("authorized_keys"), path("device.sh"));
        writeFile(path("sshd_config"), config.toUtf8());
        // Per-host settings come from $HOME/.ssh/config: "fake-r1" is this server.
        writeFile(sshFile("config"),
            QStringLiteral("Host fake-r1\n    HostName 127.0.0.1\n    Port %1\n    User %2\n")
                .arg(m_port)
                .arg(m_user)
                .toUtf8());
        m_sshd.setProcessChannelMode(QProcess::MergedChannels);
        m_sshd.start(QStringLiteral("/usr/sbin/sshd"),
            { QStringLiteral("-D"), QStringLiteral("-e"), QStringLiteral("-f"), path("sshd_config") });
        QVERIFY2(m_sshd.waitForStarted(), qPrintable(m_sshd.errorString()));
        const auto listening = [this] {
            QTcpSocket client;
            client.connectToHost(QHostAddress::LocalHost, m_port);
            return client.waitForConnected(500);
        };
        QTRY_VERIFY2_WITH_TIMEOUT(listening(), m_sshd.readAll().constData(), 15000);
    }

    // The per-connection sshd processes (and their shells) of our own sshd.
    static QList<qint64> descendants(qint64 pid)
    {
        QList<qint64> found;
        const QDir tasks(QStringLiteral("/proc/%1/task").arg(pid));
        for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            const QByteArray children = readFile(tasks.filePath(task + QStringLiteral("/children")));
            for (const QByteArray &child : children.split(' ')) {
                if (child.trimmed().toLongLong() > 0)
                    found << child.trimmed().toLongLong() << descendants(child.trimmed().toLongLong());
            }
        }
        return found;
    }

    // The device dies mid-session: every sshd process of ours goes at once.
    void killServer()
    {
        const QList<qint64> sessions = descendants(m_sshd.processId());
        QVERIFY(!sessions.isEmpty());
        for (qint64 pid : sessions)
            ::kill(pid_t(pid), SIGKILL);
        stopServer();
    }

    void stopServer()
    {
        if (m_sshd.state() != QProcess::NotRunning) {
            m_sshd.kill();
            m_sshd.waitForFinished(10000);
        }
    }

    // known_hosts holding the server's real key.
    void trustServer()
    {
        const QByteArray key = readFile(path("host_key.pub")).split(' ').value(1);
        writeFile(sshFile("known_hosts"),
            "[127.0.0.1]:" + QByteArray::number(m_port) + " ssh-ed25519 " + key + "\n");
    }

    void clickHostKeyAnswer(const QString &answer)
    {
        QMessageBox *box = nullptr;
        QTRY_VERIFY_WITH_TIMEOUT((box = m_window->findChild<QMessageBox *>("SshHostKeyQuestion")), 15000);
        QVERIFY(box->text().contains(QLatin1String("SHA256:")));
        for (QAbstractButton *button : box->buttons()) {
            if (button->text() == answer)
                return QTest::mouseClick(button, Qt::LeftButton);
        }
        QFAIL(qPrintable(QStringLiteral("no button ") + answer));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QFile::exists(QStringLiteral("/usr/sbin/sshd")), "sshd is missing: install openssh-server");
        QVERIFY2(QFile::exists(QStringLiteral("/usr/bin/ssh-keygen")),
            "ssh-keygen is missing: install openssh-client");
        QVERIFY(m_dir.isValid());
        m_home = path("home");
        QVERIFY(QDir().mkpath(m_home + QStringLiteral("/.ssh")));
        qputenv("HOME", QFile::encodeName(m_home));
        qunsetenv("SSH_AUTH_SOCK"); // the user's agent has no say in this test
        QCOMPARE(QDir::homePath(), m_home);
        // sshd logs in the account the test runs as, whatever USER says.
        const passwd *account = getpwuid(getuid());
        QVERIFY(account);
        m_user = QString::fromLocal8Bit(account->pw_name);
        // As root sshd insists on its privilege separation folder.
        if (getuid() == 0)
            QDir().mkpath("/run/sshd");
        QVERIFY(keygen(path("host_key")) && keygen(path("other_host_key")) && keygen(sshFile("id_ed25519")));
        QFile::copy(sshFile("id_ed25519.pub"), path("authorized_keys"));
        // The fake device: a banner, the prompt, and a few commands; the pty echoes.
        writeFile(path("device.sh"),
            "#!/bin/sh\n"
            "printf '\\r\\nFake R1 on an SSH line, authorised access only.\\r\\n\\r\\nR1#'\n"
            "prompt='R1#'\n"
            "while IFS= read -r line; do\n"
            "  case \"$line\" in\n"
            "    'show version'*) printf 'Fake IOS Software, Version 15.1.4M\\r\\n' ;;\n"
            "    'conf t'*) prompt='R1(config)#' ;;\n"
            "    exit*) exit 0 ;;\n"
            "  esac\n"
            "  printf '%s' \"$prompt\"\n"
            "done\n");
        QFile::setPermissions(path("device.sh"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        startServer(QStringLiteral("host_key"));
    }

    void cleanupTestCase() { stopServer(); }

    void init()
    {
        if (m_sshd.state() == QProcess::NotRunning)
            startServer(QStringLiteral("host_key"));
        SshConnection::setInteractive(true);
        m_window = new ConsoleWindow;
        m_window->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_window));
    }

    void cleanup() { delete m_window; }

    void unknownKeyAskedThenSavedAndSessionWorks()
    {
        QFile::remove(sshFile("known_hosts"));
        LogOptions logOptions;
        LogReceiver receiver(&logOptions);
        LogRoutes routes;
        routes.attach(receiver);
        QVERIFY(receiver.bind(0, QHostAddress::LocalHost));
        routes.setConsole(3, m_window->logBox(), [this] { return session().deviceAddress(); });

        // Through the connection dialog, as a user does.
        m_window->newConnectionAction()->trigger();
        ModemOptions *dialog = m_window->findChild<ModemOptions *>();
        QVERIFY(dialog);
        dialog->connectWith()->setCurrentIndex(dialog->connectWith()->findText(QStringLiteral("SSH")));
        Q_EMIT dialog->connectWith()->textActivated(QStringLiteral("SSH"));
        for (int i = 0; i < 4; ++i)
            dialog->octetBox(i)->setText(QString::number(i == 0 ? 127 : i == 3));
        dialog->portBox()->setText(QString::number(m_port));
        dialog->userBox()->setText(m_user);
        QTest::mouseClick(dialog->okButton(), Qt::LeftButton);
        QCOMPARE(ConnectionHistory::target(0), (ConnectTarget { "SSH", "127.0.0.1", m_port, m_user }));
        QCOMPARE(session().connectionKind(), QStringLiteral("TCP/IP"));
        clickHostKeyAnswer(QStringLiteral("Accept and save"));
        QTRY_VERIFY_WITH_TIMEOUT(consoleText().endsWith(QLatin1String("R1#")), 15000);
        QVERIFY(session().sshOpen());
        QCOMPARE(m_window->windowTitle(), QStringLiteral("R1#"));
        QVERIFY(readFile(sshFile("known_hosts"))
                    .startsWith(QStringLiteral("[127.0.0.1]:%1 ssh-ed25519 ").arg(m_port).toLatin1()));

        // Typed keys reach the device; its echo and answer come back.
        QTest::keyClicks(m_window->consoleBox(), "show version");
        QTest::keyClick(m_window->consoleBox(), Qt::Key_Return);
        QTRY_VERIFY(consoleText().contains(QLatin1String("show version\nFake IOS Software")));
        QTest::keyClicks(m_window->consoleBox(), "conf t\r");
        QTRY_COMPARE(m_window->windowTitle(), QStringLiteral("R1"));

        // The device's syslog reaches this console, as for a TCP/IP one.
        QUdpSocket device;
        device.writeDatagram(
            "<189>R1: %SYS-5-CONFIG_I: Configured from vty", QHostAddress::LocalHost, receiver.localPort());
        QTRY_VERIFY(m_window->logBox()->toPlainText().contains(QLatin1String("%SYS-5-CONFIG_I")));

        // The break request reaches sshd; the two Telnet bytes do not go down the channel.
        m_sshd.readAll();
        m_window->sendBreakAction()->trigger();
        QByteArray log;
        QTRY_VERIFY2_WITH_TIMEOUT(
            (log += m_sshd.readAll()).contains("request break"), log.right(3000).constData(), 10000);

        m_window->disconnectAction()->trigger();
        QVERIFY(!session().sshOpen() && consoleText().endsWith(QLatin1String("Disconected\n")));
    }

    void knownKeySilentThenServerKilled()
    {
        // Saved by the previous case: no question this time.
        QVERIFY(readFile(sshFile("known_hosts")).contains("ssh-ed25519"));
        session().setTimerIntervals(0, 50);
        connectRemembered(m_window->session(), *parseConnectTarget(QStringLiteral("ssh://fake-r1")));
        QTRY_VERIFY_WITH_TIMEOUT(consoleText().endsWith(QLatin1String("R1#")), 15000);
        QVERIFY(!m_window->findChild<QMessageBox *>("SshHostKeyQuestion"));
        QCOMPARE(session().deviceAddress(), QStringLiteral("fake-r1"));

        killServer();
        QTRY_COMPARE_WITH_TIMEOUT(session().connectionKind(), QString(), 15000);
        QVERIFY2(
            consoleText().endsWith(QLatin1String("Connection timed out\n>\n")), qPrintable(consoleText()));
    }

    void changedKeyRefusedNamingItsLine()
    {
        const QByteArray otherKey = readFile(path("other_host_key.pub")).split(' ').value(1);
        writeFile(sshFile("known_hosts"),
            "# kept by hand\n[127.0.0.1]:" + QByteArray::number(m_port) + " ssh-ed25519 " + otherKey + "\n");
        session().ConnectSSH(QStringLiteral("127.0.0.1"), m_port, m_user);
        QTRY_COMPARE_WITH_TIMEOUT(session().connectionKind(), QString(), 15000);
        const QString text = consoleText();
        QVERIFY2(text.contains(QStringLiteral("SSH Err: WARNING: the host key of 127.0.0.1 has changed")),
            qPrintable(text));
        QVERIFY2(text.contains(QStringLiteral("line 2 of %1").arg(sshFile("known_hosts"))), qPrintable(text));
        QVERIFY(text.endsWith(QLatin1String("\n>\n")));
        QVERIFY(!m_window->findChild<QMessageBox *>("SshHostKeyQuestion"));
    }

    void passphraseAskedForAnEncryptedKey()
    {
        QVERIFY(keygen(sshFile("id_ecdsa"), "ecdsa", "open sesame"));
        writeFile(path("authorized_keys"), readFile(sshFile("id_ecdsa.pub")));
        trustServer();
        session().ConnectSSH(QStringLiteral("127.0.0.1"), m_port, m_user);
        QDialog *prompt = nullptr;
        QTRY_VERIFY_WITH_TIMEOUT((prompt = m_window->findChild<QDialog *>("SshSecretsDialog")), 15000);
        QLineEdit *edit = prompt->findChild<QLineEdit *>();
        QCOMPARE(edit->echoMode(), QLineEdit::Password);
        QTest::keyClicks(edit, "open sesame");
        prompt->accept();
        QTRY_VERIFY_WITH_TIMEOUT(consoleText().endsWith(QLatin1String("R1#")), 15000);
        QVERIFY(session().sshOpen());
        session().disconnectSession();
        QFile::remove(sshFile("id_ecdsa"));
        QFile::remove(sshFile("id_ecdsa.pub"));
        writeFile(path("authorized_keys"), readFile(sshFile("id_ed25519.pub")));
    }

    void connectOptionOpensSsh()
    {
        // The real program, headless: the saved key and the key file suffice.
        trustServer();
        QTemporaryDir settings;
        QProcess program;
        m_sshd.readAll();
        tw::test::startHeadless(program, settings.path(),
            { "--connect", QStringLiteral("ssh://%1@127.0.0.1:%2").arg(m_user).arg(m_port) }, true);
        QVERIFY2(program.waitForStarted(), qPrintable(program.errorString()));
        QByteArray log;
        QTRY_VERIFY2_WITH_TIMEOUT(
            (log += m_sshd.readAll()).contains("Accepted publickey for " + m_user.toUtf8()),
            log.right(2000).constData(), 20000);
        QTRY_VERIFY_WITH_TIMEOUT((log += m_sshd.readAll()).contains("session_pty_req"), 20000);
        program.terminate();
        QVERIFY(program.waitForFinished(10000));
    }

    void refusals()
    {
        // With no one to ask (--headless), an unknown key is refused.
        QFile::remove(sshFile("known_hosts"));
        SshConnection::setInteractive(false);
        session().ConnectSSH(QStringLiteral("127.0.0.1"), m_port, m_user);
        QTRY_COMPARE_WITH_TIMEOUT(session().connectionKind(), QString(), 15000);
        QVERIFY(consoleText().contains(QLatin1String("is not in")));
        QVERIFY(!QFile::exists(sshFile("known_hosts")));

        // A name that does not resolve: looked up without blocking, then refused.
        session().ConnectSSH(QStringLiteral("no..device"), 0, m_user);
        QTRY_COMPARE_WITH_TIMEOUT(session().connectionKind(), QString(), 15000);
        QVERIFY2(consoleText().contains(QLatin1String("SSH Err: cannot find no..device")),
            qPrintable(consoleText()));

        // A key the server does not know: authentication refused, console idle.
        SshConnection::setInteractive(true);
        QFile::remove(path("authorized_keys"));
        QVERIFY(keygen(path("stranger")));
        QFile::copy(path("stranger.pub"), path("authorized_keys"));
        m_window->consoleBox()->clear();
        session().ConnectSSH(QStringLiteral("127.0.0.1"), m_port, m_user);
        clickHostKeyAnswer(QStringLiteral("Accept once"));
        QTRY_COMPARE_WITH_TIMEOUT(session().connectionKind(), QString(), 15000);
        QVERIFY2(consoleText().contains(
                     QStringLiteral("SSH Err: authentication refused for %1@127.0.0.1\n>\n").arg(m_user)),
            qPrintable(consoleText()));
        QVERIFY(!QFile::exists(sshFile("known_hosts"))); // accepted once, not saved
    }
};

QTEST_MAIN(TestConsoleSsh)
#include "tst_console_ssh.moc"
