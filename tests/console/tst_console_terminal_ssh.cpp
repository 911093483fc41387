#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/console_window.h"
#include "console/terminal_widget.h"
#include "test_support.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <pwd.h>
#include <unistd.h>

// An SSH console in terminal mode against OpenSSH's sshd, started here on a
// loopback port in front of a plain /bin/sh (with no prompt of its own): a coloured prompt printed by the
// far end captions the console, and the far end's pty follows the window.
class TestConsoleTerminalSsh : public QObject
{
    Q_OBJECT
    QTemporaryDir m_dir;
    QProcess m_sshd;
    quint16 m_port = 0;
    QString m_user;

    QString path(const QString &name) const { return m_dir.filePath(name); }

    static bool run(const QString &program, const QStringList &arguments)
    {
        QProcess process;
        process.start(program, arguments);
        return process.waitForFinished(30000) && process.exitCode() == 0;
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

    static void type(ConsoleWindow *window, const QByteArray &line)
    {
        for (const char c : line)
            QTest::keyClick(window->terminalBox(), c);
        QTest::keyClick(window->terminalBox(), Qt::Key_Return);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(QFile::exists(QStringLiteral("/usr/sbin/sshd")), "sshd is missing: install openssh-server");
        QVERIFY(m_dir.isValid());
        const QString home = path("home");
        QVERIFY(QDir().mkpath(home + QStringLiteral("/.ssh")));
        qputenv("HOME", QFile::encodeName(home));
        qunsetenv("SSH_AUTH_SOCK");
        const passwd *account = getpwuid(getuid());
        QVERIFY(account);
        m_user = QString::fromLocal8Bit(account->pw_name);
        if (getuid() == 0)
            QDir().mkpath("/run/sshd");
        const QString clientKey = home + QStringLiteral("/.ssh/id_ed25519");
        QVERIFY(run("ssh-keygen", { "-q", "-t", "ed25519", "-N", "", "-f", path("host_key") }));
        QVERIFY(run("ssh-keygen", { "-q", "-t", "ed25519", "-N", "", "-f", clientKey }));
        QFile::copy(clientKey + QStringLiteral(".pub"), path("authorized_keys"));

        m_port = tw::test::freeTcpPort();
        writeFile(path("sshd_config"),
            QStringLiteral(
                "Port %1\nListenAddress 127.0.0.1\nHostKey %2\nPidFile none\nAuthorizedKeysFile %3\n"
                "UsePAM no\nStrictModes no\nPermitRootLogin prohibit-password\n"
                "PasswordAuthentication no\nKbdInteractiveAuthentication no\nForceCommand env PS1= /bin/sh\n"
                // The session's shell reads its start-up files from the test's home, not the real one.
                "SetEnv HOME=%4\n")
                .arg(m_port)
                .arg(path("host_key"), path("authorized_keys"), home)
                .toUtf8());
        writeFile(home + QStringLiteral("/.ssh/known_hosts"),
            "[127.0.0.1]:" + QByteArray::number(m_port) + " ssh-ed25519 "
                + readFile(path("host_key.pub")).split(' ').value(1) + "\n");
        m_sshd.setProcessChannelMode(QProcess::MergedChannels);
        m_sshd.start(QStringLiteral("/usr/sbin/sshd"), { "-D", "-e", "-f", path("sshd_config") });
        QVERIFY2(m_sshd.waitForStarted(), qPrintable(m_sshd.errorString()));
        const auto listening = [this] {
            QTcpSocket client;
            client.connectToHost(QHostAddress::LocalHost, m_port);
            return client.waitForConnected(500);
        };
        QTRY_VERIFY2_WITH_TIMEOUT(listening(), m_sshd.readAll().constData(), 120000);
    }

    void cleanupTestCase()
    {
        m_sshd.kill();
        m_sshd.waitForFinished(10000);
    }

    void colouredPromptAndWindowSize()
    {
        ConsoleWindow window;
        window.resize(900, 560);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        ConnectTarget target;
        target.kind = QStringLiteral("SSH");
        target.host = QStringLiteral("127.0.0.1");
        target.port = m_port;
        target.user = m_user;
        connectRemembered(window.session(), target);
        // SSH consoles are terminals unless the user said otherwise.
        QVERIFY(window.session()->terminalEmulation() && window.terminalBox()->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(window.session()->sshOpen(), 20000);

        type(&window, "printf '\\033[1;32mleaf1#\\033[0m '");
        QTRY_VERIFY2_WITH_TIMEOUT(
            window.windowTitle() == QLatin1String("leaf1#"), qPrintable(window.shownText()), 120000);
        QVERIFY(window.shownText().endsWith(QLatin1String("\nleaf1#")));

        const QRegularExpression size(QStringLiteral("\n(\\d+) (\\d+)\n"));
        const auto farEndSize = [&] {
            const auto match = size.globalMatch(window.shownText());
            QString last;
            for (auto it = match; it.hasNext();) {
                const auto m = it.next();
                last = m.captured(2) + QLatin1Char('x') + m.captured(1);
            }
            return last;
        };
        const auto viewSize = [&] {
            return QStringLiteral("%1x%2")
                .arg(window.terminalBox()->gridColumns())
                .arg(window.terminalBox()->gridRows());
        };
        type(&window, "stty size");
        QTRY_COMPARE_WITH_TIMEOUT(farEndSize(), viewSize(), 120000);
        const QString before = viewSize();
        window.resize(640, 420);
        QTRY_VERIFY(viewSize() != before);
        type(&window, "stty size");
        QTRY_COMPARE_WITH_TIMEOUT(farEndSize(), viewSize(), 120000);
    }
};

QTEST_MAIN(TestConsoleTerminalSsh)
#include "tst_console_terminal_ssh.moc"
