#pragma once

#include <QHostAddress>
#include <QObject>
#include <QString>
#include <functional>

class QUdpSocket;

// The TFTP server's datagram I/O, as small as the server needs it. The
// program uses UdpDatagramSocket (a QUdpSocket); the fuzz harness puts an
// in-memory socket behind the same interface, so whole request streams run
// thousands of times a second without a network.
class DatagramSocket : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

    // exclusive: fail when another socket holds the port (the listener);
    // otherwise port 0 picks a free one (a transfer's own port).
    virtual bool bind(const QHostAddress &address, quint16 port, bool exclusive) = 0;
    virtual bool isBound() const = 0;
    virtual void close() = 0;
    virtual quint16 localPort() const = 0;
    virtual bool hasPendingDatagrams() const = 0;
    // The next datagram into data (at most maxSize bytes); -1 when none. The
    // local address it was sent to is asked for only on the listener.
    virtual qint64 readDatagram(char *data, qint64 maxSize, QHostAddress *sender, quint16 *senderPort,
        QHostAddress *destination = nullptr)
        = 0;
    virtual qint64 writeDatagram(const QByteArray &datagram, const QHostAddress &to, quint16 port) = 0;
    virtual QString errorString() const = 0;

Q_SIGNALS:
    void readyRead();
    void errorOccurred(int socketError); // a QAbstractSocket::SocketError
};

using DatagramSocketFactory = std::function<DatagramSocket *(QObject *parent)>;

class UdpDatagramSocket : public DatagramSocket
{
    Q_OBJECT
public:
    explicit UdpDatagramSocket(QObject *parent = nullptr);

    bool bind(const QHostAddress &address, quint16 port, bool exclusive) override;
    bool isBound() const override;
    void close() override;
    quint16 localPort() const override;
    bool hasPendingDatagrams() const override;
    qint64 readDatagram(char *data, qint64 maxSize, QHostAddress *sender, quint16 *senderPort,
        QHostAddress *destination = nullptr) override;
    qint64 writeDatagram(const QByteArray &datagram, const QHostAddress &to, quint16 port) override;
    QString errorString() const override;

private:
    QUdpSocket *m_socket;
};
