#include "tftp/standard_engine.h"

#include "access/check_access.h"
#include "access/served_path.h"
#include "tftp/capture_sink.h"
#include "tftp/standard_transfer.h"
#include "tftp/tftp_options.h"
#include "tftp/tftp_packet.h"
#include "tftp/transfer_monitor.h"

#include <QFile>
#include <QHostAddress>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace TftpOptions;

// Capture mode seen from the engine's thread: the flag is a copy the owner
// keeps up to date, and what is captured leaves as signals (queued, so an
// upload running on another loop may send them from there; hence the atomic).
class StandardEngine::Capture : public CaptureSink
{
public:
    explicit Capture(StandardEngine *engine)
        : m_engine(engine)
    { }
    std::atomic<bool> on = false;
    bool capturing() const override { return on; }
    void CaptureFileName(const QString &path) override { Q_EMIT m_engine->captureFileName(path); }
    void CaptureData(const QByteArray &data) override { Q_EMIT m_engine->captureData(data); }

private:
    StandardEngine *m_engine;
};

struct StandardEngine::Transfer
{
    // The socket closes with the transfer, also when one handed off never
    // reached its loop because the server stopped first.
    ~Transfer()
    {
        if (socket >= 0)
            net->close(socket);
    }
    EngineNet *net = nullptr; // of the loop that runs it, which sends its datagrams
    int socket = -1;
    quint32 peer = 0;
    quint16 peerPort = 0;
    quint64 serial = 0;
    QByteArray request;
    StandardRow row;
    std::unique_ptr<StandardTransfer> protocol;
    qint64 lastAdvance = 0;
    qint64 lastShown = -1;
    bool progressDue = false; // newer progress than the row shows; the next flush due shows it
};

namespace {

quint64 peerKey(quint32 address, quint16 port)
{
    return (quint64(address) << 16) | port;
}

QString dotted(quint32 address)
{
    return QHostAddress(address).toString();
}

} // namespace

StandardEngine::StandardEngine(EngineNet *net, QObject *parent)
    : QObject(parent)
    , m_net(net)
    , m_capture(std::make_unique<Capture>(this))
    , m_acl(new AccessList(this))
{
    m_clock.start();
}

StandardEngine::~StandardEngine()
{
    m_transfers.clear(); // closes their sockets
    stopListening();
}

void StandardEngine::setAddress(quint32 address, quint16 port)
{
    m_address = address;
    m_port = port;
}

void StandardEngine::setMaxTransfers(int limit)
{
    m_maxTransfers = qMax(1, limit);
}

void StandardEngine::setConfine(bool on)
{
    m_confine = on;
}

void StandardEngine::setAccessEntries(const QList<AccessEntry> &entries)
{
    m_acl->removeRows(0, m_acl->rowCount());
    for (const AccessEntry &entry : entries)
        m_acl->appendEntry(entry);
}

void StandardEngine::setCapturing(bool on)
{
    m_capture->on = on;
}

void StandardEngine::setRetransmitInterval(int ms)
{
    m_retransmitMs = ms;
}

void StandardEngine::setLoops(int count, HandOff handOff)
{
    m_load.assign(size_t(qMax(1, count)), 0);
    m_handOff = std::move(handOff);
}

void StandardEngine::setEnded(std::function<void(quint64)> ended)
{
    m_ended = std::move(ended);
}

bool StandardEngine::listen()
{
    if (m_listener >= 0)
        return true;
    m_listener = m_net->open(m_address, m_port);
    m_error = m_listener < 0 ? m_net->errorString() : QString();
    m_socketsDirty = true;
    return m_listener >= 0;
}

void StandardEngine::stopListening()
{
    if (m_listener >= 0)
        m_net->close(m_listener);
    m_listener = -1;
    m_socketsDirty = true;
}

bool StandardEngine::receive(
    int socket, const QByteArray &datagram, quint32 sender, quint16 senderPort, quint32 destination)
{
    if (socket == m_listener) {
        handleRequest(datagram, sender, senderPort, destination);
        return true;
    }
    const auto it = m_transfers.find(socket);
    if (it == m_transfers.end())
        return false;
    handleTransfer(*it->second, datagram, sender, senderPort);
    return m_transfers.count(socket) > 0;
}

int StandardEngine::openFrom(quint32 local)
{
    // A request sent to a broadcast address cannot be answered from it: the
    // bound address (or any) does then.
    const int socket = m_net->open(local, 0);
    return socket >= 0 || local == m_address ? socket : m_net->open(m_address, 0);
}

void StandardEngine::refuse(quint32 from, quint32 to, quint16 port, int code, const QByteArray &text)
{
    // From a fresh port, as the transfer would have been: the listener stays
    // free for the next request, and nothing is kept.
    const int socket = openFrom(from);
    if (socket < 0)
        return;
    m_net->send(socket, TftpOptions::error(code, text), to, port);
    m_net->close(socket);
}

void StandardEngine::handleRequest(
    const QByteArray &datagram, quint32 sender, quint16 senderPort, quint32 destination)
{
    const int opcode = TftpPacket::opcode(datagram);
    // DATA, ACK and ERROR mean nothing on the listening port: no transfer to end or answer.
    if (opcode != TftpPacket::Rrq && opcode != TftpPacket::Wrq)
        return;
    // The client repeated its request before our first reply reached it: the
    // transfer it asked for already runs.
    const auto latest = m_byPeer.constFind(peerKey(sender, senderPort));
    if (latest != m_byPeer.cend() && m_running.at(*latest).request == datagram)
        return;
    const quint32 local = destination ? destination : m_address;
    if (runningTransfers() >= m_maxTransfers) {
        // No answer: the client retries on its own, and gets in once a transfer ends.
        const qint64 at = now();
        if (m_limitSaid < 0 || at - m_limitSaid >= 60000) {
            m_limitSaid = at;
            Q_EMIT limitReached(QStringLiteral("TFTP: transfer limit (%1) reached").arg(m_maxTransfers));
        }
        return;
    }
    const bool read = opcode == TftpPacket::Rrq;
    const auto reject
        = [&](int code, const QByteArray &text) { refuse(local, sender, senderPort, code, text); };
    std::optional<Request> request = parseRequest(datagram);
    if (!request)
        return reject(IllegalOperation, "Illegal TFTP operation");
    const bool netascii = request->mode == "netascii";
    if (!netascii && request->mode != "octet")
        return reject(IllegalOperation, "Illegal TFTP operation: unsupported mode");

    const QString fileName = QString::fromLatin1(request->name);
    AccessRequest asked;
    asked.remoteAddress = dotted(sender);
    asked.localAddress = dotted(local);
    asked.kind = read ? AccessDecision::Read : AccessDecision::Write;
    asked.fileName = fileName;
    StandardRow row;
    const auto record
        = [&](const QString &file, const QString &from, const QString &to, const QString &status) {
              row.id = ++m_nextRow;
              row.columns = { file, from, to, status, QString() };
          };
    AccessVeto veto;
    if (m_confine)
        veto = [&](int entry) { return ServedPath::staysInside(m_acl->entry(entry).folder, fileName); };
    QString failure;
    const int entry = CheckAccess(*m_acl, asked, record, veto, &failure);
    if (row.id)
        touch(row);
    if (entry == AccessDecision::Failed) {
        // A broken access list must not fail in silence, but one line per cause is enough.
        if (!m_reportedFailures.contains(failure)) {
            m_reportedFailures.append(failure);
            Q_EMIT accessDecisionFailed(
                tr("The access decision failed on %1; the request from %2 is refused.")
                    .arg(failure, asked.remoteAddress));
        }
        return reject(AccessViolation, "Access violation");
    }
    if (entry == AccessDecision::Refused)
        return reject(AccessViolation, "Access violation");
    const QString fullPath = ServedPath::join(m_acl->entry(entry).folder, fileName);

    auto transfer = std::make_shared<Transfer>();
    transfer->net = m_net;
    transfer->socket = openFrom(local);
    if (transfer->socket < 0)
        return reject(NotDefined, "No socket for the transfer");
    const int socket = transfer->socket;
    // The window is capped so that one window fits the socket's send buffer:
    // a larger one would only be dropped on the way out, and the work of
    // one wake-up stays bounded.
    const auto negotiateRead = [&](qint64 size) {
        Negotiation agreed = negotiate(*request, size);
        const int fits = qMax(1, m_net->sendBufferBytes(socket) / (agreed.blockSize + 4 + 64));
        return agreed.windowSize > fits ? negotiate(*request, size, fits) : agreed;
    };
    // Through the transfer's own net: it may run on another loop.
    auto send
        = [t = transfer.get()](const QByteArray &out) { t->net->send(t->socket, out, t->peer, t->peerPort); };
    CaptureSink *capture = !read && m_capture->on ? m_capture.get() : nullptr;
    std::unique_ptr<StandardTransfer> protocol;
    const auto fail = [&](int code, const QByteArray &text) {
        transfer.reset(); // closes its socket
        reject(code, text);
    };
    if (read) {
        // Non-blocking, so a FIFO or a device under the name cannot hang the
        // engine in open(); only regular files are served.
        const int fd = ::open(QFile::encodeName(fullPath).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        const int openError = errno;
        struct stat st;
        const bool regular = fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
        if (!regular) {
            const bool missing = fd >= 0 || openError == ENOENT || openError == ENOTDIR;
            if (fd >= 0)
                ::close(fd);
            if (!missing)
                return fail(AccessViolation, "Access violation");
            row.columns[TransferMonitor::From] = QStringLiteral("No Such File");
            touch(row);
            return fail(FileNotFound, "File not found");
        }
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        // Netascii's length on the wire is not known before it is sent: no tsize then.
        if (netascii)
            request->options.removeIf([](const auto &option) { return option.first == "tsize"; });
        protocol = StandardTransfer::forRead(
            fd, qint64(st.st_size), negotiateRead(qint64(st.st_size)), netascii, send);
    } else {
        // Windowed uploads are not offered: every DATA is acknowledged, which a
        // windowed sender would read as a loss and answer by re-sending.
        QString why;
        protocol
            = StandardTransfer::forWrite(fullPath, negotiate(*request, 0, 1), netascii, capture, send, &why);
        if (!protocol)
            return fail(AccessViolation, "Access violation");
    }

    Transfer &t = *transfer;
    t.peer = sender;
    t.peerPort = senderPort;
    t.serial = ++m_nextSerial;
    t.request = QByteArray(datagram.constData(), datagram.size()); // the datagram is only lent
    t.row = row;
    t.row.running = true;
    t.protocol = std::move(protocol);
    t.protocol->setBatchSender([tp = &t](const QByteArray &datagrams, int segment) {
        tp->net->sendSegments(tp->socket, datagrams, segment, tp->peer, tp->peerPort);
    });
    // The loop that runs the fewest transfers takes it; this one on a tie,
    // so a lone transfer never pays for a hand-off.
    const int loop = int(std::min_element(m_load.cbegin(), m_load.cend()) - m_load.cbegin());
    ++m_load[size_t(loop)];
    m_running[t.serial] = { t.request, sender, senderPort, m_net->localPort(socket), read, loop };
    m_byPeer.insert(peerKey(sender, senderPort), t.serial);
    m_socketsDirty = true;
    touch(t.row);
    if (capture)
        m_capture->CaptureFileName(fullPath);
    if (loop == 0 || !m_handOff) {
        m_transfers[socket] = std::move(transfer);
        return begin(t);
    }
    m_net->detach(socket);
    m_outgoing.emplace_back(loop, std::move(transfer));
}

void StandardEngine::handOffAccepted()
{
    // Their rows leave first: the other loop's updates of a row must not
    // reach the list before the row itself.
    emitRows();
    for (auto &[loop, transfer] : m_outgoing)
        m_handOff(loop, std::move(transfer));
    m_outgoing.clear();
}

void StandardEngine::adopt(std::shared_ptr<Transfer> transfer)
{
    transfer->net = m_net;
    m_net->attach(transfer->socket);
    m_transfers[transfer->socket] = transfer;
    begin(*transfer);
}

void StandardEngine::begin(Transfer &t)
{
    t.lastAdvance = now();
    t.protocol->start();
    arm(t, t.lastAdvance + retransmitMs(t));
}

void StandardEngine::transferEnded(quint64 serial)
{
    const auto it = m_running.find(serial);
    if (it == m_running.end())
        return;
    --m_load[size_t(it->second.loop)];
    const auto key = peerKey(it->second.peer, it->second.peerPort);
    if (m_byPeer.value(key) == serial)
        m_byPeer.remove(key);
    m_running.erase(it);
    m_socketsDirty = true;
}

void StandardEngine::handleTransfer(
    Transfer &t, const QByteArray &datagram, quint32 sender, quint16 senderPort)
{
    if (senderPort != t.peerPort || sender != t.peer) {
        // Somebody else's packet: tell them, and carry on with our peer.
        m_net->send(
            t.socket, TftpOptions::error(UnknownTransferId, "Unknown transfer ID"), sender, senderPort);
        return;
    }
    StandardTransfer &protocol = *t.protocol;
    // Read before the datagram is handled: whether it moved the transfer on
    // decides whether the retransmission timer starts over.
    const quint64 before = protocol.advances();
    switch (TftpPacket::opcode(datagram)) {
    case TftpPacket::Ack: {
        const StandardTransfer::Outcome result = protocol.onAck(datagram);
        outcome(t, int(result), protocol.advances() != before);
        break;
    }
    case TftpPacket::Data: {
        const StandardTransfer::Outcome result = protocol.onData(datagram);
        outcome(t, int(result), protocol.advances() != before);
        break;
    }
    case TftpPacket::Error: {
        QByteArray body = datagram.mid(4);
        body.replace('\0', QByteArray()); // the list shows text, the zero bytes carry none
        t.row.columns[TransferMonitor::From] = QString::fromLatin1(body);
        end(t, t.row.columns[TransferMonitor::Status]);
        break;
    }
    default:
        break;
    }
}

int StandardEngine::retransmitMs(const Transfer &t) const
{
    return m_retransmitMs > 0 ? m_retransmitMs : t.protocol->timeoutMs();
}

void StandardEngine::arm(Transfer &t, qint64 at)
{
    m_timers.push({ at, { t.socket, t.serial } });
}

void StandardEngine::outcome(Transfer &t, int result, bool advanced)
{
    switch (StandardTransfer::Outcome(result)) {
    case StandardTransfer::Outcome::Running:
        if (advanced)
            t.lastAdvance = now();
        // A block costs no more than this flag: the row's text is made by a flush.
        if (!t.progressDue) {
            t.progressDue = true;
            m_progressDue.insert(t.socket);
        }
        return;
    case StandardTransfer::Outcome::Finished:
        // Every ending is written into the request's own row. A finished
        // upload's row keeps reading "Allowed", as in the classic profile.
        end(t, t.protocol->isRead() ? QStringLiteral("FINISHED OK") : t.row.columns[TransferMonitor::Status]);
        return;
    case StandardTransfer::Outcome::Failed:
        end(t, t.protocol->failure());
        return;
    }
}

void StandardEngine::end(Transfer &t, const QString &status)
{
    showProgress(t, true);
    t.row.columns[TransferMonitor::Status] = status;
    t.row.running = false;
    touch(t.row);
    // No hold: the port is free at once. A client whose final ACK was lost
    // re-sends its last DATA to a closed port and gives up on its own; the
    // file is already in place.
    const int socket = t.socket;
    const quint64 serial = t.serial;
    m_progressDue.remove(socket);
    m_transfers.erase(socket); // closes the socket; t is gone from here on
    if (m_ended)
        m_ended(serial);
    else
        transferEnded(serial);
}

void StandardEngine::showProgress(Transfer &t, bool final)
{
    t.lastShown = now();
    t.progressDue = false;
    const qint64 done = t.protocol->bytesDone(), total = t.protocol->totalBytes();
    QString text;
    if (!final && total >= 0) {
        const qint64 percent = total > 0 ? done * 100 / total : 100;
        text = QStringLiteral("%1 of %2 bytes (%3%)").arg(done).arg(total).arg(percent);
    } else {
        text = QStringLiteral("%1 bytes").arg(done);
    }
    if (t.row.columns[TransferMonitor::DataSentReceived] == text)
        return;
    t.row.columns[TransferMonitor::DataSentReceived] = text;
    touch(t.row);
}

qint64 StandardEngine::nextDeadline() const
{
    return m_timers.empty() ? -1 : m_timers.top().first;
}

void StandardEngine::expire(qint64 at)
{
    while (!m_timers.empty() && m_timers.top().first <= at) {
        const auto [socket, serial] = m_timers.top().second;
        m_timers.pop();
        const auto it = m_transfers.find(socket);
        if (it == m_transfers.end() || it->second->serial != serial)
            continue; // that transfer has ended; its socket number may be another's now
        Transfer &t = *it->second;
        // Counted from the last time the peer moved the transfer on.
        const qint64 due = t.lastAdvance + retransmitMs(t);
        if (due > at) {
            arm(t, due);
            continue;
        }
        t.lastAdvance = at;
        const StandardTransfer::Outcome result = t.protocol->onTimeout();
        if (result == StandardTransfer::Outcome::Running)
            arm(t, at + retransmitMs(t));
        else
            outcome(t, int(result), false);
    }
}

void StandardEngine::emitRows()
{
    if (m_pendingRows.empty())
        return;
    QList<StandardRow> rows;
    rows.reserve(qsizetype(m_pendingRows.size()));
    for (auto &[id, row] : m_pendingRows)
        rows.append(std::move(row));
    m_pendingRows.clear();
    Q_EMIT rowsChanged(rows);
}

void StandardEngine::flush()
{
    const qint64 at = now();
    for (auto it = m_progressDue.begin(); it != m_progressDue.end();) {
        const auto found = m_transfers.find(*it);
        if (found == m_transfers.end()) {
            it = m_progressDue.erase(it);
        } else if (found->second->lastShown < 0 || at - found->second->lastShown >= progressMs) {
            it = m_progressDue.erase(it);
            showProgress(*found->second, false);
        } else {
            ++it;
        }
    }
    emitRows();
    if (!m_socketsDirty || m_ended)
        return; // the first loop's engine alone shows the socket table
    m_socketsDirty = false;
    StandardSocketRows table;
    table.reserve(socketRows);
    table.append(
        { QStringLiteral("1"), m_listener >= 0 ? QString::number(m_net->localPort(m_listener)) : QString(),
            QString(), m_listener >= 0 ? QStringLiteral("Listen") : QStringLiteral("ready"), QString() });
    for (auto it = m_running.cbegin(); it != m_running.cend() && table.size() < socketRows; ++it) {
        const Entry &e = it->second;
        table.append(
            { QString::number(table.size() + 1), QString::number(e.localPort), QString::number(e.peerPort),
                e.read ? QStringLiteral("SENDING") : QStringLiteral("RECEIVING"), QString() });
    }
    while (table.size() < socketRows)
        table.append(
            { QString::number(table.size() + 1), QString(), QString(), QStringLiteral("ready"), QString() });
    if (table == m_shownSockets)
        return;
    m_shownSockets = table;
    Q_EMIT socketRowsChanged(table);
}
