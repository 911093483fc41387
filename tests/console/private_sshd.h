#pragma once

#include "test_support.h"

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QProcess>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <pwd.h>
#include <unistd.h>

// OpenSSH's sshd, started by a test as the current user on a free loopback
// port in front of a fake device shell (device.sh: a banner, the "R1#"
// prompt, "show version", "conf t", and "exit"/"logout N" that end the shell with
// that status). HOME points at home() so nobody's own ~/.ssh is read or
// written; "fake-r1" in home()/.ssh/config names the server. The device's
// shell gets that HOME too, so the account's own shell start-up files (which
// may hang on a lock of their own) stay out of the test.
class PrivateSshd
{
public:
    // A login under the sanitizer on a loaded machine takes tens of seconds; waits end on the fact.
    static constexpr int waitMs = 120000;

    QTemporaryDir dir;
    QString user; // sshd logs in the account the test runs as, whatever USER says
    QProcess process;
    quint16 port = 0;

    QString path(const QString &name) const { return dir.filePath(name); }
    QString home() const { return path(QStringLiteral("home")); }
    QString sshFile(const QString &name) const { return home() + QStringLiteral("/.ssh/") + name; }

    static bool run(const QString &program, const QStringList &arguments,
        const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
    {
        QProcess process;
        process.setProcessEnvironment(env);
        process.start(program, arguments);
        return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit
            && process.exitCode() == 0;
    }
    static bool keygen(const QString &file, const char *type = "ed25519", const char *passphrase = "")
    {
        return run(QStringLiteral("ssh-keygen"), { "-q", "-t", type, "-N", passphrase, "-f", file });
    }

    // Keys (host_key, home's id_ed25519, authorised), the device and HOME.
    // A second sshd beside the first (a jump host) keeps the first's HOME
    // (clientHome false) and authorises only a key of its own.
    bool prepare(bool clientHome = true)
    {
        if (!QFile::exists(QStringLiteral("/usr/sbin/sshd"))
            || !QFile::exists(QStringLiteral("/usr/bin/ssh-keygen")))
            return false;
        const passwd *account = getpwuid(getuid());
        if (!dir.isValid() || !account || !QDir().mkpath(home() + QStringLiteral("/.ssh")))
            return false;
        user = QString::fromLocal8Bit(account->pw_name);
        if (clientHome) {
            qputenv("HOME", QFile::encodeName(home()));
            qunsetenv("SSH_AUTH_SOCK"); // the user's agent has no say in a test
        }
        if (getuid() == 0) // as root sshd insists on its privilege separation folder
            QDir().mkpath(QStringLiteral("/run/sshd"));
        return keygen(path("host_key")) && keygen(sshFile("id_ed25519"))
            && QFile::copy(sshFile("id_ed25519.pub"), path("authorized_keys"))
            && tw::test::writeFile(path("device.sh"),
                "#!/bin/sh\n"
                "printf '\\r\\nFake R1 on an SSH line.\\r\\n\\r\\nR1#'\n"
                "prompt='R1#'\n"
                "while IFS= read -r line; do\n"
                "  case \"$line\" in\n"
                "    'show version'*) printf 'Fake IOS Software, Version 15.1.4M\\r\\n' ;;\n"
                "    'conf t'*) prompt='R1(config)#' ;;\n"
                "    logout*) exit ${line#logout } ;;\n"
                "    exit*) exit 0 ;;\n"
                "  esac\n"
                "  printf '%s' \"$prompt\"\n"
                "done\n")
            && QFile::setPermissions(
                path("device.sh"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    // Starts sshd with extra sshd_config lines (they come first, so they win)
    // and writes fake-r1's Host block with extra ssh_config lines.
    void start(const QByteArray &serverLines = {}, const QByteArray &clientLines = {},
        const QString &hostKey = QStringLiteral("host_key"))
    {
        stop();
        port = tw::test::freeTcpPort();
        const QString config = QStringLiteral("Port %1\nListenAddress 127.0.0.1\nHostKey %2\nPidFile none\n"
                                              "AuthorizedKeysFile %3\nUsePAM no\nStrictModes no\n"
                                              "PermitRootLogin yes\nPasswordAuthentication no\n"
                                              "KbdInteractiveAuthentication no\nLogLevel DEBUG3\n"
                                              "ForceCommand %4\nSetEnv HOME=%5\n")
                                   .arg(port)
                                   .arg(path(hostKey), path("authorized_keys"), path("device.sh"), home());
        QVERIFY(tw::test::writeFile(path("sshd_config"), serverLines + '\n' + config.toUtf8()));
        QVERIFY(writeClientConfig(clientLines) && trust(port, hostKey));
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(QStringLiteral("/usr/sbin/sshd"),
            { QStringLiteral("-D"), QStringLiteral("-e"), QStringLiteral("-f"), path("sshd_config") });
        QVERIFY2(process.waitForStarted(), qPrintable(process.errorString()));
        const auto listening = [this] {
            QTcpSocket client;
            client.connectToHost(QHostAddress::LocalHost, port);
            return client.waitForConnected(500);
        };
        QTRY_VERIFY2_WITH_TIMEOUT(listening(), process.readAll().constData(), waitMs);
    }

    // home()/.ssh/known_hosts holding only hostKey (ours by default) for 127.0.0.1 at port.
    bool trust(quint16 at, const QString &hostKey = QStringLiteral("host_key")) const
    {
        const QByteArray key
            = tw::test::readFile(path(hostKey + QStringLiteral(".pub"))).split(' ').mid(0, 2).join(' ');
        return tw::test::writeFile(
            sshFile("known_hosts"), "[127.0.0.1]:" + QByteArray::number(at) + ' ' + key + '\n');
    }

    // home()/.ssh/config: fake-r1 for this server, then the given lines.
    bool writeClientConfig(const QByteArray &lines)
    {
        return tw::test::writeFile(sshFile("config"),
            "Host fake-r1\n    HostName 127.0.0.1\n    Port " + QByteArray::number(port) + "\n    User "
                + user.toUtf8() + "\n" + lines);
    }

    void stop()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(10000);
        }
    }

    // What sshd logged since the last call, added to log.
    QByteArray &log()
    {
        m_log += process.readAll();
        return m_log;
    }

    // Sends sig to every per-connection sshd process (and its shell): the device
    // dies (SIGKILL) or stops answering (SIGSTOP). False if there was none.
    bool signalSessions(int sig) const
    {
        const QList<qint64> sessions = descendants(process.processId());
        for (qint64 pid : sessions)
            ::kill(pid_t(pid), sig);
        return !sessions.isEmpty();
    }

private:
    // The per-connection sshd processes (and their shells).
    static QList<qint64> descendants(qint64 pid)
    {
        QList<qint64> found;
        const QDir tasks(QStringLiteral("/proc/%1/task").arg(pid));
        for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            const QByteArray children
                = tw::test::readFile(tasks.filePath(task + QStringLiteral("/children")));
            for (const QByteArray &child : children.split(' ')) {
                if (const qint64 pid = child.trimmed().toLongLong(); pid > 0)
                    found << pid << descendants(pid);
            }
        }
        return found;
    }

    QByteArray m_log;
};
