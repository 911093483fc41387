#pragma once

#include <QByteArray>
#include <optional>

// Byte-level TFTP (octet mode, 512-byte blocks, no options), as pure
// functions so every rule can be tested without a socket.
//
// A request is recognised by position from the END of the datagram: the five
// bytes before the final byte must be "octet" (lowercase), and the file name
// is what precedes them less one separator byte. Nothing scans for the NUL
// terminators, so "OCTET", "netascii", "mail" and any request carrying
// options after the mode fail the test and get silence.
namespace TftpPacket {

enum Opcode : int { Rrq = 1, Wrq = 2, Data = 3, Ack = 4, Error = 5 };

constexpr int blockSize = 512;

// Opcode of a datagram: first byte x 256 + second; 0 when shorter than 2 bytes.
int opcode(const QByteArray &datagram);

// The file name of an RRQ/WRQ whose mode tests as "octet"; nullopt otherwise.
std::optional<QByteArray> octetRequestName(const QByteArray &datagram);

// Block number from the two bytes after the opcode (DATA and ACK); nullopt if too short.
std::optional<int> blockNumber(const QByteArray &datagram);

// The block that follows an acknowledged one, carried byte-wise: the low
// byte wraps to 0 and the high byte goes up by one, with no wrap-around at
// 65535 (so high may reach 256, which cannot be sent).
struct BlockBytes
{
    int high = 0;
    int low = 0;
    int number() const { return high * 256 + low; }
};
BlockBytes nextBlock(int ackedHigh, int ackedLow);

// Builders. data() writes the header into out (resized to 4 + payload size)
// so the caller can read the payload straight into out.data() + 4.
QByteArray ack(int high, int low);
void dataHeader(QByteArray &out, int high, int low, int payloadSize);

// How much of a file a read transfer sends for a block. The first block is
// full when at least 512 bytes exist; a later block only when at least 513
// bytes remain from its offset, so a remainder of exactly 512 goes out as the
// final block and no empty block follows (only a file of exactly 512 bytes
// gets a trailing empty block).
struct BlockPlan
{
    qint64 offset = 0;
    qint64 length = 0;
    bool final = false;
};
BlockPlan firstBlock(qint64 fileSize);
BlockPlan laterBlock(qint64 fileSize, int block);

// Byte offset where DATA block n is written: (n - 1) x 512.
inline qint64 writeOffset(int block)
{
    return qint64(block - 1) * blockSize;
}

} // namespace TftpPacket
