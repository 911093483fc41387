#pragma once

// The server thread's bookkeeping, shared by http_engine.cpp (connections,
// watchdog) and http_answer.cpp (requests).

#include "access/upload_file.h"
#include "http/http_engine.h"

struct HttpEngine::Connection
{
    int fd = -1;
    QString remote, local; // dotted IPv4
    bool overLimit = false; // answered 503 and closed
    bool timedOut = false; // shut down by the watchdog
    quint64 movedAtMark = 0; // bytes both ways when progress was last seen
    qint64 markMs = 0;
    Request *current = nullptr;
    const char *uriEnd = nullptr; // where the request line's URI stopped, as the library saw it
};

struct HttpEngine::Request
{
    quint64 id = 0;
    Connection *connection = nullptr;
    bool rowed = false; // has a monitor row
    bool put = false;
    bool head = false;
    bool decided = false;
    QString name; // as decoded from the URL
    // Sending: body bytes and the socket's acknowledged count when the answer began.
    qint64 total = -1;
    quint64 ackedAtStart = 0;
    // Receiving.
    UploadFile upload;
    int uploadError = 0; // errno of the first failed write: the rest is read and dropped
    qint64 received = 0;
    qint64 lastProgressMs = -1;
    QString outcome; // the row's status once the answer has gone out in full
};

// Bytes a TCP socket has had acknowledged (sent) and received, for the
// watchdog and for the progress of bodies the library sends by itself.
struct SocketCounters
{
    quint64 acked = 0, received = 0;
};
SocketCounters socketCounters(int fd);
