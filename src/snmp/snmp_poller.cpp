#include "snmp/snmp_poller.h"

#include "snmp/translate_snmp.h"

#include <QHostInfo>
#include <QNetworkDatagram>

#include <cmath>

namespace {

quint16 g_agentPort = 161;

const QString startState = QStringLiteral("Start");
const QString walkState = QStringLiteral("Walk");
const QString waitingState = QStringLiteral("Waiting");
const QString interfaceCountId = QStringLiteral("1.3.6.1.2.1.2.1.0");
const QString uptimeId = QStringLiteral("1.3.6.1.2.1.1.3.0");
const QString cpuId = QStringLiteral("1.3.6.1.4.1.9.9.109.1.1.1.1.5.1");
const QString freeMemoryId = QStringLiteral("1.3.6.1.4.1.9.2.1.8");
const QString walkStartId = QStringLiteral("1.3.6.1.2.1.2.2.1.2.0");

qint64 roundHalfEven(double v)
{
    return qint64(std::nearbyint(v));
}

} // namespace

SnmpPoller::SnmpPoller(std::function<QString()> deviceAddress, QObject *parent)
    : QObject(parent)
    , m_deviceAddress(std::move(deviceAddress))
{
    m_socket.setObjectName(QStringLiteral("pwSocket"));
    m_snmpDelay.setObjectName(QStringLiteral("SNMPDelay"));
    m_snmpDelay.setInterval(10);
    m_statistics.setObjectName(QStringLiteral("snmpstats"));
    m_statistics.setHorizontalHeaderLabels(InterfaceTable::headers());

    connect(&m_snmpDelay, &QTimer::timeout, this, &SnmpPoller::step);
    connect(&m_socket, &QUdpSocket::readyRead, this, &SnmpPoller::readPending);
}

void SnmpPoller::setAgentPort(quint16 port)
{
    g_agentPort = port;
}

quint16 SnmpPoller::agentPort()
{
    return g_agentPort;
}

QString SnmpPoller::bindTag() const
{
    return m_bindState == BindState::Bind ? QStringLiteral("Bind") : QStringLiteral("NoBind");
}

void SnmpPoller::start()
{
    m_snmpDelay.setInterval(m_stepInterval);
    m_snmpDelay.start();
    setState(startState);
}

void SnmpPoller::step()
{
    const QString state = m_state;
    if (state == waitingState)
        return;

    QString identifier;
    quint8 pdu = SnmpMessage::getRequest;
    QString next;
    if (state == startState) {
        identifier = interfaceCountId;
        next = uptimeId;
    } else if (state == uptimeId) {
        identifier = uptimeId;
        next = cpuId;
    } else if (state == cpuId) {
        identifier = cpuId;
        next = freeMemoryId;
    } else if (state == freeMemoryId) {
        identifier = freeMemoryId;
        next = walkState;
    } else if (state == walkState) {
        // The state names the walk's first identifier itself, so unless an
        // answer replaces it first the next tick asks for it once more.
        identifier = walkStartId;
        pdu = SnmpMessage::getNextRequest;
        next = walkStartId;
    } else {
        identifier = state;
        pdu = SnmpMessage::getNextRequest;
        next = waitingState;
    }
    snmpSend(m_deviceAddress ? m_deviceAddress() : QString(), m_community, identifier, pdu);
    setState(next);
}

void SnmpPoller::recordDevice(const QString &host)
{
    m_remoteHost = host;
    m_remoteAddress = QHostAddress(host);
    if (m_remoteAddress.isNull() && !host.isEmpty()) {
        // A device known by name: looked up once, when it is recorded.
        const QHostInfo info = QHostInfo::fromName(host);
        for (const QHostAddress &a : info.addresses()) {
            if (a.protocol() == QAbstractSocket::IPv4Protocol) {
                m_remoteAddress = a;
                break;
            }
        }
    }
}

void SnmpPoller::snmpSend(
    const QString &host, const QString &community, const QString &identifier, quint8 pduType)
{
    const QString trimmedHost = host.trimmed();
    if (m_bindState == BindState::NoBind) {
        m_bindState = BindState::Bind;
        recordDevice(trimmedHost);
        m_socket.bind(QHostAddress::AnyIPv4, 0);
    } else if (m_remoteHost.isEmpty()) {
        // A Start pressed before the console was connected must not leave
        // the poller without a device for the rest of the console's life.
        recordDevice(trimmedHost);
    }

    if (trimmedHost.isEmpty()) {
        m_snmpDelay.stop();
        Q_EMIT noConnection();
        return;
    }

    // An overlong community or identifier leaves a partly written buffer,
    // which goes out all the same.
    TranslateSNMP::serialise(TranslateSNMP::buildMessage(community, identifier, pduType));
    if (!m_remoteAddress.isNull())
        m_socket.writeDatagram(TranslateSNMP::snmpPacket(), m_remoteAddress, g_agentPort);
}

void SnmpPoller::readPending()
{
    while (m_socket.hasPendingDatagrams()) {
        const QNetworkDatagram datagram = m_socket.receiveDatagram();
        convertSnmp(datagram.data());
    }
}

void SnmpPoller::convertSnmp(const QByteArray &datagram)
{
    using TranslateSNMP::SnmpReply;
    const SnmpReply reply = TranslateSNMP::convertSnmp(datagram);
    switch (reply.kind) {
    case SnmpReply::Malformed:
    case SnmpReply::Ignored:
        break;
    case SnmpReply::Uptime:
        m_uptimeText = formatUptime(reply.ticks);
        Q_EMIT uptimeTextChanged(m_uptimeText);
        break;
    case SnmpReply::Cpu:
        m_cpuText = QString::number(reply.number) + QStringLiteral(" %");
        Q_EMIT cpuTextChanged(m_cpuText);
        break;
    case SnmpReply::FreeMemory:
        m_freeMemoryText = QString::number(reply.number) + QStringLiteral(" %");
        Q_EMIT freeMemoryTextChanged(m_freeMemoryText);
        break;
    case SnmpReply::InterfaceCount:
        m_interfacesText = QString::number(reply.number);
        Q_EMIT interfacesTextChanged(m_interfacesText);
        growRows(reply.number);
        break;
    case SnmpReply::InterfaceValue:
        setState(reply.walkPosition);
        displaylist(InterfaceTable::converttolist(reply.key, reply.value, reply.physicalAddress));
        break;
    }
}

QString SnmpPoller::formatUptime(double ticks)
{
    const qint64 s = roundHalfEven(ticks / 100.0);
    const qint64 m = roundHalfEven(double(s) / 60.0);
    const qint64 h = roundHalfEven(double(m) / 60.0);
    const qint64 d = roundHalfEven(double(h) / 24.0);
    return QString::number(d) + QStringLiteral(" days ") + QString::number(h % 24) + QStringLiteral(" hours ")
        + QString::number(m % 60) + QStringLiteral(" minutes");
}

void SnmpPoller::setState(const QString &state)
{
    if (state == m_state)
        return;
    m_state = state;
    Q_EMIT stateChanged(m_state);
}

void SnmpPoller::growRows(int interfaces)
{
    while (interfaces + 5 > m_statistics.rowCount()) {
        QList<QStandardItem *> row;
        row.append(new QStandardItem(QString::number(m_statistics.rowCount() + 1)));
        for (int c = 1; c < InterfaceTable::columnCount; ++c)
            row.append(new QStandardItem);
        m_statistics.appendRow(row);
    }
}

void SnmpPoller::displaylist(const InterfaceTable::Cell &cell)
{
    // Interfaces beyond the list and columns without a header are not shown;
    // the walk goes on regardless.
    if (cell.row < 1 || cell.row > m_statistics.rowCount())
        return;
    if (cell.subItem < 0 || cell.subItem >= InterfaceTable::columnCount)
        return;
    m_statistics.item(cell.row - 1, cell.subItem)->setText(cell.text);
}
