// The data-arrival handler of the TFTP server: every datagram of every slot.

#include "access/access_list.h"
#include "access/check_access.h"
#include "access/served_path.h"
#include "tftp/capture_sink.h"
#include "tftp/file_blocks.h"
#include "tftp/tftp_packet.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Files are opened and closed within one datagram's handling; plain
// descriptors keep that to a few system calls per block.
class Fd
{
public:
    Fd(const QByteArray &path, int flags)
        : m_fd(::open(path.constData(), flags | O_CLOEXEC, 0666))
    { }
    ~Fd()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return m_fd; }
    bool ok() const { return m_fd >= 0; }
    qint64 size() const
    {
        struct stat st;
        return ::fstat(m_fd, &st) == 0 ? qint64(st.st_size) : -1;
    }
    bool isRegular() const
    {
        struct stat st;
        return ::fstat(m_fd, &st) == 0 && S_ISREG(st.st_mode);
    }

private:
    int m_fd;
};

} // namespace

void TftpServer::trace(int slot)
{
    const int fd = ::open(m_tracePath.constData(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0)
        return;
    // Formatted by hand: this runs for every datagram and printf costs more than the line.
    char line[16];
    char *end = line + sizeof line;
    char *at = end;
    *--at = '\n';
    *--at = '\r';
    unsigned value = unsigned(slot);
    do {
        *--at = char('0' + value % 10);
        value /= 10;
    } while (value != 0);
    [[maybe_unused]] const ssize_t written = ::write(fd, at, size_t(end - at));
    ::close(fd);
}

void TftpServer::handleDatagram(int s, const QByteArray &datagram, const QHostAddress &sender,
    quint16 senderPort, const QHostAddress &destination)
{
    const Slot &slot = m_slots[s];
    if (slot.tag == Tag::Blocking)
        return;
    dispatch(s, datagram, sender, senderPort, destination);
    // The trace line is written after the reply has gone out, so the client
    // can already work on it: it is never read, only its one line per
    // datagram counts.
    trace(s);
}

void TftpServer::dispatch(int s, const QByteArray &datagram, const QHostAddress &sender, quint16 senderPort,
    const QHostAddress &destination)
{
    const int opcode = TftpPacket::opcode(datagram);
    if (opcode < TftpPacket::Rrq || opcode > TftpPacket::Error)
        return;
    // Datagrams are served whoever sends them; replies always go to the requester.

    switch (opcode) {
    case TftpPacket::Rrq:
    case TftpPacket::Wrq:
        handleRequest(s, opcode, datagram, sender, senderPort, destination);
        break;
    case TftpPacket::Ack:
        handleAck(s, datagram);
        break;
    case TftpPacket::Data:
        handleData(s, datagram);
        break;
    case TftpPacket::Error:
        handleError(s, datagram);
        break;
    }
}

void TftpServer::handleRequest(int s, int opcode, const QByteArray &datagram, const QHostAddress &sender,
    quint16 senderPort, const QHostAddress &destination)
{
    Slot &slot = m_slots[s];
    if (slot.tag != Tag::Null)
        return;
    const bool read = opcode == TftpPacket::Rrq;
    setSocketColumn(
        s, TransferMonitor::SocketStatus, read ? QStringLiteral("SENDING") : QStringLiteral("RECEIVING"));

    // Anything but a plain "octet" request (other modes, options) is left
    // unanswered and the row keeps its status.
    const std::optional<QByteArray> name = TftpPacket::octetRequestName(datagram);
    if (!name)
        return;
    const QString fileName = QString::fromLatin1(*name);
    slot.filePath = fileName;
    const int row = decideAccess(s, read, fileName, sender, destination);
    if (row == AccessDecision::Failed)
        return;
    slot.accessRow = row;
    if (row == AccessDecision::Refused) {
        windUpRefused(s);
        return;
    }

    const QString fullPath = ServedPath::join(m_acl->entry(row).folder, fileName);
    slot.filePath = fullPath;
    slot.nativePath = QFile::encodeName(fullPath);

    if (read) {
        Fd file(slot.nativePath, O_RDONLY);
        if (!file.ok() || !file.isRegular()) {
            m_monitor->setTransferText(row, TransferMonitor::From, QStringLiteral("No Such File"));
            return;
        }
        takeRequest(s, sender, senderPort);
        slot.fileSize = file.size();
        const TftpPacket::BlockPlan plan = TftpPacket::firstBlock(slot.fileSize);
        slot.tag = plan.final ? Tag::CheckEnd : Tag::Send;
        sendBlock(s, file.get(), plan.offset, plan.length, 0, 1);
        if (!plan.final)
            readAhead(s, file.get(), 2);
        // the file closes here, before the listener moves on
    } else {
        takeRequest(s, sender, senderPort);
        slot.fileSize = -1;
        slot.tag = Tag::Receive;
        slot.receivedBlocks = 0;
        slot.socket->writeDatagram(TftpPacket::ack(0, 0), slot.peer, slot.peerPort);
    }
    OpenListener();
    // The file is neither created nor truncated until data arrives.
    if (!read && m_capture && m_capture->capturing())
        m_capture->CaptureFileName(fullPath);
}

void TftpServer::takeRequest(int s, const QHostAddress &sender, quint16 senderPort)
{
    // The listening socket leaves this slot (OpenListener gives it to the next
    // free one); the transfer continues on a socket of its own.
    Slot &slot = m_slots[s];
    m_movingListener = slot.socket;
    slot.socket = newSocket();
    slot.socket->bind(m_bindAddress, 0, false);
    slot.peer = sender;
    slot.peerPort = senderPort;
    slot.aheadBlock = 0;
    slot.bytesDone = 0;
    slot.progressClock.invalidate();
    showPorts(s);
}

int TftpServer::decideAccess(
    int s, bool read, const QString &fileName, const QHostAddress &sender, const QHostAddress &destination)
{
    Slot &slot = m_slots[s];
    AccessRequest request;
    request.remoteAddress = sender.toString();
    const bool specific = !destination.isNull() && destination != QHostAddress(QHostAddress::AnyIPv4);
    request.localAddress = (specific ? destination : m_bindAddress).toString();
    request.kind = read ? AccessDecision::Read : AccessDecision::Write;
    request.fileName = fileName;
    slot.transferRow = 0;
    const auto record
        = [this, &slot](const QString &file, const QString &from, const QString &to, const QString &status) {
              slot.transferRow = m_monitor->addTransfer(file, from, to, status);
          };
    AccessVeto veto;
    if (m_confine) {
        veto = [this, &fileName](
                   int row) { return ServedPath::staysInside(m_acl->entry(row).folder, fileName); };
    }
    QString failure;
    const int row = CheckAccess(*m_acl, request, record, veto, &failure);
    // A broken access list must not fail in silence, but one line per cause is enough.
    if (row == AccessDecision::Failed && !m_reportedFailures.contains(failure)) {
        m_reportedFailures.append(failure);
        emit accessDecisionFailed(tr("The access decision failed on %1; the request from %2 is refused.")
                                      .arg(failure, request.remoteAddress));
    }
    return row;
}

void TftpServer::showProgress(int s, bool final)
{
    Slot &slot = m_slots[s];
    if (slot.transferRow <= 0)
        return;
    // About four updates a second: enough to watch, cheap at thousands of blocks a second.
    if (!final) {
        if (slot.progressClock.isValid() && slot.progressClock.elapsed() < 250)
            return;
        slot.progressClock.start();
    }
    QString text;
    if (!final && slot.fileSize >= 0) {
        const qint64 percent = slot.fileSize > 0 ? slot.bytesDone * 100 / slot.fileSize : 100;
        text = QStringLiteral("%1 of %2 bytes (%3%)").arg(slot.bytesDone).arg(slot.fileSize).arg(percent);
    } else {
        text = QStringLiteral("%1 bytes").arg(slot.bytesDone);
    }
    m_monitor->setTransferText(slot.transferRow, TransferMonitor::DataSentReceived, text);
}

void TftpServer::sendBlock(int s, int fd, qint64 offset, qint64 length, int high, int low)
{
    TftpPacket::dataHeader(m_sendBuffer, high, low, int(length));
    qint64 got = 0;
    while (got < length) {
        const ssize_t n
            = ::pread(fd, m_sendBuffer.data() + 4 + got, size_t(length - got), off_t(offset + got));
        if (n <= 0)
            break;
        got += n;
    }
    m_sendBuffer.resize(4 + got); // the file shrank under us: send what there is
    Slot &slot = m_slots[s];
    slot.socket->writeDatagram(m_sendBuffer, slot.peer, slot.peerPort);
}

void TftpServer::handleAck(int s, const QByteArray &datagram)
{
    Slot &slot = m_slots[s];
    if (slot.tag == Tag::CheckEnd) {
        slot.bytesDone = slot.fileSize;
        showProgress(s, true);
        // Finished downloads are reported in the row numbered by the slot.
        m_monitor->setTransferText(s, TransferMonitor::Status, QStringLiteral("FINISHED OK"));
        CleanSlot(s);
        return;
    }
    if (slot.tag != Tag::Send || datagram.size() < 4)
        return;
    // Any ACK sends the block after the one it names, so a duplicated ACK
    // re-sends; there is no check against the block last sent.
    const TftpPacket::BlockBytes next = TftpPacket::nextBlock(
        static_cast<unsigned char>(datagram[2]), static_cast<unsigned char>(datagram[3]));
    if (next.high > 255)
        return; // past block 65535 there is no number to send it under
    slot.bytesDone = qBound<qint64>(0, TftpPacket::writeOffset(next.number()), slot.fileSize);
    showProgress(s, false);
    if (slot.aheadBlock == next.number()) {
        // The usual case: the block is ready, the client gets it at once and
        // the file is opened afterwards, while the client works on it.
        slot.aheadBlock = 0;
        if (slot.aheadFinal)
            slot.tag = Tag::CheckEnd;
        slot.socket->writeDatagram(slot.ahead, slot.peer, slot.peerPort);
        if (slot.tag != Tag::Send)
            return;
        Fd file(slot.nativePath, O_RDONLY);
        if (file.ok())
            readAhead(s, file.get(), next.number() + 1);
        return;
    }
    Fd file(slot.nativePath, O_RDONLY);
    if (!file.ok())
        return;
    // Reading one byte past the block tells whether at least 513 bytes remain
    // (the full-block rule) without asking for the file's length.
    const qint64 offset = TftpPacket::writeOffset(next.number());
    TftpPacket::dataHeader(m_sendBuffer, next.high, next.low, TftpPacket::blockSize + 1);
    const qint64 got = readAt(file.get(), m_sendBuffer.data() + 4, TftpPacket::blockSize + 1, offset);
    const TftpPacket::BlockPlan plan = TftpPacket::laterBlock(offset + got, next.number());
    if (plan.final)
        slot.tag = Tag::CheckEnd;
    m_sendBuffer.resize(4 + plan.length);
    slot.socket->writeDatagram(m_sendBuffer, slot.peer, slot.peerPort);
    if (!plan.final)
        readAhead(s, file.get(), next.number() + 1);
}

void TftpServer::readAhead(int s, int fd, int block)
{
    Slot &slot = m_slots[s];
    slot.aheadBlock = 0;
    if (block > 65535)
        return;
    // Same full-block rule as above: one byte past the block is read too.
    const qint64 offset = TftpPacket::writeOffset(block);
    TftpPacket::dataHeader(slot.ahead, block >> 8, block & 0xff, TftpPacket::blockSize + 1);
    const qint64 got = readAt(fd, slot.ahead.data() + 4, TftpPacket::blockSize + 1, offset);
    const TftpPacket::BlockPlan plan = TftpPacket::laterBlock(offset + got, block);
    slot.ahead.resize(4 + plan.length);
    slot.aheadFinal = plan.final;
    slot.aheadBlock = block;
}

void TftpServer::handleData(int s, const QByteArray &datagram)
{
    Slot &slot = m_slots[s];
    if (slot.tag != Tag::Receive || datagram.size() < 4)
        return;
    const int block = *TftpPacket::blockNumber(datagram);
    ++slot.receivedBlocks;
    const char *data = datagram.constData() + 4;
    const qsizetype size = datagram.size() - 4;
    slot.bytesDone += size;

    // The ACK echoes the block bytes. It goes out before the block is written
    // so the client can send the next one meanwhile; that one is handled only
    // after this write, so nothing is reordered.
    slot.socket->writeDatagram(
        TftpPacket::ack(static_cast<unsigned char>(datagram[2]), static_cast<unsigned char>(datagram[3])),
        slot.peer, slot.peerPort);
    if (m_capture && m_capture->capturing()) {
        m_capture->CaptureData(QByteArray(data, size));
    } else if (block >= 1) {
        // Written where the block number puts it, never truncating: repeats
        // land on themselves, a shorter upload leaves the old tail.
        Fd file(slot.nativePath, O_WRONLY | O_CREAT);
        if (file.ok()) {
            qint64 done = 0;
            const qint64 offset = TftpPacket::writeOffset(block);
            while (done < size) {
                const ssize_t n
                    = ::pwrite(file.get(), data + done, size_t(size - done), off_t(offset + done));
                if (n <= 0)
                    break;
                done += n;
            }
        }
    }
    if (size >= TftpPacket::blockSize) {
        showProgress(s, false);
        return;
    }
    showProgress(s, true);
    slot.tag = Tag::Waiting;
    setSocketColumn(s, TransferMonitor::SocketStatus, QStringLiteral("FINISHED OK"));
    HoldSlot(s);
}

void TftpServer::handleError(int s, const QByteArray &datagram)
{
    Slot &slot = m_slots[s];
    // Also on the listener: it is shown and the slot held, and the refresh
    // tick opens a new listener once no row reads "Listen".
    if (slot.accessRow == AccessDecision::Refused)
        return;
    QByteArray body = datagram.mid(2);
    body.replace('\0', QByteArray()); // the list shows text, the zero bytes carry none
    const QString text = QString::fromLatin1(body);
    m_monitor->setTransferText(slot.accessRow, TransferMonitor::From, text);
    setSocketColumn(s, TransferMonitor::LocalPort, QStringLiteral("ERROR"));
    setSocketColumn(s, TransferMonitor::SocketError, text);
    HoldSlot(s);
}
