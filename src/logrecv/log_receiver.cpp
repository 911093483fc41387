#include "log_receiver.h"

#include "logrecv/log_options.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QStringDecoder>
#include <QUdpSocket>

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {
// Each file record is opened, written and closed on the window's thread, so a
// burst faster than that is held in the kernel queue: 64 MiB (the kernel
// doubles it) holds well over 100,000 syslog datagrams. Memory is only taken
// while datagrams actually wait.
constexpr int wantedReceiveBuffer = 64 * 1024 * 1024;
constexpr int maxDatagram = 65536;

// Raise the kernel queue for bursts. SO_RCVBUFFORCE passes the system cap when
// we hold the right (root, CAP_NET_ADMIN); otherwise SO_RCVBUF takes what the
// cap allows.
void raiseReceiveBuffer(qintptr fd)
{
    int size = wantedReceiveBuffer;
#ifdef SO_RCVBUFFORCE
    if (::setsockopt(int(fd), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) == 0)
        return;
#endif
    ::setsockopt(int(fd), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

// Devices send ASCII, sometimes UTF-8; anything else is shown byte for byte.
QString datagramText(const QByteArray &bytes)
{
    QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = utf8(bytes);
    if (utf8.hasError())
        text = QString::fromLatin1(bytes);
    return text;
}
} // namespace

LogReceiver::LogReceiver(LogOptions *options, QObject *parent)
    : QObject(parent)
    , m_options(options)
{
    m_buffer.resize(maxDatagram);
}

LogReceiver::~LogReceiver() = default;

bool LogReceiver::bind(quint16 port, const QHostAddress &address)
{
    delete m_socket;
    m_socket = new QUdpSocket(this);
    m_socket->setObjectName(QStringLiteral("Log"));
    if (!m_socket->bind(address, port)) {
        m_error = m_socket->errorString();
        delete m_socket;
        m_socket = nullptr;
        return false;
    }
    m_error.clear();
    raiseReceiveBuffer(m_socket->socketDescriptor());
    connect(m_socket, &QUdpSocket::readyRead, this, &LogReceiver::readPending);
    return true;
}

quint16 LogReceiver::localPort() const
{
    return m_socket ? m_socket->localPort() : 0;
}

int LogReceiver::receiveBufferSize() const
{
    if (!m_socket)
        return 0;
    int size = 0;
    socklen_t length = sizeof size;
    ::getsockopt(int(m_socket->socketDescriptor()), SOL_SOCKET, SO_RCVBUF, &size, &length);
    return size;
}

QString LogReceiver::logFileName(const QString &sender, const QDate &date, const QLocale &locale)
{
    QString day = locale.toString(date, QLocale::ShortFormat);
    day.replace(QLatin1Char('/'), QLatin1Char('-'));
    return sender + QLatin1Char(' ') + day + QStringLiteral(".log");
}

void LogReceiver::readPending()
{
    // A bounded batch per wake-up keeps the window responsive in a flood; what
    // is left wakes the (level-triggered) notifier again on the next turn.
    const bool toFile = m_options && m_options->logToFile();
    m_records.clear();
    QHostAddress from;
    for (int batch = 0; batch < batchLimit && m_socket && m_socket->hasPendingDatagrams(); ++batch) {
        const qint64 size = m_socket->readDatagram(m_buffer.data(), m_buffer.size(), &from);
        if (size < 0)
            break;
        route(from, QByteArray::fromRawData(m_buffer.constData(), size), toFile);
    }
    finishBatch(toFile);
}

void LogReceiver::receive(const QList<Datagram> &batch)
{
    const bool toFile = m_options && m_options->logToFile();
    m_records.clear();
    for (const Datagram &datagram : batch)
        route(datagram.from, datagram.bytes, toFile);
    finishBatch(toFile);
}

void LogReceiver::route(const QHostAddress &from, const QByteArray &bytes, bool toFile)
{
    ++m_counters.received;
    const QString sender = senderText(from);
    if (!m_router || !m_router(sender, datagramText(bytes))) {
        ++m_counters.dropped;
        Q_EMIT datagramHandled(sender, false);
        return;
    }
    ++m_counters.delivered;
    // bytes may point into the receive buffer, which the next datagram reuses.
    m_records.append(Record { sender, toFile ? QByteArray(bytes.constData(), bytes.size()) : QByteArray() });
}

void LogReceiver::finishBatch(bool toFile)
{
    if (m_records.isEmpty())
        return;
    // The views first: a file that cannot be written never costs a view its line.
    if (m_flush)
        m_flush();
    for (const Record &record : std::as_const(m_records)) {
        if (toFile) {
            if (appendRecord(record.sender, record.bytes))
                ++m_counters.written;
            else
                ++m_counters.writeFailures;
        }
        Q_EMIT datagramHandled(record.sender, true);
    }
    m_records.clear();
}

QString LogReceiver::senderText(const QHostAddress &from)
{
    // Consoles carry dotted IPv4 tags; a mapped ::ffff:a.b.c.d must match them.
    bool isV4 = false;
    const quint32 value = from.toIPv4Address(&isV4);
    if (!isV4)
        return from.toString();
    if (value != m_lastSenderValue || m_lastSenderText.isEmpty()) {
        m_lastSenderValue = value;
        m_lastSenderText = QHostAddress(value).toString();
    }
    return m_lastSenderText;
}

bool LogReceiver::appendRecord(const QString &sender, const QByteArray &bytes)
{
    const QDate today = QDate::currentDate();
    const QString folder = m_options->effectiveFolder();
    if (today.toJulianDay() != m_cachedDay || folder != m_cachedFolder) {
        m_cachedDay = today.toJulianDay();
        m_cachedFolder = folder;
        m_paths.clear();
    }
    auto path = m_paths.constFind(sender);
    if (path == m_paths.constEnd()) {
        if (m_paths.size() > 1024) // senders come and go; keep the cache small
            m_paths.clear();
        path = m_paths.insert(
            sender, QFile::encodeName(folder + QLatin1Char('/') + logFileName(sender, today)));
    }

    // Plain POSIX calls: a flood makes this the hottest path, and open, one
    // write of the record with its CR CR LF, and close is all it needs.
    int fd = ::open(path->constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0 && errno == ENOENT && QDir().mkpath(folder)) // a folder never made, or removed since
        fd = ::open(path->constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    static const char ending[] = "\r\r\n";
    iovec parts[2] = { { const_cast<char *>(bytes.constData()), size_t(bytes.size()) },
        { const_cast<char *>(ending), 3 } };
    const ssize_t wanted = bytes.size() + 3;
    const ssize_t done = ::writev(fd, parts, 2);
    const bool closed = ::close(fd) == 0;
    return done == wanted && closed;
}
