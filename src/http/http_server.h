#pragma once

#include "http/http_events.h"

#include <QHash>
#include <QHostAddress>
#include <QObject>
#include <QPersistentModelIndex>
#include <memory>

class AccessList;
class HttpEngine;
class TransferMonitor;

// Serves the access list's folders over HTTP: each row's folder is the URL's
// root for the addresses the row covers, "Read" allows GET and HEAD and
// "Write" allows PUT. The serving runs on a thread of its own (HttpEngine,
// libmicrohttpd); this object lives with the windows, keeps the engine's
// copy of the access list current, and writes the engine's batched events
// into the transfer monitor: one transfer row per request, named
// "http: <name>", with the same status words and progress text as TFTP.
//
// The rows are followed by persistent model indexes, so "Clear Old
// Transfers" removing rows above a running request does not misdirect its
// updates.
class HttpServer : public QObject
{
    Q_OBJECT
public:
    HttpServer(TransferMonitor *monitor, AccessList *acl, QObject *parent = nullptr);
    ~HttpServer() override;

    void setBindAddress(const QHostAddress &address); // AnyIPv4 by default
    // A connection without progress for this long is closed (30 s by default).
    void setIdleTimeout(int ms);
    // Connections past either limit are answered 503 (512 in total, 64 per address by default).
    void setConnectionLimits(int total, int perAddress);
    // PEM files of the certificate and key; both set: HTTPS. False, with
    // errorString(), when one cannot be read.
    bool setTlsFiles(const QString &certificateFile, const QString &keyFile);
    bool tls() const { return !m_certificate.isEmpty(); }

    // Stops any running server and serves on `port` (0: an ephemeral one).
    bool start(quint16 port);
    void stop();
    bool isRunning() const { return m_engine != nullptr; }
    quint16 port() const; // the bound port, 0 when not running
    QString errorString() const { return m_error; }

    // Highest transfer-list row a running request still writes to; 0 when none.
    int highestTransferRowInUse() const;

Q_SIGNALS:
    // An access decision failed (a broken access-list row): once per cause.
    void accessDecisionFailed(const QString &text);
    // Internal: the engine's thread hands over a batch (a queued connection).
    void eventsArrived(const HttpEvents &events);

private:
    void apply(const HttpEvents &events);
    void publishAccessList();

    TransferMonitor *m_monitor;
    AccessList *m_acl;
    std::unique_ptr<HttpEngine> m_engine;
    QHostAddress m_bindAddress { QHostAddress::AnyIPv4 };
    int m_idleTimeoutMs = 30000;
    int m_maxConnections = 512;
    int m_maxPerAddress = 64;
    QByteArray m_certificate, m_key;
    QString m_error;
    QHash<quint64, QPersistentModelIndex> m_rows;
};
