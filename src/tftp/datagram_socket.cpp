#include "tftp/datagram_socket.h"

#include <QNetworkDatagram>
#include <QUdpSocket>

UdpDatagramSocket::UdpDatagramSocket(QObject *parent)
    : DatagramSocket(parent)
    , m_socket(new QUdpSocket(this))
{
    connect(m_socket, &QUdpSocket::readyRead, this, &DatagramSocket::readyRead);
    connect(m_socket, &QUdpSocket::errorOccurred, this,
        [this](QAbstractSocket::SocketError error) { emit errorOccurred(int(error)); });
}

bool UdpDatagramSocket::bind(const QHostAddress &address, quint16 port, bool exclusive)
{
    return m_socket->bind(
        address, port, exclusive ? QAbstractSocket::DontShareAddress : QAbstractSocket::DefaultForPlatform);
}

bool UdpDatagramSocket::isBound() const
{
    return m_socket->state() == QAbstractSocket::BoundState;
}

void UdpDatagramSocket::close()
{
    m_socket->close();
}

quint16 UdpDatagramSocket::localPort() const
{
    return m_socket->localPort();
}

bool UdpDatagramSocket::hasPendingDatagrams() const
{
    return m_socket->hasPendingDatagrams();
}

qint64 UdpDatagramSocket::readDatagram(
    char *data, qint64 maxSize, QHostAddress *sender, quint16 *senderPort, QHostAddress *destination)
{
    if (!destination)
        return m_socket->readDatagram(data, maxSize, sender, senderPort);
    // Requests are rare; this form also tells which local address was asked.
    const QNetworkDatagram datagram = m_socket->receiveDatagram(maxSize);
    if (!datagram.isValid())
        return -1;
    const qint64 size = qMin<qint64>(datagram.data().size(), maxSize);
    memcpy(data, datagram.data().constData(), size_t(size));
    *sender = datagram.senderAddress();
    *senderPort = quint16(datagram.senderPort());
    *destination = datagram.destinationAddress();
    return size;
}

qint64 UdpDatagramSocket::writeDatagram(const QByteArray &datagram, const QHostAddress &to, quint16 port)
{
    return m_socket->writeDatagram(datagram, to, port);
}

QString UdpDatagramSocket::errorString() const
{
    return m_socket->errorString();
}
