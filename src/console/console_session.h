#pragma once

#include "console/terminal_processor.h"

#include <QAbstractSocket>
#include <QByteArray>
#include <QObject>
#include <QSerialPort>
#include <QString>

class ConsoleTerminal;
class QTcpSocket;
class QTimer;
class SessionLog;
class SshConnection;

// The connection and session record of one console.
//
// Owns the console's serial port (`MSComm1`), its TCP client socket
// (`Winsock1`), `Timer1` (XON on serial; no interval unless injected, so it
// never fires) and `Timer2` (the 1-second connect check, idle counter and
// keep-alive of a TCP session), and the received-text processor.
//
// Session record: connectionKind() "Serial", "TCP/IP" or ""; countDown()
// seconds left on the idle counter; keepAlive() 1 or 2, the phase of the idle
// keep-alive; deviceAddress() the host given to ConnectTCP (the log box tag,
// which routes device log datagrams to this console).
//
// Sending follows one rule everywhere (typed keys, paste, the recovery and
// backup automations): write to the serial port if it is open, send on the
// TCP socket if it is connected, and write to the SSH channel if it is open;
// each test is made every time.
//
// An SSH console (ConnectSSH) is a TCP/IP console in everything but its
// transport: its connection kind is "TCP/IP", its device address is the
// host, and once the shell is open the idle counter and "Disconnect" behave
// as for raw TCP; the idle keep-alive types nothing (SSH keep-alives do the
// job). Until then the SSH handshake keeps its own time limit, and a refusal
// is shown as an "SSH Err: " line in the socket error's colour followed by
// ">". A shell that ends says so ("Session closed by HOST", with the exit
// status when the channel gives one) or why it was lost, and Enter then
// connects again.
//
// Nothing here touches a widget. What the terminal shows arrives as signals:
//  - terminalAppend(text, colour): append text at the end of ConsoleBox in a
//    24-bit blue-green-red colour (0 black, 255 red); line ends are CR LF or a
//    lone CR, each one paragraph break;
//  - terminalDeleteLast(): remove the last character of ConsoleBox;
//  - terminalCleared(): ConsoleBox was emptied (clearTerminal());
//  - logAppend(text): a device line beginning with "*" (with CR LF) for logbox;
//  - captionChanged(name): the device printed a prompt; name may be empty;
//  - idleChanged(): countDown()/keepAlive() changed, redraw the idle bar;
//  - connectionKindChanged(kind), deviceAddressChanged(address);
//  - listingText(bytes): TCP text while the flash listing reader is active
//    (it then bypasses the terminal);
//  - messageBoxRequested(text): the window shows it with tw::messageBox
//    ("cant connect socket in use?").
//
// With terminal emulation on (terminal()->isEnabled(), "Terminal Emulation"),
// device text goes to the terminal's screen instead of the processor, and the
// caption, the "*" lines and the flash listing reader read the text that the
// terminal decodes. The terminal's answers and keys leave by the sending rule.
// sessionLog() copies what arrives (and what the console shows) to a file.
class ConsoleSession : public QObject
{
    Q_OBJECT
public:
    static constexpr quint32 black = 0;
    static constexpr quint32 red = 255;
    static constexpr quint32 disconnectColour = 36;
    static constexpr quint32 errorColour = 0x0080FF; // orange, blue-green-red order

    explicit ConsoleSession(QObject *parent = nullptr);
    ~ConsoleSession() override;

    // Arguments are text, as the connection dialog passes them. port is a
    // number n (the platform's n-th port: /dev/ttyS(n-1) here, COMn on
    // Windows) or a device name or path (ttyUSB0, /dev/ttyACM0). Only a flow
    // other than "None" and "Hardware" opens the port (and sends one CR);
    // the other two only set the handshaking and leave the port closed.
    void ConnectModem(const QString &port, const QString &baud, const QString &parity,
        const QString &dataBits, const QString &stopBits, const QString &flow);
    // Connects to host on the Telnet port; the first Timer2 tick reports
    // "Connection timed out" when the connection is not up by then.
    void ConnectTCP(const QString &host);
    // The same on another port (a console server's port for one device).
    void ConnectTCP(const QString &host, quint16 port);
    // An SSH shell on host; port 0 and an empty user leave them to
    // ~/.ssh/config (then 22 and the login name).
    void ConnectSSH(const QString &host, quint16 port, const QString &user);

    void send(const QByteArray &bytes);
    void sendSerial(const QByteArray &bytes);
    // Ctrl+Break and "Send Break": the bytes 255 243 by the sending rule,
    // then, on an open serial port, the line held in break for
    // breakMilliseconds.
    void sendBreak();
    static constexpr int breakMilliseconds = 300;
    void disconnectSession();

    // Empties the terminal ("Clear Console").
    void clearTerminal();
    // Appends text to the terminal outside the received-text path.
    void appendTerminal(const QString &text, quint32 colour);
    // Feeds one block of device text through the processor (also used by tests).
    void processReceived(const QByteArray &block);

    QString connectionKind() const { return m_kind; }
    QString deviceAddress() const { return m_deviceAddress; }
    // The TCP port of the last ConnectTCP.
    quint16 devicePort() const { return m_devicePort; }
    bool serialOpen() const;
    bool tcpConnected() const;
    bool sshOpen() const;
    // Whether this console's network session is SSH (from ConnectSSH until it ends).
    bool sshSession() const { return m_sshSession; }
    qint16 countDown() const { return m_countDown; }
    qint16 keepAlive() const { return m_keepAlive; }
    // The settings text of the last ConnectModem, e.g. "9600,N,8,1".
    QString serialSettings() const { return m_serialSettings; }
    // The device path the last ConnectModem chose.
    QString serialPortName() const;

    void setListingReaderActive(bool active) { m_listingReader = active; }
    bool listingReaderActive() const { return m_listingReader; }

    static void setTelnetPort(quint16 port);
    static quint16 telnetPort();
    // The device path for a ConnectModem port text, or "" when it names none.
    static QString portPath(const QString &port);

    // Timer1 has no interval by design (0: never fires); Timer2 ticks every
    // 1000 ms. Tests inject shorter intervals.
    void setTimerIntervals(int timer1Ms, int timer2Ms);

    QSerialPort *serialPort() const { return m_serial; }
    QTcpSocket *tcpSocket() const { return m_tcp; }
    SshConnection *ssh() const { return m_ssh; }
    ConsoleTerminal *terminal() const { return m_terminal; }
    // "Terminal Emulation" on or off (off until set: the classic processor).
    void setTerminalEmulation(bool on);
    bool terminalEmulation() const;
    SessionLog *sessionLog() const { return m_sessionLog; }

Q_SIGNALS:
    void terminalAppend(const QString &text, quint32 colour);
    void terminalDeleteLast();
    void terminalCleared();
    void logAppend(const QString &text);
    void captionChanged(const QString &caption);
    void idleChanged();
    void connectionKindChanged(const QString &kind);
    void deviceAddressChanged(const QString &address);
    void listingText(const QByteArray &text);
    void messageBoxRequested(const QString &text);

private:
    void setKind(const QString &kind);
    void failSerial(const QString &why);
    void onSerialReadyRead();
    void onSerialError(QSerialPort::SerialPortError error);
    void onTcpReadyRead();
    void deviceData(const QByteArray &data);
    void writeNetwork(const QByteArray &bytes);
    void onSshOpened();
    void onSshFailed(const QString &message, bool timedOut);
    void endSsh(const QString &message, quint32 colour);
    void reportTimedOut();
    void onTcpError(QAbstractSocket::SocketError error);
    void onTimer1();
    void onTimer2();
    void enableTimer1();
    void emitReaderOps(const QList<TerminalOp> &ops);

    QSerialPort *m_serial;
    QTcpSocket *m_tcp;
    SshConnection *m_ssh;
    ConsoleTerminal *m_terminal;
    SessionLog *m_sessionLog;
    bool m_sshSession = false;
    bool m_offerReconnect = false;
    struct
    {
        QString host;
        quint16 port = 0;
        QString user;
    } m_sshTarget;
    QTimer *m_timer1;
    QTimer *m_timer2;
    QTimer *m_breakTimer;
    TerminalProcessor m_processor;

    qint16 m_countDown = 60;
    QString m_kind;
    qint16 m_keepAlive = 1;
    QString m_deviceAddress;
    quint16 m_devicePort = 0;
    QString m_serialSettings;
    bool m_listingReader = false;
    int m_timer1Interval = 0;

    static quint16 s_telnetPort;
};
