#include "tftp/tftp_packet.h"

namespace TftpPacket {

namespace {
int byteAt(const QByteArray &bytes, qsizetype i)
{
    return static_cast<unsigned char>(bytes.at(i));
}
} // namespace

int opcode(const QByteArray &datagram)
{
    if (datagram.size() < 2)
        return 0;
    return byteAt(datagram, 0) * 256 + byteAt(datagram, 1);
}

std::optional<QByteArray> octetRequestName(const QByteArray &datagram)
{
    // Body = datagram less its opcode; "octet" sits at body position L-7
    // (1-based), and the name is the first L-9 bytes of the body.
    const qsizetype length = datagram.size();
    if (length < 9)
        return std::nullopt;
    const QByteArray body = datagram.mid(2);
    if (body.mid(length - 8, 5) != "octet")
        return std::nullopt;
    return body.left(length - 9);
}

std::optional<int> blockNumber(const QByteArray &datagram)
{
    if (datagram.size() < 4)
        return std::nullopt;
    return byteAt(datagram, 2) * 256 + byteAt(datagram, 3);
}

BlockBytes nextBlock(int ackedHigh, int ackedLow)
{
    BlockBytes next { ackedHigh, ackedLow + 1 };
    if (next.low == 256) {
        next.low = 0;
        next.high += 1;
    }
    return next;
}

QByteArray ack(int high, int low)
{
    QByteArray out(4, '\0');
    out[1] = char(Ack);
    out[2] = char(high);
    out[3] = char(low);
    return out;
}

void dataHeader(QByteArray &out, int high, int low, int payloadSize)
{
    out.resize(4 + payloadSize);
    out[0] = 0;
    out[1] = char(Data);
    out[2] = char(high);
    out[3] = char(low);
}

BlockPlan firstBlock(qint64 fileSize)
{
    if (fileSize >= blockSize)
        return { 0, blockSize, false };
    return { 0, qMax<qint64>(fileSize, 0), true };
}

BlockPlan laterBlock(qint64 fileSize, int block)
{
    const qint64 offset = writeOffset(block);
    const qint64 remainingLessOne = fileSize - offset - 1;
    if (remainingLessOne >= blockSize)
        return { offset, blockSize, false };
    // A duplicated ACK past the end leaves nothing to send but an empty block.
    return { offset, qMax<qint64>(remainingLessOne + 1, 0), true };
}

} // namespace TftpPacket
