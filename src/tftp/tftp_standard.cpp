// The standard TFTP profile's side of the server: requests read with their
// options, answered with ERROR where the classic handler stays silent, and
// transfers handed to StandardTransfer on the same slots.

#include "access/access_list.h"
#include "access/check_access.h"
#include "tftp/capture_sink.h"
#include "tftp/standard_transfer.h"
#include "tftp/tftp_options.h"
#include "tftp/tftp_packet.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"

#include <QFile>
#include <QTimer>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace TftpOptions;

void TftpServer::sendError(
    DatagramSocket *socket, const QHostAddress &to, quint16 port, int code, const QByteArray &text)
{
    if (socket)
        socket->writeDatagram(TftpOptions::error(code, text), to, port);
}

void TftpServer::handleStandardRequest(int s, const QByteArray &datagram, const QHostAddress &sender,
    quint16 senderPort, const QHostAddress &destination)
{
    Slot &slot = m_slots[s];
    const int opcode = TftpPacket::opcode(datagram);
    // DATA, ACK and ERROR mean nothing on the listening port: no transfer to end or answer.
    if (opcode != TftpPacket::Rrq && opcode != TftpPacket::Wrq)
        return;
    const bool read = opcode == TftpPacket::Rrq;
    const auto refuse
        = [&](int code, const QByteArray &text) { sendError(slot.socket, sender, senderPort, code, text); };
    const std::optional<Request> request = parseRequest(datagram);
    if (!request)
        return refuse(IllegalOperation, "Illegal TFTP operation");
    const bool netascii = request->mode == "netascii";
    if (!netascii && request->mode != "octet")
        return refuse(IllegalOperation, "Illegal TFTP operation: unsupported mode");

    const QString fileName = QString::fromLatin1(request->name);
    slot.filePath = fileName;
    const int row = decideAccess(s, read, fileName, sender, destination);
    if (row == AccessDecision::Failed)
        return refuse(AccessViolation, "Access violation");
    slot.accessRow = row;
    if (row == AccessDecision::Refused) {
        refuse(AccessViolation, "Access violation");
        windUpRefused(s);
        return;
    }
    const QString fullPath = m_acl->entry(row).folder + QLatin1Char('/') + fileName;
    slot.filePath = fullPath;
    slot.nativePath = QFile::encodeName(fullPath);

    auto send = [this, s](const QByteArray &out) {
        const Slot &sl = m_slots[s];
        if (sl.socket)
            sl.socket->writeDatagram(out, sl.peer, sl.peerPort);
    };
    std::unique_ptr<StandardTransfer> transfer;
    CaptureSink *capture = !read && m_capture && m_capture->capturing() ? m_capture : nullptr;
    if (read) {
        const int fd = ::open(slot.nativePath.constData(), O_RDONLY | O_CLOEXEC);
        struct stat st;
        const bool regular = fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
        if (!regular) {
            const bool missing = fd >= 0 || errno == ENOENT || errno == ENOTDIR;
            if (fd >= 0)
                ::close(fd);
            if (!missing)
                return refuse(AccessViolation, "Access violation");
            m_monitor->setTransferText(row, TransferMonitor::From, QStringLiteral("No Such File"));
            return refuse(FileNotFound, "File not found");
        }
        transfer = StandardTransfer::forRead(
            fd, qint64(st.st_size), negotiate(*request, qint64(st.st_size)), netascii, send);
    } else {
        // Windowed uploads are not offered: every DATA is acknowledged, which a
        // windowed sender would read as a loss and answer by re-sending.
        QString why;
        transfer
            = StandardTransfer::forWrite(fullPath, negotiate(*request, 0, 1), netascii, capture, send, &why);
        if (!transfer)
            return refuse(AccessViolation, "Access violation");
    }

    takeRequest(s, sender, senderPort);
    slot.standard = std::move(transfer);
    slot.tag = read ? Tag::Send : Tag::Receive;
    slot.receivedBlocks = 0;
    slot.bytesDone = 0;
    slot.fileSize = read ? slot.standard->totalBytes() : -1;
    slot.progressClock.invalidate();
    setSocketColumn(
        s, TransferMonitor::SocketStatus, read ? QStringLiteral("SENDING") : QStringLiteral("RECEIVING"));
    slot.standard->start();
    slot.lastAdvance.start();
    slot.retransmit->start(retransmitInterval(slot));
    OpenListener();
    if (capture)
        m_capture->CaptureFileName(fullPath);
}

void TftpServer::handleStandardDatagram(
    int s, const QByteArray &datagram, const QHostAddress &sender, quint16 senderPort)
{
    Slot &slot = m_slots[s];
    const bool held = slot.tag == Tag::Blocking;
    if (senderPort != slot.peerPort || sender != slot.peer) {
        // Somebody else's packet: tell them, and carry on with our peer.
        if (!held)
            sendError(slot.socket, sender, senderPort, UnknownTransferId, "Unknown transfer ID");
        return;
    }
    StandardTransfer &transfer = *slot.standard;
    const int opcode = TftpPacket::opcode(datagram);
    if (held) {
        // A finished upload's slot still answers a repeated final DATA.
        if (opcode == TftpPacket::Data)
            transfer.onData(datagram);
        return;
    }
    const quint64 before = transfer.advances();
    switch (opcode) {
    case TftpPacket::Ack:
        standardOutcome(s, int(transfer.onAck(datagram)), transfer.advances() != before);
        break;
    case TftpPacket::Data:
        ++slot.receivedBlocks;
        standardOutcome(s, int(transfer.onData(datagram)), transfer.advances() != before);
        break;
    case TftpPacket::Error:
        endStandard(slot);
        showProgress(s, true);
        handleError(s, datagram);
        break;
    default:
        break;
    }
}

int TftpServer::retransmitInterval(const Slot &slot) const
{
    return m_retransmitMs > 0 ? m_retransmitMs : slot.standard->timeoutMs();
}

void TftpServer::retransmitTick(int s)
{
    Slot &slot = m_slots[s];
    if (!slot.standard || slot.tag == Tag::Blocking)
        return;
    // The timer is not restarted on every block (that costs more than the
    // block): it counts from the last time the peer moved the transfer on.
    const qint64 quiet = slot.lastAdvance.elapsed();
    if (quiet < retransmitInterval(slot)) {
        slot.retransmit->start(int(retransmitInterval(slot) - quiet));
        return;
    }
    slot.lastAdvance.start();
    standardOutcome(s, int(slot.standard->onTimeout()), false);
    if (slot.standard && slot.tag != Tag::Blocking && !slot.retransmit->isActive())
        slot.retransmit->start(retransmitInterval(slot));
}

void TftpServer::standardOutcome(int s, int outcome, bool rearm)
{
    Slot &slot = m_slots[s];
    slot.bytesDone = slot.standard->bytesDone();
    switch (StandardTransfer::Outcome(outcome)) {
    case StandardTransfer::Outcome::Running:
        if (rearm) {
            slot.lastAdvance.start();
            if (!slot.retransmit->isActive())
                slot.retransmit->start(retransmitInterval(slot));
        }
        showProgress(s, false);
        return;
    case StandardTransfer::Outcome::Finished:
        showProgress(s, true);
        slot.retransmit->stop();
        if (slot.standard->isRead()) {
            // Finished downloads are reported in the row numbered by the slot, as in the classic profile.
            m_monitor->setTransferText(s, TransferMonitor::Status, QStringLiteral("FINISHED OK"));
            CleanSlot(s);
            return;
        }
        slot.tag = Tag::Waiting;
        setSocketColumn(s, TransferMonitor::SocketStatus, QStringLiteral("FINISHED OK"));
        // Held like a classic upload, but the socket stays open so that a
        // client whose last ACK was lost gets it again.
        slot.timer->setInterval(m_holdMs);
        slot.timer->start();
        slot.tag = Tag::Blocking;
        setSocketColumn(s, TransferMonitor::SocketStatus, QStringLiteral("Blocking"));
        return;
    case StandardTransfer::Outcome::Failed:
        showProgress(s, true);
        m_monitor->setTransferText(slot.transferRow, TransferMonitor::Status, slot.standard->failure());
        endStandard(slot);
        HoldSlot(s);
        return;
    }
}

void TftpServer::endStandard(Slot &slot)
{
    slot.retransmit->stop();
    slot.standard.reset();
}
