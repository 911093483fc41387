#pragma once

#include "access/upload_file.h"
#include "tftp/tftp_options.h"

#include <QByteArray>
#include <QString>
#include <functional>
#include <map>
#include <memory>

class CaptureSink;

// One transfer of the standard TFTP profile, after the request has been
// judged: the protocol state of RFC 1350 with options (RFC 2347-2349) and
// windowed reads (RFC 7440). It owns no socket and no timer: the standard
// engine hands it the datagrams of its peer and tells it when the
// retransmission timer fires, and it answers through `send`. That keeps it
// free of I/O and lets tests and the fuzz harness drive it directly.
//
// Reads keep the file open for the transfer and number blocks with a count
// that never wraps (the wire carries its low 16 bits), so any size works.
// Netascii is translated block by block as it is sent, never the whole file
// at once. A window is sent in one go; an ACK of its last block sends the
// next window, an ACK inside it restarts from the block after it. A repeated
// ACK of the block before the window means the client lost the window and
// timed out: the window is sent again at once, once per window, so
// duplicates cannot snowball. Anything else stale is ignored. A file that
// shrinks while it is read ends the transfer with the short block it gives.
//
// Writes go to an UploadFile, which replaces the target only when the final
// block is in; a transfer that ends otherwise drops it, so the old file is
// never touched and a partial upload can never be fetched by name. In capture mode the blocks go to the
// capture sink and nothing is written to disk.
class StandardTransfer
{
public:
    enum class Outcome { Running, Finished, Failed };
    using Sender = std::function<void(const QByteArray &datagram)>;
    // Sends several datagrams at once: `datagrams` holds them back to back,
    // each `segment` bytes long but the last, which may be shorter.
    using BatchSender = std::function<void(const QByteArray &datagrams, int segment)>;
    static constexpr int maxBatch = 64; // datagrams per batch (the kernel's limit for UDP GSO)

    static constexpr int maxTries = 5;
    static constexpr int aheadBytes = 32768; // file bytes read (or written) at once

    ~StandardTransfer();

    // fd is an open, readable regular file and is closed by the transfer.
    static std::unique_ptr<StandardTransfer> forRead(
        int fd, qint64 size, const TftpOptions::Negotiation &options, bool netascii, Sender send);
    // Prepares the temporary file beside targetPath (or nothing, when capture is
    // given); nullptr with errorText set when it cannot be created.
    static std::unique_ptr<StandardTransfer> forWrite(const QString &targetPath,
        const TftpOptions::Negotiation &options, bool netascii, CaptureSink *capture, Sender send,
        QString *errorText);

    // Windows of more than one block go out through `send` in one call per batch.
    void setBatchSender(BatchSender send) { m_sendBatch = std::move(send); }

    // Sends the first datagram: the OACK when options were accepted,
    // otherwise DATA 1 (read) or ACK 0 (write).
    void start();
    Outcome onAck(const QByteArray &datagram);
    Outcome onData(const QByteArray &datagram);
    // The retransmission timer fired: re-send, or give up after maxTries.
    Outcome onTimeout();

    bool isRead() const { return m_read; }
    bool isDone() const { return m_done; }
    int timeoutMs() const { return m_options.timeoutSeconds * 1000; }
    qint64 bytesDone() const { return m_bytes; }
    qint64 totalBytes() const { return m_total; } // -1 when unknown (netascii reads, writes without tsize)
    QString failure() const { return m_failure; } // why the transfer failed, for the monitor
    // Goes up whenever the peer moves the transfer on; the retransmission
    // timer restarts only then, so a stream of duplicates cannot hold it off.
    quint64 advances() const { return m_advances; }

private:
    // Where a netascii block starts in the file: the offset, and the second
    // byte of a CR LF or CR NUL pair that the block before had no room for.
    struct TextCursor
    {
        qint64 offset = 0;
        char carry = 0;
        bool carrying = false;
    };

    StandardTransfer(bool read, const TftpOptions::Negotiation &options, Sender send);
    void sendWindow(qint64 from);
    void sendBlock(qint64 block);
    void makeBlock(qint64 block); // into m_buffer
    qint64 fillText(qint64 block, char *into);
    qint64 readAhead(char *into, qint64 length, qint64 offset); // like readAt, from m_ahead
    Outcome failWith(int code, const QByteArray &message, const QString &why);
    bool store(const QByteArray &local); // bytes as they go to disk or capture
    bool writeOut(); // what store() holds back, to the upload file
    int commit(); // 0, or the errno that stopped it
    void discard();

    bool m_read;
    TftpOptions::Negotiation m_options;
    Sender m_send;
    BatchSender m_sendBatch;
    QByteArray m_batch;
    int m_tries = 0;
    quint64 m_advances = 0;
    bool m_done = false;
    bool m_oackPending = false; // a read waits for ACK 0 after its OACK
    qint64 m_bytes = 0;
    qint64 m_total = -1;
    QString m_failure;
    QByteArray m_buffer;
    QByteArray m_fileBuffer;

    // reads
    int m_fd = -1;
    bool m_netascii = false;
    qint64 m_size = 0; // bytes of the file (octet) as it was when the transfer began
    qint64 m_lastBlock = 1; // known for octet reads, found when a short block is made for netascii
    qint64 m_lastLength = 0; // bytes in the last block, once it is known
    qint64 m_acked = 0;
    qint64 m_sentUpTo = 0;
    bool m_resentWindow = false; // the window after m_acked was already re-sent for a repeated ACK
    QByteArray m_ahead; // file bytes from m_aheadAt on, read ahead of the blocks
    qint64 m_aheadAt = 0;
    std::map<qint64, TextCursor> m_cursors; // netascii: where each block of the window starts

    // writes
    UploadFile m_upload;
    CaptureSink *m_capture = nullptr;
    TftpOptions::NetasciiDecoder m_decoder;
    qint64 m_received = 0; // highest block taken in order
    QByteArray m_lastAck;
    QByteArray m_writeBehind; // received bytes not yet written, up to aheadBytes
};
