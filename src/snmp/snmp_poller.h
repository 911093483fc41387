#pragma once

#include "snmp/interface_table.h"

#include <QHostAddress>
#include <QObject>
#include <QStandardItemModel>
#include <QTimer>
#include <QUdpSocket>

#include <functional>

// The SNMP monitor of one console: polls the console's device with SNMP
// version 1 and keeps what the SNMP tab shows.
//
// Owns:
//  - pwSocket, the console's UDP socket, bound to any local port on the first
//    request and then kept for the life of the console (bindState() goes from
//    NoBind to Bind once; pressing Start again does not rebind). The device
//    recorded at that first request is the one polled from then on.
//  - SNMPDelay, the poll timer (interval 50 ms once started; tests inject a
//    shorter one with setStepInterval()).
//  - the statistics: the interface list (a model with the twenty headers of
//    InterfaceTable, interface count + 5 rows) and the figure texts of the
//    labels Label3 (uptime), Label4 (CPU), Label5 (free memory), Label7 (poll
//    state) and Label9 (interfaces).
//
// The poll state is the text of Label7: "Start", then the four scalar
// identifiers (one GetRequest each), "Walk", then the interface table walked
// by GetNextRequests. Each request moves the state to "Waiting"; only a
// response inside the interface table writes the next identifier back into
// it. There is no time-out and no retry: a device that stops answering leaves
// the state at "Waiting", and the first answer outside the table ends the walk.
//
// The device address comes from a function (the console's log box tag, the
// address it connected to over TCP), the community from setCommunity(). The
// agent port is process-wide: 161 unless the application sets another.
//
// Signals: each xxxChanged() carries the new text of its label;
// noConnection() means a request found no device address: polling has been
// switched off and the window should tell the user "No connection".
class SnmpPoller : public QObject
{
    Q_OBJECT
public:
    enum class BindState { NoBind, Bind };
    static constexpr int defaultStepInterval = 50;

    explicit SnmpPoller(std::function<QString()> deviceAddress, QObject *parent = nullptr);

    static void setAgentPort(quint16 port);
    static quint16 agentPort();

    QStandardItemModel *statistics() { return &m_statistics; }
    QTimer *snmpDelay() { return &m_snmpDelay; }
    void setStepInterval(int ms) { m_stepInterval = ms; }

    QString community() const { return m_community; }
    void setCommunity(const QString &community) { m_community = community; }

    QString state() const { return m_state; }
    QString uptimeText() const { return m_uptimeText; }
    QString cpuText() const { return m_cpuText; }
    QString freeMemoryText() const { return m_freeMemoryText; }
    QString interfacesText() const { return m_interfacesText; }

    BindState bindState() const { return m_bindState; }
    QString bindTag() const;
    // The local port of pwSocket, 0 before the first request.
    quint16 localPort() const { return m_socket.localPort(); }

    // The start button: the cycle begins again at "Start".
    void start();
    // One tick of SNMPDelay: one step of the poll state machine.
    void step();
    // Builds one request and sends the whole shared 256-byte buffer.
    void snmpSend(const QString &host, const QString &community, const QString &identifier, quint8 pduType);
    // Decodes one response and updates the figures and the interface list.
    // Malformed datagrams change nothing.
    void convertSnmp(const QByteArray &datagram);

    // d " days " h " hours " m " minutes", every quotient rounded half to even.
    static QString formatUptime(double ticks);

Q_SIGNALS:
    void stateChanged(const QString &text);
    void uptimeTextChanged(const QString &text);
    void cpuTextChanged(const QString &text);
    void freeMemoryTextChanged(const QString &text);
    void interfacesTextChanged(const QString &text);
    void noConnection();

private:
    void readPending();
    void setState(const QString &state);
    void growRows(int interfaces);
    void displaylist(const InterfaceTable::Cell &cell);
    void recordDevice(const QString &host);

    std::function<QString()> m_deviceAddress;
    QUdpSocket m_socket; // pwSocket
    QTimer m_snmpDelay;
    QStandardItemModel m_statistics; // snmpstats
    int m_stepInterval = defaultStepInterval;
    BindState m_bindState = BindState::NoBind;
    QString m_remoteHost;
    QHostAddress m_remoteAddress;
    QString m_community = QStringLiteral("comstr");
    QString m_state;
    QString m_uptimeText;
    QString m_cpuText;
    QString m_freeMemoryText;
    QString m_interfacesText;
};
