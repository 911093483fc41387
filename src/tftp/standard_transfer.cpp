#include "tftp/standard_transfer.h"

#include "tftp/capture_sink.h"
#include "tftp/file_blocks.h"
#include "tftp/tftp_packet.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int wireNumber(const QByteArray &datagram)
{
    return (static_cast<unsigned char>(datagram[2]) << 8) | static_cast<unsigned char>(datagram[3]);
}

bool diskFull(int error)
{
    return error == ENOSPC || error == EDQUOT || error == EFBIG || error == EIO;
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
        ::close(m_fd); // a read's file; an upload never committed is dropped by UploadFile
}

std::unique_ptr<StandardTransfer> StandardTransfer::forRead(
    int fd, qint64 size, const TftpOptions::Negotiation &options, bool netascii, Sender send)
{
    std::unique_ptr<StandardTransfer> t(new StandardTransfer(true, options, std::move(send)));
    t->m_fd = fd;
    t->m_netascii = netascii;
    t->m_size = size;
    if (netascii) {
        // The wire length is only known once the file has been read through.
        t->m_lastBlock = std::numeric_limits<qint64>::max();
        t->m_cursors[1] = TextCursor {};
    } else {
        t->m_total = size;
        t->m_lastBlock = size / options.blockSize + 1; // the last block is short, or empty
        t->m_lastLength = size % options.blockSize;
    }
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
        sendWindow(1);
    } else {
        m_lastAck = TftpOptions::ack(0);
        m_send(m_lastAck);
    }
}

void StandardTransfer::sendWindow(qint64 from)
{
    const qint64 end = m_acked + m_options.windowSize;
    const int segment = 4 + m_options.blockSize;
    // Up to 64 KB of datagrams go out in one call where a batch sender is set.
    const int perBatch = qMin(maxBatch, 65000 / segment);
    if (!m_sendBatch || perBatch < 2 || end == from) {
        // The last block may turn up (netascii, a shrunk file) while the window is made.
        for (qint64 block = from; block <= end && block <= m_lastBlock; ++block) {
            sendBlock(block);
            m_sentUpTo = qMax(m_sentUpTo, block);
        }
        return;
    }
    m_batch.clear();
    int count = 0;
    const auto flush = [&] {
        if (count == 1)
            m_send(m_batch);
        else if (count > 1)
            m_sendBatch(m_batch, segment);
        m_batch.clear();
        count = 0;
    };
    for (qint64 block = from; block <= end && block <= m_lastBlock; ++block) {
        makeBlock(block);
        m_batch += m_buffer;
        ++count;
        m_sentUpTo = qMax(m_sentUpTo, block);
        if (count == perBatch || m_buffer.size() < segment)
            flush();
    }
    flush();
}

void StandardTransfer::sendBlock(qint64 block)
{
    makeBlock(block);
    m_send(m_buffer);
}

void StandardTransfer::makeBlock(qint64 block)
{
    const int blockSize = m_options.blockSize;
    qint64 length;
    if (m_netascii) {
        TftpOptions::data(m_buffer, block, nullptr, blockSize);
        length = fillText(block, m_buffer.data() + 4);
    } else {
        const qint64 offset = (block - 1) * blockSize;
        const qint64 expected = qBound(qint64(0), m_size - offset, qint64(blockSize));
        TftpOptions::data(m_buffer, block, nullptr, int(expected));
        length = readAhead(m_buffer.data() + 4, expected, offset);
        if (length < expected) {
            // The file shrank under us: this short block is the last one, and
            // its ACK ends the transfer instead of asking for more.
            m_lastBlock = block;
            m_size = offset + length;
            m_total = m_size;
        }
    }
    if (length < blockSize && block <= m_lastBlock) {
        m_lastBlock = block;
        m_lastLength = length;
    }
    m_buffer.resize(4 + length);
}

qint64 StandardTransfer::readAhead(char *into, qint64 length, qint64 offset)
{
    // Blocks come from a chunk read ahead, so a lock-step transfer of small
    // blocks costs one read per chunk rather than one per block; a re-sent
    // window is usually still in it.
    if (offset < m_aheadAt || offset + length > m_aheadAt + m_ahead.size()) {
        m_ahead.resize(qMax(length, qint64(aheadBytes)));
        m_aheadAt = offset;
        m_ahead.resize(readAt(m_fd, m_ahead.data(), m_ahead.size(), offset));
    }
    const qint64 got = qBound(qint64(0), m_aheadAt + m_ahead.size() - offset, length);
    std::memcpy(into, m_ahead.constData() + (offset - m_aheadAt), size_t(got));
    return got;
}

qint64 StandardTransfer::fillText(qint64 block, char *into)
{
    // Every block of the window has its cursor; the block after it gets one
    // here, so a window is re-sent from where each of its blocks began.
    const auto it = m_cursors.find(block);
    if (it == m_cursors.end())
        return 0;
    TextCursor cursor = it->second;
    const int blockSize = m_options.blockSize;
    qint64 out = 0;
    if (cursor.carrying) {
        into[out++] = cursor.carry;
        cursor.carrying = false;
    }
    // At most blockSize file bytes are needed: each gives at least one wire byte.
    m_fileBuffer.resize(blockSize);
    const qint64 got = readAhead(m_fileBuffer.data(), blockSize - out, cursor.offset);
    qint64 used = 0;
    while (used < got && out < blockSize) {
        const char c = m_fileBuffer[used++];
        if (c == '\n' || c == '\r') {
            into[out++] = '\r';
            const char second = c == '\n' ? '\n' : '\0';
            if (out < blockSize) {
                into[out++] = second;
            } else {
                cursor.carry = second;
                cursor.carrying = true;
            }
        } else {
            into[out++] = c;
        }
    }
    cursor.offset += used;
    m_cursors[block + 1] = cursor;
    return out;
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
        sendWindow(1);
        return Outcome::Running;
    }
    // Which outstanding block the ACK names, counting on from the last one
    // acknowledged; a stale or future number is ignored.
    const qint64 ahead = (number - TftpOptions::wireBlock(m_acked)) & 0xffff;
    if (ahead == 0) {
        // The client timed out waiting for a window it lost: resume at once
        // rather than on our own timeout, but only once per window.
        if (m_sentUpTo > m_acked && !m_resentWindow) {
            m_resentWindow = true;
            sendWindow(m_acked + 1);
        }
        return Outcome::Running;
    }
    if (m_acked + ahead > m_sentUpTo)
        return Outcome::Running;
    m_acked += ahead;
    m_resentWindow = false;
    m_tries = 0;
    ++m_advances;
    m_cursors.erase(m_cursors.begin(), m_cursors.lower_bound(m_acked + 1));
    if (m_acked == m_lastBlock) {
        m_bytes = (m_lastBlock - 1) * m_options.blockSize + m_lastLength;
        m_done = true;
        return Outcome::Finished;
    }
    m_bytes = m_acked * m_options.blockSize;
    sendWindow(m_acked + 1); // an ACK inside the window re-sends from the block after it
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
        // again (including the final block after the transfer has ended).
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
    if (!store(m_netascii ? m_decoder.feed(wire) : wire))
        return failWith(
            TftpOptions::DiskFull, "Disk full or allocation exceeded", QStringLiteral("DISK FULL"));
    if (final) {
        const int error = commit();
        if (error != 0 && diskFull(error))
            return failWith(
                TftpOptions::DiskFull, "Disk full or allocation exceeded", QStringLiteral("DISK FULL"));
        if (error != 0) // a sticky folder, a folder in the target's place, a read-only mount
            return failWith(
                TftpOptions::AccessViolation, "Access violation", QStringLiteral("ACCESS VIOLATION"));
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
            sendWindow(m_acked + 1);
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
    // Written in chunks: a lock-step upload of small blocks costs one write
    // per chunk rather than one per block.
    m_writeBehind += local;
    return m_writeBehind.size() < aheadBytes || writeOut();
}

bool StandardTransfer::writeOut()
{
    const bool ok
        = m_writeBehind.isEmpty() || m_upload.write(m_writeBehind.constData(), m_writeBehind.size());
    m_writeBehind.resize(0); // keeps its room for the next chunk
    return ok;
}

int StandardTransfer::commit()
{
    if (m_netascii) {
        const QByteArray tail = m_decoder.finish();
        if (!tail.isEmpty() && !store(tail))
            return m_upload.errorNumber() ? m_upload.errorNumber() : ENOSPC;
    }
    if (!m_capture && !writeOut())
        return m_upload.errorNumber() ? m_upload.errorNumber() : ENOSPC;
    if (m_capture || m_upload.commit())
        return 0;
    return m_upload.errorNumber() ? m_upload.errorNumber() : EIO;
}

void StandardTransfer::discard()
{
    if (!m_read)
        m_upload.discard();
}
