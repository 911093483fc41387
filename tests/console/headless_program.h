#pragma once

#include <QProcess>
#include <QTemporaryDir>
#include <QUdpSocket>

// Starts the real program headless with its settings in home (and HOME there
// too unless the caller keeps its own) and its TFTP and syslog listeners on a
// free UDP port, so nothing of the user's is touched.
inline void startHeadless(
    QProcess &program, const QTemporaryDir &home, const QString &connect, bool homeToo = true)
{
    QUdpSocket probe;
    probe.bind(QHostAddress::LocalHost, 0);
    const QString freeUdp = QString::number(probe.localPort());
    probe.close();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.path());
    if (homeToo)
        env.insert(QStringLiteral("HOME"), home.path());
    env.remove(QStringLiteral("DISPLAY"));
    program.setProcessEnvironment(env);
    program.setWorkingDirectory(home.path());
    program.start(QStringLiteral(TW_PROGRAM),
        { "--headless", "--acl", home.filePath("ACLIST.ini"), "--tftp-port", freeUdp, "--log-port", freeUdp,
            "--connect", connect });
}
