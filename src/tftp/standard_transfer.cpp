#include "tftp/standard_transfer.h"

#include "tftp/capture_sink.h"
#include "tftp/file_blocks.h"
#include "tftp/tftp_packet.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int wireNumber(const QByteArray &datagram)
{
    return (static_cast<unsigned char>(datagram[2]) << 8) | static_cast<unsigned char>(datagram[3]);
}

} // namespace

StandardTransfer::StandardTransfer(bool read, const TftpOptions::Negotiation &options, Sender send)
    : m_read(read)
    , m_options(options)
    , m_send(std::move(send))
{ }

StandardTransfer::~StandardTransfer()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

std::unique_ptr<StandardTransfer> StandardTransfer::forRead(
    int fd, qint64 size, const TftpOptions::Negotiation &options, bool netascii, Sender send)
{
    std::unique_ptr<StandardTransfer> t(new StandardTransfer(true, options, std::move(send)));
    t->m_fd = fd;
    t->m_netascii = netascii;
    t->m_size = size;
    if (netascii) {
        // Text files are small; translating the whole file once keeps block
        // offsets simple, since netascii changes the length.
        QByteArray local(size, Qt::Uninitialized);
        local.resize(readAt(fd, local.data(), size, 0));
        t->m_text = TftpOptions::toNetascii(local);
        t->m_size = t->m_text.size();
    }
    t->m_total = t->m_size;
    t->m_lastBlock = t->m_size / options.blockSize + 1; // the last block is short, or empty
    return t;
}

std::unique_ptr<StandardTransfer> StandardTransfer::forWrite(const QString &targetPath,
    const TftpOptions::Negotiation &options, bool netascii, CaptureSink *capture, Sender send,
    QString *errorText)
{
    std::unique_ptr<StandardTransfer> t(new StandardTransfer(false, options, std::move(send)));
    t->m_netascii = netascii;
    t->m_total = options.transferSize.value_or(-1);
    if (capture) {
        t->m_capture = capture;
        return t;
    }
    if (!t->m_upload.open(targetPath)) {
        if (errorText)
            *errorText = QString::fromLocal8Bit(std::strerror(t->m_upload.errorNumber()));
        return nullptr;
    }
    return t;
}

void StandardTransfer::start()
{
    if (!m_options.acknowledged.isEmpty()) {
        const QByteArray oack = TftpOptions::oack(m_options.acknowledged);
        m_oackPending = m_read;
        if (!m_read)
            m_lastAck = oack; // the OACK stands for ACK 0
        m_send(oack);
        return;
    }
    if (m_read) {
        sendWindow();
    } else {
        m_lastAck = TftpOptions::ack(0);
        m_send(m_lastAck);
    }
}

void StandardTransfer::sendWindow()
{
    const qint64 end = qMin(m_acked + m_options.windowSize, m_lastBlock);
    for (qint64 block = m_acked + 1; block <= end; ++block)
        sendBlock(block);
    m_sentUpTo = qMax(m_sentUpTo, end);
}

void StandardTransfer::sendBlock(qint64 block)
{
    const qint64 offset = (block - 1) * m_options.blockSize;
    const qint64 length = qBound(qint64(0), m_size - offset, qint64(m_options.blockSize));
    if (m_netascii) {
        TftpOptions::data(m_buffer, block, m_text.constData() + offset, int(length));
    } else {
        TftpOptions::data(m_buffer, block, nullptr, int(length));
        m_buffer.resize(
            4 + readAt(m_fd, m_buffer.data() + 4, length, offset)); // a shrunk file sends what is there
    }
    m_send(m_buffer);
}

StandardTransfer::Outcome StandardTransfer::onAck(const QByteArray &datagram)
{
    if (!m_read || m_done || datagram.size() < 4)
        return m_done ? Outcome::Finished : Outcome::Running;
    const int number = wireNumber(datagram);
    if (m_oackPending) {
        if (number != 0)
            return Outcome::Running;
        m_oackPending = false;
        m_tries = 0;
        ++m_advances;
        sendWindow();
        return Outcome::Running;
    }
    // Which outstanding block the ACK names, counting on from the last one
    // acknowledged; anything else (a duplicate, a stale or future number) is
    // ignored, so a duplicate ACK never re-sends.
    const qint64 ahead = (number - TftpOptions::wireBlock(m_acked)) & 0xffff;
    if (ahead == 0 || m_acked + ahead > m_sentUpTo)
        return Outcome::Running;
    m_acked += ahead;
    m_tries = 0;
    ++m_advances;
    m_bytes = qMin(m_acked * m_options.blockSize, m_size);
    if (m_acked == m_lastBlock) {
        m_done = true;
        return Outcome::Finished;
    }
    sendWindow();
    return Outcome::Running;
}

StandardTransfer::Outcome StandardTransfer::onData(const QByteArray &datagram)
{
    if (m_read || datagram.size() < 4)
        return Outcome::Running;
    const int number = wireNumber(datagram);
    const qsizetype size = datagram.size() - 4;
    if (number != TftpOptions::wireBlock(m_received + 1)) {
        // The sender missed our ACK and repeats its block: acknowledge it
        // again (including the final block while the slot is held).
        if (m_received > 0 && number == TftpOptions::wireBlock(m_received))
            m_send(TftpOptions::ack(m_received));
        return m_done ? Outcome::Finished : Outcome::Running;
    }
    if (m_done)
        return Outcome::Finished;
    if (size > m_options.blockSize)
        return failWith(TftpOptions::IllegalOperation, "Block larger than negotiated",
            QStringLiteral("ILLEGAL OPERATION"));
    const bool final = size < m_options.blockSize;
    ++m_received;
    m_tries = 0;
    ++m_advances;
    m_bytes += size;
    m_lastAck = TftpOptions::ack(m_received);
    // A middle block is acknowledged before it is written, so the client
    // sends the next one meanwhile; if the write then fails, the ERROR
    // follows at once and the temporary file goes. The final ACK waits
    // until the file has replaced the target.
    if (!final)
        m_send(m_lastAck);
    const QByteArray wire = QByteArray::fromRawData(datagram.constData() + 4, size);
    if (!store(m_netascii ? m_decoder.feed(wire) : wire) || (final && !commit()))
        return failWith(
            TftpOptions::DiskFull, "Disk full or allocation exceeded", QStringLiteral("DISK FULL"));
    if (final) {
        m_done = true;
        m_send(m_lastAck);
    }
    return final ? Outcome::Finished : Outcome::Running;
}

StandardTransfer::Outcome StandardTransfer::onTimeout()
{
    if (m_done)
        return Outcome::Finished;
    if (++m_tries > maxTries) {
        discard();
        m_failure = QStringLiteral("TIMED OUT");
        return Outcome::Failed;
    }
    if (m_read) {
        if (m_oackPending)
            m_send(TftpOptions::oack(m_options.acknowledged));
        else
            sendWindow();
    } else {
        m_send(m_lastAck);
    }
    return Outcome::Running;
}

StandardTransfer::Outcome StandardTransfer::failWith(int code, const QByteArray &message, const QString &why)
{
    discard();
    m_send(TftpOptions::error(code, message));
    m_failure = why;
    return Outcome::Failed;
}

bool StandardTransfer::store(const QByteArray &local)
{
    if (m_capture) {
        if (m_capture->capturing())
            m_capture->CaptureData(local);
        return true;
    }
    return m_upload.write(local.constData(), local.size());
}

bool StandardTransfer::commit()
{
    if (m_netascii) {
        const QByteArray tail = m_decoder.finish();
        if (!tail.isEmpty() && !store(tail))
            return false;
    }
    if (m_capture)
        return true;
    return m_upload.commit();
}

void StandardTransfer::discard()
{
    if (!m_read)
        m_upload.discard();
}
