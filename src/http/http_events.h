#pragma once

#include <QList>
#include <QMetaType>
#include <QString>

// What the HTTP server's thread tells the windows' thread about its requests,
// in batches: a new transfer-monitor row, a change of a row's status or
// progress text, the end of a request, or a failed access decision.
struct HttpEvent
{
    enum Kind { Added, Changed, Ended, AccessFailure };
    Kind kind = Changed;
    quint64 request = 0; // the server's number for the request
    QString fileName, from, to; // Added
    QString status; // Added, Changed, Ended; null: unchanged
    QString data; // the "Data sent/Received" text; null: unchanged (AccessFailure: the text)
};
using HttpEvents = QList<HttpEvent>;
Q_DECLARE_METATYPE(HttpEvents)
