#pragma once

#include "access/access_list.h"
#include "http/http_events.h"

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QSet>
#include <QString>
#include <QStringList>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>

struct MHD_Connection;
struct MHD_Daemon;

// The HTTP server's thread: one libmicrohttpd daemon in epoll mode, driven by
// a loop of its own that also runs the watchdog, so every piece of state
// below (connections, requests, counters) is touched by that thread alone.
//
// Requests are judged against the latest snapshot of the access list (an
// immutable copy the windows' thread publishes whenever the list changes),
// confined to the deciding row's folder and answered by http_answer.cpp.
// What the monitor should show is collected while the loop runs and handed
// over at most every 200 ms through `deliver`, which the owner makes a queued
// signal: however many requests run, the windows get five batches a second.
//
// The watchdog: a connection that in one idle interval neither finishes its
// request headers nor moves 1 KiB in either direction is shut down (that
// covers idle keep-alive connections, stalled transfers and clients that
// drip bytes). Connections past the total or per-address limit are answered
// 503 and closed.
class HttpEngine
{
public:
    struct Settings
    {
        QHostAddress bindAddress { QHostAddress::AnyIPv4 };
        quint16 port = 0;
        int idleTimeoutMs = 30000;
        int maxConnections = 512;
        int maxPerAddress = 64;
        QByteArray certificatePem, keyPem; // both set: HTTPS
    };
    using Deliver = std::function<void(const HttpEvents &)>;

    HttpEngine(const Settings &settings, Deliver deliver);
    ~HttpEngine(); // stops the thread and closes every connection

    // Binds the port and starts the thread; false with errorString() when it cannot.
    bool start();
    QString errorString() const { return m_error; }
    quint16 port() const { return m_port; }

    void publishAccessList(const QList<AccessEntry> &rows);

    // The rest runs on the server thread only (the library's callbacks).
    struct Connection;
    struct Request;
    int answer(MHD_Connection *connection, const char *url, const char *method, const char *version,
        const char *upload, size_t *uploadSize, void **requestContext);
    void uriSeen(MHD_Connection *connection, const char *uri);
    void requestEnded(void **requestContext, int termination);
    void connectionEvent(MHD_Connection *connection, void **socketContext, int event);

private:
    void run();
    void watch();
    void flush();
    qint64 now() const;
    void post(HttpEvent event);
    void progress(Request &request, bool force);

    // http_answer.cpp
    int decide(
        MHD_Connection *connection, Connection &from, Request &request, const QString &name, bool write);
    int serveFile(MHD_Connection *connection, Request &request, const QString &path, const QString &name);
    int serveIndex(MHD_Connection *connection, Request &request, const QString &path, const QString &name);
    int beginUpload(MHD_Connection *connection, Request &request, const QString &path, const QString &name);
    int receive(MHD_Connection *connection, Request &request, const char *upload, size_t *uploadSize);
    int reply(MHD_Connection *connection, Request *request, unsigned int code, const QByteArray &body,
        const QString &status = {});

    Settings m_settings;
    Deliver m_deliver;
    QString m_error;
    quint16 m_port = 0;
    int m_listenFd = -1;
    MHD_Daemon *m_daemon = nullptr;
    std::thread m_thread;
    std::atomic<bool> m_stop { false };
    std::atomic<std::shared_ptr<const QList<AccessEntry>>> m_rows;

    // server thread only
    HttpEvents m_pending;
    quint64 m_nextRequest = 0;
    int m_connections = 0;
    QHash<QString, int> m_perAddress;
    QSet<Connection *> m_open;
    QStringList m_reportedFailures;
};
