#include "test_support.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QHostAddress>
#include <QTcpServer>
#include <QUdpSocket>

namespace tw::test {

quint16 freeUdpPort()
{
    QUdpSocket probe;
    return probe.bind(QHostAddress::LocalHost, 0) ? probe.localPort() : 0;
}

quint16 freeTcpPort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

QSettings settingsStore()
{
    return QSettings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QByteArray junk(QRandomGenerator &rng, int maxSize)
{
    QByteArray bytes(int(rng.bounded(maxSize)), Qt::Uninitialized);
    for (char &c : bytes)
        c = char(rng.bounded(256));
    return bytes;
}

void startHeadless(QProcess &program, const QString &home, const QStringList &arguments, bool keepHome)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home);
    if (!keepHome)
        env.insert(QStringLiteral("HOME"), home);
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    program.setProcessEnvironment(env);
    program.setWorkingDirectory(home);
    QStringList all { QStringLiteral("--headless") };
    if (!arguments.contains(QLatin1String("--acl")))
        all << QStringLiteral("--acl") << home + QStringLiteral("/ACLIST.ini");
    for (const char *port : { "--tftp-port", "--log-port" })
        if (!arguments.contains(QLatin1String(port)))
            all << QLatin1String(port) << QString::number(freeUdpPort());
    program.start(QStringLiteral(TW_PROGRAM), all + arguments);
}

bool waitForOutput(QProcess &program, const QByteArray &needle, QByteArray &seen)
{
    const QDeadlineTimer deadline(60000);
    while (!seen.contains(needle) && !deadline.hasExpired()) {
        if (program.state() != QProcess::Running && program.bytesAvailable() == 0)
            break;
        program.waitForReadyRead(200);
        seen += program.readAllStandardOutput();
    }
    return seen.contains(needle);
}

} // namespace tw::test
