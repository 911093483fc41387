#include "tftp/tftp_server.h"

#include "access/access_list.h"
#include "tftp/transfer_monitor.h"

#include <QAbstractSocket>
#include <QFile>
#include <QTimer>

TftpServer::TftpServer(TransferMonitor *monitor, AccessList *acl, QObject *parent)
    : QObject(parent)
    , m_monitor(monitor)
    , m_acl(acl)
    , m_refreshTimer(new QTimer(this))
{
    for (int s = 1; s <= slotCount; ++s) {
        auto *timer = new QTimer(this);
        timer->setObjectName(QStringLiteral("Timer1"));
        timer->setProperty("slot", s);
        timer->setSingleShot(true);
        timer->setInterval(m_designedSlotMs);
        connect(timer, &QTimer::timeout, this, [this, s] { slotTimerTick(s); });
        m_slots[s].timer = timer;
    }
    m_refreshTimer->setObjectName(QStringLiteral("Timer2"));
    m_refreshTimer->setInterval(10000);
    connect(m_refreshTimer, &QTimer::timeout, this, &TftpServer::refreshTick);
    m_readBuffer.resize(65536);
}

TftpServer::~TftpServer() = default;

void TftpServer::setPort(quint16 port)
{
    m_port = port;
}

void TftpServer::setBindAddress(const QHostAddress &address)
{
    m_bindAddress = address;
}

void TftpServer::setCaptureSink(CaptureSink *sink)
{
    m_capture = sink;
}

void TftpServer::setConfine(bool on)
{
    m_confine = on;
}

void TftpServer::setTraceFilePath(const QString &path)
{
    m_tracePath = QFile::encodeName(path);
}

void TftpServer::setIntervals(int holdMs, int refreshMs, int designedSlotMs)
{
    m_holdMs = holdMs;
    m_designedSlotMs = designedSlotMs;
    m_refreshTimer->setInterval(refreshMs);
    for (int s = 1; s <= slotCount; ++s) {
        if (!m_slots[s].timer->isActive())
            m_slots[s].timer->setInterval(designedSlotMs);
    }
}

void TftpServer::setSocketFactory(DatagramSocketFactory factory)
{
    m_socketFactory = std::move(factory);
}

void TftpServer::setStandardProfile(bool on)
{
    if (on == m_standard)
        return;
    m_standard = on;
    if (!m_started)
        return;
    if (!on) {
        // The standard engine wrote the socket table while it had the port:
        // the rows show this profile's slots again (its running transfers,
        // "ready" for the unused ones), so the table and the choice of the
        // listener's slot are this profile's own.
        for (int s = 1; s <= slotCount; ++s) {
            const Slot &slot = m_slots[s];
            if (slot.socket
                && (slot.tag == Tag::Send || slot.tag == Tag::CheckEnd || slot.tag == Tag::Receive)) {
                showPorts(s);
                setSocketColumn(s, TransferMonitor::SocketStatus,
                    slot.tag == Tag::Receive ? QStringLiteral("RECEIVING") : QStringLiteral("SENDING"));
            }
            if (slot.socket || slot.tag != Tag::None || slot.timer->isActive())
                continue;
            setSocketColumn(s, TransferMonitor::LocalPort, QString());
            setSocketColumn(s, TransferMonitor::RemotePort, QString());
            setSocketColumn(s, TransferMonitor::SocketStatus, QStringLiteral("ready"));
            setSocketColumn(s, TransferMonitor::SocketError, QString());
        }
        OpenListener();
        return;
    }
    // The port goes to the standard engine; transfers already running here
    // finish on their own sockets.
    const int s = listenerSlot();
    if (s == 0)
        return;
    Slot &slot = m_slots[s];
    releaseSocket(slot);
    slot.tag = Tag::None;
    setSocketColumn(s, TransferMonitor::LocalPort, QString());
    setSocketColumn(s, TransferMonitor::SocketStatus, QStringLiteral("ready"));
}

QString TftpServer::errorString() const
{
    return m_errorString;
}

bool TftpServer::start()
{
    m_started = true;
    m_refreshTimer->start();
    if (m_standard)
        return true; // the standard engine has the port
    Slot &slot = m_slots[1];
    releaseSocket(slot);
    DatagramSocket *socket = newSocket();
    const bool bound = bindListener(socket); // before joining the slot: a bind error is not a slot error
    slot.socket = socket;
    slot.timer->stop();
    slot.tag = Tag::Null;
    setSocketColumn(1, TransferMonitor::SocketStatus, QStringLiteral("Listen"));
    if (bound)
        showPorts(1);
    return bound;
}

DatagramSocket *TftpServer::newSocket()
{
    DatagramSocket *socket = m_socketFactory ? m_socketFactory(this) : new UdpDatagramSocket(this);
    socket->setObjectName(QStringLiteral("server"));
    connect(socket, &DatagramSocket::readyRead, this, [this, socket] { readPending(socket); });
    connect(socket, &DatagramSocket::errorOccurred, this,
        [this, socket](int error) { socketError(socket, error); });
    return socket;
}

bool TftpServer::bindListener(DatagramSocket *socket)
{
    // Not shared: a second server on the same port must fail, not steal datagrams.
    if (socket->bind(m_bindAddress, m_port, true))
        return true;
    m_errorString = tr("Cannot listen on UDP port %1: %2").arg(m_port).arg(socket->errorString());
    return false;
}

void TftpServer::releaseSocket(Slot &slot)
{
    if (!slot.socket)
        return;
    DatagramSocket *socket = slot.socket;
    slot.socket = nullptr;
    socket->disconnect(this);
    socket->close();
    socket->deleteLater(); // we may be inside its readyRead
}

int TftpServer::slotOf(const DatagramSocket *socket) const
{
    for (int s = 1; s <= slotCount; ++s) {
        if (m_slots[s].socket == socket)
            return s;
    }
    return 0;
}

void TftpServer::setSocketColumn(int slot, int column, const QString &text)
{
    m_monitor->setSocketText(slot, column, text);
}

void TftpServer::showPorts(int slot)
{
    const Slot &sl = m_slots[slot];
    if (!sl.socket)
        return;
    setSocketColumn(slot, TransferMonitor::LocalPort, QString::number(sl.socket->localPort()));
    setSocketColumn(slot, TransferMonitor::RemotePort, QString::number(sl.peerPort));
}

void TftpServer::readPending(DatagramSocket *socket)
{
    // One datagram per notification: Qt re-arms the notifier after a read and
    // signals again while more are queued, so no peeking is needed on the
    // per-block path. The owner is looked up each time because handling a
    // request moves the listening socket to another slot.
    const int s = slotOf(socket);
    if (s == 0 || !socket->isBound())
        return;
    if (m_slots[s].tag == Tag::Null) {
        if (!socket->hasPendingDatagrams())
            return;
        quint16 senderPort = 0;
        QHostAddress destination;
        const qint64 got = socket->readDatagram(
            m_readBuffer.data(), m_readBuffer.size(), &m_sender, &senderPort, &destination);
        if (got >= 0) // a copy: handling a request may read on before it is done with this one
            handleDatagram(s, QByteArray(m_readBuffer.constData(), got), m_sender, senderPort, destination);
        return;
    }
    quint16 senderPort = 0;
    const qint64 got = socket->readDatagram(m_readBuffer.data(), m_readBuffer.size(), &m_sender, &senderPort);
    if (got < 0)
        return;
    handleDatagram(
        s, QByteArray::fromRawData(m_readBuffer.constData(), got), m_sender, senderPort, m_noAddress);
}

void TftpServer::socketError(DatagramSocket *socket, int error)
{
    // A full send buffer is not a fault of the transfer: the client's
    // retransmission will ask for the block again.
    if (error == QAbstractSocket::TemporaryError)
        return;
    const int s = slotOf(socket);
    if (s == 0 || m_slots[s].tag == Tag::Blocking)
        return;
    setSocketColumn(s, TransferMonitor::SocketStatus, QString::number(error));
    HoldSlot(s);
}

void TftpServer::OpenListener()
{
    if (m_standard) {
        // The standard engine holds the port: the classic profile does not listen.
        if (m_movingListener) {
            m_movingListener->disconnect(this);
            m_movingListener->close();
            m_movingListener->deleteLater();
            m_movingListener = nullptr;
        }
        return;
    }
    for (int s = 1; s <= slotCount; ++s) {
        Slot &slot = m_slots[s];
        if (slot.socket || m_monitor->socketText(s, TransferMonitor::SocketStatus) != QLatin1String("ready"))
            continue;
        DatagramSocket *socket = m_movingListener;
        m_movingListener = nullptr;
        if (!socket) {
            socket = newSocket();
            if (!bindListener(socket)) {
                // Port still held (say by a refused slot): stay "ready", the next refresh retries.
                socket->disconnect(this);
                socket->deleteLater();
                return;
            }
        }
        slot.socket = socket;
        slot.timer->stop();
        slot.tag = Tag::Null;
        slot.peer.clear();
        slot.peerPort = 0;
        setSocketColumn(s, TransferMonitor::SocketStatus, QStringLiteral("Listen"));
        showPorts(s);
        return;
    }
    // Every slot busy: nobody listens until one is freed.
    if (m_movingListener) {
        m_movingListener->disconnect(this);
        m_movingListener->close();
        m_movingListener->deleteLater();
        m_movingListener = nullptr;
    }
}

void TftpServer::HoldSlot(int s)
{
    if (s < 1 || s > slotCount)
        return;
    Slot &slot = m_slots[s];
    slot.timer->setInterval(m_holdMs);
    slot.timer->start();
    slot.tag = Tag::Blocking;
    if (slot.socket)
        slot.socket->close();
    setSocketColumn(s, TransferMonitor::SocketStatus, QStringLiteral("Blocking"));
}

void TftpServer::CleanSlot(int s)
{
    if (s < 1 || s > slotCount)
        return;
    Slot &slot = m_slots[s];
    slot.tag = Tag::Blocking;
    setSocketColumn(s, TransferMonitor::SocketStatus, QStringLiteral("Cleaning"));
    // A UDP socket is closed as soon as close() returns: no wait is needed.
    releaseSocket(slot);
    slot.tag = Tag::None;
    setSocketColumn(s, TransferMonitor::SocketStatus, QStringLiteral("ready"));
}

void TftpServer::windUpRefused(int s)
{
    // The slot keeps its socket (and with it the port) but drops everything
    // until its timer, at whatever interval it last had, frees it.
    Slot &slot = m_slots[s];
    slot.tag = Tag::Blocking;
    slot.timer->start();
}

void TftpServer::slotTimerTick(int s)
{
    Slot &slot = m_slots[s];
    releaseSocket(slot);
    slot.timer->stop();
    slot.tag = Tag::None;
    slot.filePath.clear();
    slot.nativePath.clear();
    setSocketColumn(s, TransferMonitor::LocalPort, QString());
    setSocketColumn(s, TransferMonitor::RemotePort, QString());
    setSocketColumn(s, TransferMonitor::SocketStatus, QStringLiteral("ready"));
}

void TftpServer::refreshTick()
{
    bool listening = false;
    for (int s = 1; s <= slotCount; ++s) {
        Slot &slot = m_slots[s];
        if (!slot.socket)
            continue;
        showPorts(s);
        if (m_monitor->socketText(s, TransferMonitor::SocketStatus) == QLatin1String("Listen"))
            listening = true;
        if (!slot.socket->isBound() && slot.tag != Tag::Blocking)
            HoldSlot(s);
    }
    if (!listening)
        OpenListener();
}

int TftpServer::highestTransferRowInUse() const
{
    int highest = 0;
    for (int s = 1; s <= slotCount; ++s) {
        const Slot &slot = m_slots[s];
        if (slot.tag == Tag::Send || slot.tag == Tag::CheckEnd || slot.tag == Tag::Receive)
            highest = qMax(highest, qMax(s, slot.accessRow));
    }
    return highest;
}

QString TftpServer::slotTag(int s) const
{
    if (s < 1 || s > slotCount)
        return {};
    switch (m_slots[s].tag) {
    case Tag::None:
        return {};
    case Tag::Null:
        return QStringLiteral("Null");
    case Tag::Send:
        return QStringLiteral("Send");
    case Tag::CheckEnd:
        return QStringLiteral("Check end");
    case Tag::Receive:
        return QStringLiteral("Receive");
    case Tag::Waiting:
        return QStringLiteral("Waiting");
    case Tag::Blocking:
        return QStringLiteral("Blocking");
    }
    return {};
}

int TftpServer::slotAccessRow(int s) const
{
    return s >= 1 && s <= slotCount ? m_slots[s].accessRow : 0;
}

int TftpServer::receivedBlocks(int s) const
{
    return s >= 1 && s <= slotCount ? m_slots[s].receivedBlocks : 0;
}

quint16 TftpServer::slotLocalPort(int s) const
{
    if (s < 1 || s > slotCount || !m_slots[s].socket)
        return 0;
    return m_slots[s].socket->localPort();
}

int TftpServer::listenerSlot() const
{
    for (int s = 1; s <= slotCount; ++s) {
        const Slot &slot = m_slots[s];
        if (slot.tag == Tag::Null && slot.socket && slot.socket->isBound())
            return s;
    }
    return 0;
}
