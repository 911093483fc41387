#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <optional>

// Byte-level TFTP for the standard profile (RFC 1350 with the option
// extension of RFC 2347 and the blksize, tsize, timeout and windowsize
// options of RFC 2348, 2349 and 7440), as pure functions beside TftpPacket.
//
// Unlike the classic reader, requests are read field by field: a
// zero-terminated name, a zero-terminated mode, then zero-terminated option
// name/value pairs. Option names and the mode compare case-insensitively.
namespace TftpOptions {

enum ErrorCode : int {
    NotDefined = 0,
    FileNotFound = 1,
    AccessViolation = 2,
    DiskFull = 3,
    IllegalOperation = 4,
    UnknownTransferId = 5,
    FileExists = 6,
    NoSuchUser = 7,
    OptionRefused = 8,
};

constexpr int minBlockSize = 8;
constexpr int maxBlockSize = 65464;
constexpr int defaultTimeoutSeconds = 5;

struct Request
{
    int opcode = 0;
    QByteArray name;
    QByteArray mode; // lower-cased
    QList<QPair<QByteArray, QByteArray>> options; // names lower-cased, in arrival order
};

// nullopt for anything that is not an RRQ/WRQ with a name and a mode. A
// missing final NUL and an option name without its value are accepted, as
// tftp-hpa accepts them (the valueless option is then left out).
std::optional<Request> parseRequest(const QByteArray &datagram);

// What the server agrees to. `acknowledged` holds the accepted options in the
// order the client sent them, with the values the server answers; it is
// empty when no option was accepted (no OACK is then sent).
struct Negotiation
{
    int blockSize = 512;
    int timeoutSeconds = defaultTimeoutSeconds;
    int windowSize = 1;
    std::optional<qint64> transferSize; // the client's tsize on a write
    QList<QPair<QByteArray, QByteArray>> acknowledged;
};

// fileSize is the file's real size on a read (answered as tsize), ignored on
// a write. maxWindow caps the window the server agrees to.
Negotiation negotiate(const Request &request, qint64 fileSize, int maxWindow = 65535);

QByteArray oack(const QList<QPair<QByteArray, QByteArray>> &options);
QByteArray error(int code, const QByteArray &message);

// Block numbers on the wire are the low 16 bits of a block count that never
// wraps: block 65536 goes out as 0, 65537 as 1, and so on.
inline int wireBlock(qint64 block)
{
    return int(block & 0xffff);
}
// Writes a DATA header and payload into out (resized to 4 + size); with a
// null payload only the header, and the caller fills the rest.
void data(QByteArray &out, qint64 block, const char *payload, int size);
QByteArray ack(qint64 block);

// Netascii: LF is CR LF on the wire and CR is CR NUL.
QByteArray toNetascii(const QByteArray &local);

// Undoes toNetascii over a stream cut into blocks: a CR at the end of one
// block is held until the next one shows what follows it.
class NetasciiDecoder
{
public:
    QByteArray feed(const QByteArray &wire);
    QByteArray finish(); // a trailing lone CR is kept as it came

private:
    bool m_pendingCr = false;
};

} // namespace TftpOptions
