#include "tftp/tftp_options.h"

#include "tftp/tftp_packet.h"

namespace TftpOptions {

namespace {

// A decimal number of at most 10 digits; nullopt for anything else, so an
// overlong or signed value never wraps into range.
std::optional<qint64> number(const QByteArray &text)
{
    if (text.isEmpty() || text.size() > 10)
        return std::nullopt;
    qint64 value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

} // namespace

std::optional<Request> parseRequest(const QByteArray &datagram)
{
    const int op = TftpPacket::opcode(datagram);
    if (op != TftpPacket::Rrq && op != TftpPacket::Wrq)
        return std::nullopt;
    QList<QByteArray> fields;
    qsizetype at = 2;
    while (at < datagram.size()) {
        // A last field without its terminator counts as if it had one, as tftp-hpa reads it.
        qsizetype end = datagram.indexOf('\0', at);
        if (end < 0)
            end = datagram.size();
        fields.append(datagram.mid(at, end - at));
        at = end + 1;
    }
    // name, mode, then pairs; some clients pad with one empty field, and an
    // option without its value is read with an empty one (and so left out).
    if (fields.size() % 2 == 1 && fields.size() > 2 && fields.last().isEmpty())
        fields.removeLast();
    if (fields.size() < 2 || fields[1].isEmpty())
        return std::nullopt;
    if (fields.size() % 2 != 0)
        fields.append(QByteArray());
    Request request;
    request.opcode = op;
    request.name = fields[0];
    request.mode = fields[1].toLower();
    for (qsizetype i = 2; i + 1 < fields.size(); i += 2)
        request.options.append({ fields[i].toLower(), fields[i + 1] });
    return request;
}

Negotiation negotiate(const Request &request, qint64 fileSize, int maxWindow)
{
    Negotiation result;
    const bool read = request.opcode == TftpPacket::Rrq;
    for (const auto &[name, value] : request.options) {
        bool seen = false;
        for (const auto &taken : std::as_const(result.acknowledged))
            seen = seen || taken.first == name;
        if (seen)
            continue; // the first of a repeated option counts
        const std::optional<qint64> n = number(value);
        if (name == "blksize") {
            // Too large is answered with what fits, never refused; too small or unreadable is left out.
            if (!n || *n < minBlockSize)
                continue;
            result.blockSize = int(qMin<qint64>(*n, maxBlockSize));
            result.acknowledged.append({ name, QByteArray::number(result.blockSize) });
        } else if (name == "tsize") {
            if (!n)
                continue;
            if (read) {
                result.acknowledged.append({ name, QByteArray::number(fileSize) });
            } else {
                result.transferSize = *n;
                result.acknowledged.append({ name, QByteArray::number(*n) });
            }
        } else if (name == "timeout") {
            if (!n || *n < 1 || *n > 255)
                continue;
            result.timeoutSeconds = int(*n);
            result.acknowledged.append({ name, QByteArray::number(*n) });
        } else if (name == "windowsize") {
            if (!n || *n < 1 || *n > 65535)
                continue;
            result.windowSize = int(qMin<qint64>(*n, qMax(1, maxWindow)));
            result.acknowledged.append({ name, QByteArray::number(result.windowSize) });
        }
    }
    return result;
}

QByteArray oack(const QList<QPair<QByteArray, QByteArray>> &options)
{
    QByteArray out("\0\6", 2);
    for (const auto &[name, value] : options)
        out += name + '\0' + value + '\0';
    return out;
}

QByteArray error(int code, const QByteArray &message)
{
    QByteArray out("\0\5", 2);
    out += char(code >> 8);
    out += char(code & 0xff);
    out += message;
    out += '\0';
    return out;
}

void data(QByteArray &out, qint64 block, const char *payload, int size)
{
    out.resize(4 + size);
    out[0] = 0;
    out[1] = char(TftpPacket::Data);
    out[2] = char(wireBlock(block) >> 8);
    out[3] = char(wireBlock(block) & 0xff);
    if (payload && size > 0) // no payload: the caller reads into out.data() + 4
        memcpy(out.data() + 4, payload, size_t(size));
}

QByteArray ack(qint64 block)
{
    return TftpPacket::ack(wireBlock(block) >> 8, wireBlock(block) & 0xff);
}

QByteArray toNetascii(const QByteArray &local)
{
    QByteArray out;
    out.reserve(local.size() + local.size() / 16);
    for (const char c : local) {
        if (c == '\n')
            out += "\r\n";
        else if (c == '\r')
            out += QByteArray("\r\0", 2);
        else
            out += c;
    }
    return out;
}

QByteArray NetasciiDecoder::feed(const QByteArray &wire)
{
    QByteArray out;
    out.reserve(wire.size());
    for (const char c : wire) {
        if (m_pendingCr) {
            m_pendingCr = false;
            if (c == '\n') {
                out += '\n';
                continue;
            }
            out += '\r';
            if (c == '\0')
                continue;
        }
        if (c == '\r')
            m_pendingCr = true;
        else
            out += c;
    }
    return out;
}

QByteArray NetasciiDecoder::finish()
{
    if (!m_pendingCr)
        return {};
    m_pendingCr = false;
    return QByteArray(1, '\r');
}

} // namespace TftpOptions
