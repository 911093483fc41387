#pragma once

#include "access/upload_file.h"
#include "tftp/tftp_options.h"

#include <QByteArray>
#include <QString>
#include <functional>
#include <memory>

class CaptureSink;

// One transfer of the standard TFTP profile, after the request has been
// judged and the slot taken: the protocol state of RFC 1350 with options
// (RFC 2347-2349) and windowed reads (RFC 7440). It owns no socket and no
// timer: the TFTP server hands it the datagrams of its peer and tells it when
// the retransmission timer fires, and it answers through `send`. That keeps
// it free of I/O and lets tests and the fuzz harness drive it directly.
//
// Reads keep the file open for the transfer and number blocks with a count
// that never wraps (the wire carries its low 16 bits), so any size works. A
// window is sent in one go; an ACK of its last block sends the next window,
// an ACK inside it restarts from the block after it, and a duplicate or
// stale ACK is ignored: only a timeout re-sends.
//
// Writes go to a temporary file beside the target that replaces it only when
// the final block is in; a transfer that ends otherwise removes it, so the old
// file is never touched. In capture mode the blocks go to the capture sink
// and nothing is written to disk.
class StandardTransfer
{
public:
    enum class Outcome { Running, Finished, Failed };
    using Sender = std::function<void(const QByteArray &datagram)>;

    static constexpr int maxTries = 5;

    ~StandardTransfer();

    // fd is an open, readable regular file and is closed by the transfer.
    static std::unique_ptr<StandardTransfer> forRead(
        int fd, qint64 size, const TftpOptions::Negotiation &options, bool netascii, Sender send);
    // Prepares the temporary file beside targetPath (or nothing, when capture is
    // given); nullptr with errorText set when it cannot be created.
    static std::unique_ptr<StandardTransfer> forWrite(const QString &targetPath,
        const TftpOptions::Negotiation &options, bool netascii, CaptureSink *capture, Sender send,
        QString *errorText);

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
    qint64 totalBytes() const { return m_total; } // -1 when unknown (writes without tsize)
    QString failure() const { return m_failure; } // why the transfer failed, for the monitor
    // Goes up whenever the peer moves the transfer on; the retransmission
    // timer restarts only then, so a stream of duplicates cannot hold it off.
    quint64 advances() const { return m_advances; }

private:
    StandardTransfer(bool read, const TftpOptions::Negotiation &options, Sender send);
    void sendWindow();
    void sendBlock(qint64 block);
    Outcome failWith(int code, const QByteArray &message, const QString &why);
    bool store(const QByteArray &local); // bytes as they go to disk or capture
    bool commit();
    void discard();

    bool m_read;
    TftpOptions::Negotiation m_options;
    Sender m_send;
    int m_tries = 0;
    quint64 m_advances = 0;
    bool m_done = false;
    bool m_oackPending = false; // a read waits for ACK 0 after its OACK
    qint64 m_bytes = 0;
    qint64 m_total = -1;
    QString m_failure;
    QByteArray m_buffer;

    // reads
    int m_fd = -1;
    QByteArray m_text; // the whole netascii image of the file, when in netascii mode
    bool m_netascii = false;
    qint64 m_size = 0; // bytes on the wire
    qint64 m_lastBlock = 1;
    qint64 m_acked = 0;
    qint64 m_sentUpTo = 0;

    // writes
    UploadFile m_upload;
    CaptureSink *m_capture = nullptr;
    TftpOptions::NetasciiDecoder m_decoder;
    qint64 m_received = 0; // highest block taken in order
    QByteArray m_lastAck;
};
