#include "console_session.h"

#include "console/console_terminal.h"
#include "console/session_log.h"
#include "console/ssh_connection.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QSerialPort>
#include <QTcpSocket>
#include <QTimer>

#include <cstdio>

quint16 ConsoleSession::s_telnetPort = 23;

namespace {
constexpr qint16 idleSeconds = 60;

// The socket error numbers a network engineer knows from Winsock; anything
// without an obvious counterpart keeps Qt's own code.
int winsockNumber(QAbstractSocket::SocketError error)
{
    switch (error) {
    case QAbstractSocket::ConnectionRefusedError:
        return 10061;
    case QAbstractSocket::RemoteHostClosedError:
        return 10054;
    case QAbstractSocket::HostNotFoundError:
        return 11001;
    case QAbstractSocket::SocketAccessError:
        return 10013;
    case QAbstractSocket::SocketResourceError:
        return 10055;
    case QAbstractSocket::SocketTimeoutError:
        return 10060;
    case QAbstractSocket::NetworkError:
        return 10050;
    case QAbstractSocket::AddressInUseError:
        return 10048;
    default:
        return int(error);
    }
}

bool parseStopBits(const QString &text, QSerialPort::StopBits *bits)
{
    if (text == QLatin1String("1"))
        *bits = QSerialPort::OneStop;
    else if (text == QLatin1String("1.5"))
        *bits = QSerialPort::OneAndHalfStop;
    else if (text == QLatin1String("2"))
        *bits = QSerialPort::TwoStop;
    else
        return false;
    return true;
}

bool parseParity(QChar letter, QSerialPort::Parity *parity)
{
    switch (letter.toUpper().toLatin1()) {
    case 'N':
        *parity = QSerialPort::NoParity;
        return true;
    case 'E':
        *parity = QSerialPort::EvenParity;
        return true;
    case 'O':
        *parity = QSerialPort::OddParity;
        return true;
    case 'M':
        *parity = QSerialPort::MarkParity;
        return true;
    case 'S':
        *parity = QSerialPort::SpaceParity;
        return true;
    default:
        return false;
    }
}
} // namespace

ConsoleSession::ConsoleSession(QObject *parent)
    : QObject(parent)
    , m_serial(new QSerialPort(this))
    , m_tcp(new QTcpSocket(this))
    , m_ssh(new SshConnection(this))
    , m_terminal(new ConsoleTerminal(this))
    , m_sessionLog(new SessionLog(this))
    , m_timer1(new QTimer(this))
    , m_timer2(new QTimer(this))
    , m_breakTimer(new QTimer(this))
{
    m_serial->setObjectName(QStringLiteral("MSComm1"));
    m_tcp->setObjectName(QStringLiteral("Winsock1"));
    m_timer1->setObjectName(QStringLiteral("Timer1"));
    m_timer2->setObjectName(QStringLiteral("Timer2"));
    m_timer2->setInterval(1000);
    m_breakTimer->setObjectName(QStringLiteral("BreakTimer"));
    m_breakTimer->setSingleShot(true);
    m_breakTimer->setInterval(breakMilliseconds);

    connect(m_serial, &QSerialPort::readyRead, this, &ConsoleSession::onSerialReadyRead);
    connect(m_serial, &QSerialPort::errorOccurred, this, &ConsoleSession::onSerialError);
    connect(m_tcp, &QTcpSocket::readyRead, this, &ConsoleSession::onTcpReadyRead);
    connect(m_tcp, &QTcpSocket::errorOccurred, this, &ConsoleSession::onTcpError);
    connect(m_timer1, &QTimer::timeout, this, &ConsoleSession::onTimer1);
    connect(m_timer2, &QTimer::timeout, this, &ConsoleSession::onTimer2);
    connect(m_ssh, &SshConnection::received, this, &ConsoleSession::deviceData);
    connect(m_ssh, &SshConnection::opened, this, &ConsoleSession::onSshOpened);
    connect(m_ssh, &SshConnection::failed, this, &ConsoleSession::onSshFailed);
    connect(m_terminal, &ConsoleTerminal::sendRequested, this, &ConsoleSession::send);
    connect(m_ssh, &SshConnection::closed, this, [this](int exitStatus) {
        endSsh(exitStatus >= 0 ? QStringLiteral("Session closed by %1 (exit status %2)")
                                     .arg(m_sshTarget.host)
                                     .arg(exitStatus)
                               : QStringLiteral("Session closed by %1").arg(m_sshTarget.host),
            disconnectColour);
    });
    connect(
        m_ssh, &SshConnection::lost, this, [this](const QString &message) { endSsh(message, errorColour); });
    connect(m_ssh, &SshConnection::notice, this,
        [this](const QString &text) { appendTerminal(text + QStringLiteral("\r\n"), errorColour); });
    connect(m_breakTimer, &QTimer::timeout, this, [this] {
        if (m_serial->isOpen())
            m_serial->setBreakEnabled(false);
    });
}

ConsoleSession::~ConsoleSession()
{
    // Unloading a console releases its serial port for other programs.
    if (m_serial->isOpen())
        m_serial->close();
    m_tcp->abort();
}

void ConsoleSession::setTelnetPort(quint16 port)
{
    s_telnetPort = port;
}

quint16 ConsoleSession::telnetPort()
{
    return s_telnetPort;
}

void ConsoleSession::setTimerIntervals(int timer1Ms, int timer2Ms)
{
    m_timer1Interval = timer1Ms;
    m_timer1->setInterval(timer1Ms);
    m_timer2->setInterval(timer2Ms);
}

QString ConsoleSession::portPath(const QString &port)
{
    const QString text = port.trimmed();
    if (text.isEmpty())
        return {};
    bool numeric = false;
    const int number = text.toInt(&numeric);
    if (numeric) {
        if (number < 1)
            return {};
#ifdef Q_OS_WIN
        return QStringLiteral("COM%1").arg(number);
#else
        return QStringLiteral("/dev/ttyS%1").arg(number - 1);
#endif
    }
#ifdef Q_OS_WIN
    return text;
#else
    return text.startsWith(QLatin1Char('/')) ? text : QStringLiteral("/dev/") + text;
#endif
}

QString ConsoleSession::serialPortName() const
{
    return m_serial->portName();
}

bool ConsoleSession::serialOpen() const
{
    return m_serial->isOpen();
}

bool ConsoleSession::tcpConnected() const
{
    return m_tcp->state() == QAbstractSocket::ConnectedState;
}

bool ConsoleSession::sshOpen() const
{
    return m_ssh->isOpen();
}

void ConsoleSession::setKind(const QString &kind)
{
    if (m_kind == kind)
        return;
    m_kind = kind;
    Q_EMIT connectionKindChanged(kind);
}

void ConsoleSession::failSerial(const QString &why)
{
    std::fprintf(stderr, "tarnwick: serial port: %s\n", qPrintable(why));
    Q_EMIT messageBoxRequested(QStringLiteral("cant connect socket in use?"));
}

void ConsoleSession::ConnectModem(const QString &port, const QString &baud, const QString &parity,
    const QString &dataBits, const QString &stopBits, const QString &flow)
{
    const QString path = portPath(port);
    if (path.isEmpty())
        return failSerial(QStringLiteral("\"%1\" names no serial port").arg(port));
    const QString parityText = parity.trimmed();
    const QChar parityLetter = parityText.isEmpty() ? QChar() : parityText.at(0);
    m_serialSettings = QStringLiteral("%1,%2,%3,%4")
                           .arg(baud, QString(parityLetter), dataBits.trimmed(), stopBits.trimmed());

    bool baudOk = false;
    const int baudRate = baud.trimmed().toInt(&baudOk);
    bool dataOk = false;
    const int bits = dataBits.trimmed().toInt(&dataOk);
    QSerialPort::Parity parityValue;
    QSerialPort::StopBits stopValue;
    if (!baudOk || baudRate <= 0 || !parseParity(parityLetter, &parityValue) || !dataOk || bits < 5
        || bits > 8 || !parseStopBits(stopBits.trimmed(), &stopValue))
        return failSerial(QStringLiteral("invalid settings \"%1\"").arg(m_serialSettings));

    if (!m_serial->isOpen())
        m_serial->setPortName(path);
    m_serial->setBaudRate(baudRate);
    m_serial->setParity(parityValue);
    m_serial->setDataBits(QSerialPort::DataBits(bits));
    m_serial->setStopBits(stopValue);

    if (flow == QLatin1String("None")) {
        m_serial->setFlowControl(QSerialPort::NoFlowControl);
    } else if (flow == QLatin1String("Hardware")) {
        m_serial->setFlowControl(QSerialPort::HardwareControl);
    } else {
        // Only software flow control opens the port; "None" and "Hardware"
        // leave it closed. Long-standing behaviour that users rely on.
        m_serial->setFlowControl(QSerialPort::SoftwareControl);
        if (m_serial->isOpen())
            return failSerial(QStringLiteral("%1 is already open in this console").arg(m_serial->portName()));
        if (!m_serial->open(QIODevice::ReadWrite)) {
            QString why = QStringLiteral("cannot open %1: %2").arg(path, m_serial->errorString());
            if (m_serial->error() == QSerialPort::PermissionError)
                why += QStringLiteral(" (add your user to the dialout group, then log in again)");
            return failSerial(why);
        }
        m_serial->write("\r");
        setKind(QStringLiteral("Serial"));
    }
    enableTimer1();
}

void ConsoleSession::enableTimer1()
{
    // With no interval the timer is enabled but never fires.
    if (m_timer1Interval > 0)
        m_timer1->start();
}

void ConsoleSession::ConnectTCP(const QString &host)
{
    ConnectTCP(host, s_telnetPort);
}

void ConsoleSession::ConnectTCP(const QString &host, quint16 port)
{
    m_offerReconnect = false;
    // A console that is already connected may connect again: the old
    // connection is dropped for the new one.
    m_tcp->abort();
    m_ssh->close();
    m_sshSession = false;
    m_devicePort = port;
    m_tcp->connectToHost(host, port);
    setKind(QStringLiteral("TCP/IP"));
    if (m_deviceAddress != host) {
        m_deviceAddress = host;
        Q_EMIT deviceAddressChanged(host);
    }
    m_timer2->start();
    m_countDown = idleSeconds;
    m_keepAlive = 1;
    Q_EMIT idleChanged();
}

void ConsoleSession::ConnectSSH(const QString &host, quint16 port, const QString &user)
{
    m_tcp->abort();
    m_timer2->stop();
    m_sshSession = true;
    m_offerReconnect = false;
    m_sshTarget = { host, port, user };
    m_devicePort = port;
    setKind(QStringLiteral("TCP/IP"));
    if (m_deviceAddress != host) {
        m_deviceAddress = host;
        Q_EMIT deviceAddressChanged(host);
    }
    // The connect check starts with the shell: key exchange and the user's
    // answers take longer than its one second.
    m_ssh->open(host, port, user);
}

void ConsoleSession::onSshOpened()
{
    m_timer2->start();
    m_countDown = idleSeconds;
    m_keepAlive = 1;
    Q_EMIT idleChanged();
}

void ConsoleSession::onSshFailed(const QString &message, bool timedOut)
{
    if (timedOut) {
        reportTimedOut();
        return;
    }
    appendTerminal(QStringLiteral("SSH Err: %1\r\n").arg(message), errorColour);
    appendTerminal(QStringLiteral(">\r\n"), black);
    m_sshSession = false;
    setKind(QString());
}

void ConsoleSession::endSsh(const QString &message, quint32 colour)
{
    m_timer2->stop();
    m_sshSession = false;
    setKind(QString());
    appendTerminal(message + QStringLiteral("\r\n"), colour);
    appendTerminal(QStringLiteral("Press Enter to reconnect\r\n"), black);
    m_offerReconnect = true;
}

void ConsoleSession::send(const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return;
    // After an SSH session ended, Enter opens it again (as PuTTY's "Restart
    // Session" does); other keys go nowhere, as on any closed console.
    if (m_offerReconnect && m_kind.isEmpty() && !m_serial->isOpen()) {
        if (bytes.contains('\r'))
            ConnectSSH(m_sshTarget.host, m_sshTarget.port, m_sshTarget.user);
        return;
    }
    sendSerial(bytes);
    writeNetwork(bytes);
}

void ConsoleSession::writeNetwork(const QByteArray &bytes)
{
    if (tcpConnected())
        m_tcp->write(bytes);
    if (m_ssh->isOpen())
        m_ssh->write(bytes);
}

void ConsoleSession::sendSerial(const QByteArray &bytes)
{
    if (m_serial->isOpen() && !bytes.isEmpty())
        m_serial->write(bytes);
}

void ConsoleSession::sendBreak()
{
    // The pair means nothing to an SSH shell: the channel gets a break
    // request of the same length as the serial one instead.
    const QByteArray pair("\xff\xf3", 2);
    if (m_serial->isOpen())
        m_serial->write(pair);
    if (tcpConnected())
        m_tcp->write(pair);
    if (m_ssh->isOpen())
        m_ssh->sendBreak(breakMilliseconds);
    if (!m_serial->isOpen())
        return;
    // The bytes leave first; then the line is held low, which is what a
    // device's ROMMON break detection actually looks for.
    m_serial->flush();
    if (m_serial->setBreakEnabled(true))
        m_breakTimer->start();
}

void ConsoleSession::disconnectSession()
{
    m_offerReconnect = false;
    // No connect check may report a time-out while the socket is closing.
    m_timer2->stop();
    if (m_kind == QLatin1String("TCP/IP") && m_sshSession) {
        m_ssh->close();
        m_sshSession = false;
    } else if (m_kind == QLatin1String("TCP/IP")) {
        m_tcp->close();
        // Let the socket finish closing, but never hang on a peer that will
        // not answer.
        const QDeadlineTimer deadline(2000);
        while (m_tcp->state() != QAbstractSocket::UnconnectedState && !deadline.hasExpired())
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        m_tcp->abort();
    }
    if (m_kind == QLatin1String("Serial"))
        m_serial->close();
    setKind(QString());
    appendTerminal(QStringLiteral("\r\n\r\nDisconected\r\n"), disconnectColour);
    m_timer2->stop();
}

void ConsoleSession::setTerminalEmulation(bool on)
{
    m_terminal->setEnabled(on);
    // A terminal screen costs more per byte than the classic processor: a
    // flood is taken in slices, with the event loop running between them.
    m_tcp->setReadBufferSize(on ? 32768 : 0);
}

bool ConsoleSession::terminalEmulation() const
{
    return m_terminal->isEnabled();
}

void ConsoleSession::clearTerminal()
{
    m_processor.noteCleared();
    m_terminal->clear();
    Q_EMIT terminalCleared();
}

void ConsoleSession::appendTerminal(const QString &text, quint32 colour)
{
    m_processor.noteAppended(text);
    m_sessionLog->writeText(text);
    if (m_terminal->isEnabled())
        m_terminal->showMessage(text);
    Q_EMIT terminalAppend(text, colour);
}

void ConsoleSession::emitReaderOps(const QList<TerminalOp> &ops)
{
    for (const TerminalOp &op : ops) {
        if (op.kind == TerminalOp::LogLine)
            Q_EMIT logAppend(op.text);
        else if (op.kind == TerminalOp::Caption)
            Q_EMIT captionChanged(op.text);
    }
}

void ConsoleSession::processReceived(const QByteArray &block)
{
    m_sessionLog->writeRaw(block);
    if (m_terminal->isEnabled()) {
        const bool textLog = m_sessionLog->isActive() && m_sessionLog->mode() == SessionLog::Mode::Text;
        const ConsoleTerminal::Decoded decoded = m_terminal->feed(block, textLog);
        m_sessionLog->writeText(decoded.text);
        emitReaderOps(decoded.ops);
        return;
    }
    const QList<TerminalOp> ops = m_processor.feed(block);
    for (const TerminalOp &op : ops) {
        switch (op.kind) {
        case TerminalOp::Append:
            m_sessionLog->writeText(op.text);
            Q_EMIT terminalAppend(op.text, black);
            break;
        case TerminalOp::DeleteLast:
            m_sessionLog->writeText(QStringLiteral("\b"));
            Q_EMIT terminalDeleteLast();
            break;
        case TerminalOp::LogLine:
            Q_EMIT logAppend(op.text);
            break;
        case TerminalOp::Caption:
            Q_EMIT captionChanged(op.text);
            break;
        }
    }
}

void ConsoleSession::onSerialReadyRead()
{
    processReceived(m_serial->readAll());
}

void ConsoleSession::onSerialError(QSerialPort::SerialPortError error)
{
    // An adapter pulled out while open: release the line, or the port would
    // keep signalling an error it can never recover from.
    if (error != QSerialPort::ResourceError || !m_serial->isOpen())
        return;
    std::fprintf(stderr, "tarnwick: serial port %s: %s\n", qPrintable(m_serial->portName()),
        qPrintable(m_serial->errorString()));
    m_serial->close();
    if (m_kind == QLatin1String("Serial"))
        setKind(QString());
}

void ConsoleSession::onTcpReadyRead()
{
    deviceData(m_tcp->readAll());
}

void ConsoleSession::deviceData(const QByteArray &data)
{
    if (m_listingReader && m_terminal->isEnabled()) {
        m_sessionLog->writeRaw(data);
        Q_EMIT listingText(m_terminal->decode(data).toUtf8());
    } else if (m_listingReader) {
        m_sessionLog->writeRaw(data);
        Q_EMIT listingText(data);
    } else {
        processReceived(data);
    }
    m_countDown = idleSeconds;
    m_keepAlive = 1;
    Q_EMIT idleChanged();
}

void ConsoleSession::onTcpError(QAbstractSocket::SocketError error)
{
    // A peer that closes the line is not an error here: the next Timer2 tick
    // finds the socket down and reports "Connection timed out".
    if (error == QAbstractSocket::RemoteHostClosedError)
        return;
    appendTerminal(
        QStringLiteral("Winsock Err: %1-%2\r\n").arg(winsockNumber(error)).arg(m_tcp->errorString()),
        errorColour);
    appendTerminal(QStringLiteral(">\r\n"), black);
    m_tcp->abort();
    setKind(QString());
}

void ConsoleSession::onTimer1()
{
    if (m_serial->isOpen()) {
        m_timer2->start();
        m_serial->write("\x11");
    }
    if (tcpConnected() || m_ssh->isOpen()) {
        m_timer2->start();
        writeNetwork("\x11");
    }
}

void ConsoleSession::onTimer2()
{
    if (tcpConnected() || m_ssh->isOpen()) {
        --m_countDown;
        if (m_countDown <= 0) {
            // Every second idle minute the device gets a harmless
            // backspace-space, so its own idle time-out never closes the line.
            // An SSH shell is kept alive by SSH keep-alives instead: typed
            // characters would advance a pager and litter the history.
            if (m_keepAlive != 1) {
                m_keepAlive = 1;
                if (!m_sshSession)
                    writeNetwork("\b ");
            } else {
                m_keepAlive = 2;
            }
            m_countDown = idleSeconds;
        }
        Q_EMIT idleChanged();
        return;
    }
    reportTimedOut();
}

void ConsoleSession::reportTimedOut()
{
    appendTerminal(QStringLiteral("Connection timed out\r"), red);
    appendTerminal(QStringLiteral(">\r"), black);
    setKind(QString());
    m_tcp->abort();
    m_ssh->close();
    m_sshSession = false;
    m_timer2->stop();
}
