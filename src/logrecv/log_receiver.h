#pragma once

#include <QByteArray>
#include <QDate>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QLocale>
#include <QObject>
#include <QString>

#include <functional>

class LogOptions;
class QUdpSocket;

// The main window's log endpoint `Log`: one UDP socket on the syslog port that
// devices send their log messages to. For every datagram it asks the router to
// show the text in the view of the console whose device sent it; a datagram no
// console claims is dropped silently. When the shared "Log To File" switch is
// on, a delivered datagram is then appended to "<folder>/<sender> <date>.log"
// (the short date with "/" made "-"), the file opened and closed for that one
// record, each record ending CR CR LF. The view always comes first, so a file
// that cannot be written never costs the view its line.
//
// Floods: the socket's receive buffer is raised as far as the system allows,
// datagrams are taken in bounded batches (routed, then the views flushed, then
// the files written) and the per-datagram work is one read, one lookup and at
// most one append, so a burst waits in the kernel instead of being dropped
// there and the window keeps answering.
class LogReceiver : public QObject
{
    Q_OBJECT
public:
    // Shows one datagram's text in the sender's console; false when no console
    // carries that address.
    using Router = std::function<bool(const QString &sender, const QString &text)>;

    explicit LogReceiver(LogOptions *options, QObject *parent = nullptr);
    ~LogReceiver() override;

    void setRouter(Router deliver) { m_router = std::move(deliver); }
    // Called after each batch of datagrams has been routed and before their
    // records are written, for views that gather their appends.
    void setFlush(std::function<void()> flush) { m_flush = std::move(flush); }

    // Binds the endpoint (port 0 picks a free one). False, with errorString(),
    // when the port is taken or needs privileges.
    bool bind(quint16 port, const QHostAddress &address = QHostAddress(QHostAddress::AnyIPv4));
    QString errorString() const { return m_error; }
    quint16 localPort() const;
    // The receive buffer the system actually granted, in bytes.
    int receiveBufferSize() const;

    // Datagrams read per wake-up at most: what is left waits for the next turn
    // of the event loop, so window events are served between batches.
    static constexpr int batchLimit = 256;

    struct Counters
    {
        quint64 received = 0;
        quint64 delivered = 0;
        quint64 dropped = 0; // no console for the sender
        quint64 written = 0; // records appended to a file
        quint64 writeFailures = 0;
    };
    const Counters &counters() const { return m_counters; }

    // "10.1.1.1 26-05-2024.log" for that sender on that day in that locale.
    static QString logFileName(
        const QString &sender, const QDate &date, const QLocale &locale = QLocale::system());

    // One batch of datagrams handled exactly as if it had arrived on the
    // socket: routed, the views flushed, then the records written. Lets the
    // fuzz target drive routing and file naming without a network.
    struct Datagram
    {
        QHostAddress from;
        QByteArray bytes;
    };
    void receive(const QList<Datagram> &batch);

Q_SIGNALS:
    // After each datagram has been routed (and written, if it was).
    void datagramHandled(const QString &sender, bool delivered);

private:
    void readPending();
    void route(const QHostAddress &from, const QByteArray &bytes, bool toFile);
    void finishBatch(bool toFile);
    struct Record
    {
        QString sender;
        QByteArray bytes;
    };
    bool appendRecord(const QString &sender, const QByteArray &bytes);
    QString senderText(const QHostAddress &from);

    LogOptions *m_options;
    QUdpSocket *m_socket = nullptr;
    Router m_router;
    std::function<void()> m_flush;
    QList<Record> m_records; // the current batch's delivered datagrams
    QString m_error;
    Counters m_counters;
    QByteArray m_buffer;
    // Small caches so a flood does not format the same address and file name
    // anew for every datagram; the date is still checked per datagram, so
    // files roll over at midnight.
    quint32 m_lastSenderValue = 0;
    QString m_lastSenderText;
    qint64 m_cachedDay = 0;
    QString m_cachedFolder;
    QHash<QString, QByteArray> m_paths; // sender -> encoded file path
};
