#include "fake_flash_device.h"

#include <QRegularExpression>

namespace {
const QByteArray firstPage
    = "\r\nDirectory of flash:/\r\n\r\n"
      "    1  -rw-     8617624   Mar 01 1993 00:01:41 +00:00  c2600-i-mz.122-8.T.bin\r\n"
      "    2  -rw-        1024   Mar 01 1993 00:05:12 +00:00  startup-backup.cfg\r\n"
      "    3  -rw-         733   Mar 02 1993 10:11:12 +00:00  vlan.dat\r\n"
      " --More-- ";
const QByteArray secondPage = "\b\b\b\b\b\b\b\b\b\b          \b\b\b\b\b\b\b\b\b\b"
                              "    4  -rw-       52431   Mar 03 1993 09:00:00 +00:00  crashinfo_1993\r\n"
                              "\r\n15998976 bytes total (7381248 bytes free)\r\nR1#";
} // namespace

FakeFlashDevice::FakeFlashDevice(QObject *parent)
    : QObject(parent)
{
    m_server.listen(QHostAddress::LocalHost, 0);
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        m_client = m_server.nextPendingConnection();
        connect(m_client, &QTcpSocket::readyRead, this, &FakeFlashDevice::onReadyRead);
        m_client->write("\r\nR1#");
    });
}

QStringList FakeFlashDevice::listedFiles()
{
    return { "c2600-i-mz.122-8.T.bin", "startup-backup.cfg", "vlan.dat", "crashinfo_1993" };
}

void FakeFlashDevice::sendToConsole(const QByteArray &text)
{
    if (m_client)
        m_client->write(text);
}

void FakeFlashDevice::onReadyRead()
{
    const QByteArray data = m_client->readAll();
    m_received += data;
    if (m_paging && data == " ") {
        m_paging = false;
        m_client->write(secondPage);
        return;
    }
    m_pending += data;
    static const QRegularExpression copyGroup(QStringLiteral("copy flash:(\\S+) tftp\\r([^\\r]*)\\r\\r"));
    for (;;) {
        if (m_pending.startsWith(" dir flash: \r")) {
            m_client->write(" dir flash: " + firstPage);
            m_pending.remove(0, 13);
            m_paging = true;
            continue;
        }
        const auto match = copyGroup.match(QString::fromLatin1(m_pending));
        if (!match.hasMatch())
            break;
        m_pending.remove(0, match.capturedEnd());
        Q_EMIT copyRequested(match.captured(1), match.captured(2));
    }
}
