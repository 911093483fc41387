// How the HTTP server answers one request on its thread: the access
// decision, then a file, a folder index or an upload.

#include "access/check_access.h"
#include "access/served_path.h"
#include "http/http_engine.h"
#include "http/http_engine_p.h"
#include "http/http_wire.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <microhttpd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

QByteArray header(MHD_Connection *connection, const char *name)
{
    return QByteArray(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name));
}

bool diskFull(int error)
{
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

// The library keeps the request line in its buffer and ends the method, the
// URI and the version each with a NUL where a blank or the line's end was,
// then hands them on as C strings: a NUL byte sent inside the line would cut
// a name short unseen (`GET /ios\0.bin` read as "/ios"). `uriEnd` is where
// the URI stopped before the library split off the query. A line laid out
// otherwise is not judged here.
bool nulInRequestLine(const char *method, const char *url, const char *version, const char *uriEnd)
{
    const auto at = [](const char *p) { return reinterpret_cast<std::uintptr_t>(p); };
    if (!uriEnd || !(at(method) < at(url) && at(url) <= at(uriEnd) && at(uriEnd) < at(version)))
        return false;
    for (const char *p = method + std::strlen(method) + 1; at(p) < at(url); ++p) {
        if (*p != ' ')
            return true;
    }
    return at(uriEnd) + 1 != at(version);
}

} // namespace

int HttpEngine::reply(MHD_Connection *connection, Request *request, unsigned int code, const QByteArray &body,
    const QString &status)
{
    MHD_Response *response = MHD_create_response_from_buffer(
        size_t(body.size()), const_cast<char *>(body.constData()), MHD_RESPMEM_MUST_COPY);
    if (!body.isEmpty())
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain; charset=utf-8");
    if (code == MHD_HTTP_SERVICE_UNAVAILABLE)
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    if (code == MHD_HTTP_METHOD_NOT_ALLOWED)
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD, PUT");
    const MHD_Result queued = MHD_queue_response(connection, code, response);
    MHD_destroy_response(response);
    if (request && !status.isEmpty()) {
        request->outcome = status;
        request->total = -1;
    }
    return queued;
}

int HttpEngine::answer(MHD_Connection *connection, const char *url, const char *method, const char *version,
    const char *upload, size_t *uploadSize, void **requestContext)
{
    if (auto *request = static_cast<Request *>(*requestContext)) {
        if (!request->put && !request->decided && request->connection) {
            // Answered on the second call, once the library has the whole
            // request: an answer queued earlier would cost the keep-alive.
            request->decided = true;
            return decide(connection, *request->connection, *request, request->name, false);
        }
        return receive(connection, *request, upload, uploadSize);
    }

    const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    Connection *from = info ? static_cast<Connection *>(info->socket_context) : nullptr;
    if (!from)
        return MHD_NO;
    from->markMs = now();
    if (from->overLimit)
        return reply(connection, nullptr, MHD_HTTP_SERVICE_UNAVAILABLE, "Too many connections\n");

    const char *uriEnd = std::exchange(from->uriEnd, nullptr); // this request's only
    if (nulInRequestLine(method, url, version, uriEnd))
        return reply(connection, nullptr, MHD_HTTP_BAD_REQUEST, "Bad request line\n");
    const QByteArray verb(method);
    const bool write = verb == "PUT";
    if (!write && verb != "GET" && verb != "HEAD")
        return reply(connection, nullptr, MHD_HTTP_METHOD_NOT_ALLOWED, "Only GET, HEAD and PUT\n");
    const std::optional<QString> name = HttpWire::servedName(QByteArray(url));
    if (!name)
        return reply(connection, nullptr, MHD_HTTP_BAD_REQUEST, "Bad request path\n");

    auto *request = new Request;
    request->id = ++m_nextRequest;
    request->connection = from;
    request->put = write;
    request->head = verb == "HEAD";
    request->name = *name;
    from->current = request;
    *requestContext = request;
    if (!write)
        return MHD_YES;
    request->decided = true;
    return decide(connection, *from, *request, *name, write);
}

int HttpEngine::decide(
    MHD_Connection *connection, Connection &from, Request &request, const QString &name, bool write)
{
    const std::shared_ptr<const QList<AccessEntry>> rows = m_rows.load();
    AccessRequest asked;
    asked.remoteAddress = from.remote;
    asked.localAddress = from.local;
    asked.kind = write ? AccessDecision::Write : AccessDecision::Read;
    asked.fileName = QStringLiteral("http: ") + (name.isEmpty() ? QStringLiteral("/") : name);
    const auto record
        = [this, &request](const QString &file, const QString &f, const QString &t, const QString &s) {
              HttpEvent event;
              event.kind = HttpEvent::Added;
              event.request = request.id;
              event.fileName = file;
              event.from = f;
              event.to = t;
              event.status = s;
              post(event);
              request.rowed = true;
          };
    // Names never leave the row's folder over HTTP, whatever TFTP is told.
    const QString relative = name.endsWith(QLatin1Char('/')) ? name.chopped(1) : name;
    const auto confined = [&rows, &relative](int row) {
        const QString &folder = rows->at(row - 1).folder;
        return relative.isEmpty() ? QFileInfo(folder).isDir() : ServedPath::staysInside(folder, relative);
    };
    QString failure;
    const int row = CheckAccess(*rows, asked, record, confined, &failure);
    if (row == AccessDecision::Failed && !m_reportedFailures.contains(failure)) {
        m_reportedFailures.append(failure);
        HttpEvent event;
        event.kind = HttpEvent::AccessFailure;
        event.data = QStringLiteral("The access decision failed on %1; the HTTP request from %2 is refused.")
                         .arg(failure, from.remote);
        post(event);
    }
    if (row <= 0)
        return reply(connection, &request, MHD_HTTP_FORBIDDEN, "Forbidden\n");

    const QString folder = rows->at(row - 1).folder;
    const QString path = relative.isEmpty() ? folder : ServedPath::join(folder, relative);
    return write ? beginUpload(connection, request, path, name) : serveFile(connection, request, path, name);
}

int HttpEngine::serveFile(
    MHD_Connection *connection, Request &request, const QString &path, const QString &name)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    struct stat st
    {
    };
    if (fd < 0 || ::fstat(fd, &st) != 0) {
        const int error = errno;
        if (fd >= 0)
            ::close(fd);
        if (error == ENOENT || error == ENOTDIR)
            return reply(
                connection, &request, MHD_HTTP_NOT_FOUND, "Not found\n", QStringLiteral("No Such File"));
        return reply(
            connection, &request, MHD_HTTP_FORBIDDEN, "Forbidden\n", QStringLiteral("ACCESS VIOLATION"));
    }
    if (S_ISDIR(st.st_mode)) {
        ::close(fd);
        if (!name.isEmpty() && !name.endsWith(QLatin1Char('/'))) {
            // Relative links in the index need the folder's URL to end in "/".
            MHD_Response *response = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
            const QByteArray location = '/' + QUrl::toPercentEncoding(name, "/") + '/';
            MHD_add_response_header(response, MHD_HTTP_HEADER_LOCATION, location.constData());
            const MHD_Result queued = MHD_queue_response(connection, MHD_HTTP_MOVED_PERMANENTLY, response);
            MHD_destroy_response(response);
            request.outcome = QStringLiteral("FINISHED OK");
            return queued;
        }
        return serveIndex(connection, request, path, name);
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        return reply(
            connection, &request, MHD_HTTP_FORBIDDEN, "Forbidden\n", QStringLiteral("ACCESS VIOLATION"));
    }

    const qint64 size = qint64(st.st_size);
    const QByteArray tag = HttpWire::entityTag(qint64(st.st_mtim.tv_sec), size);
    const QByteArray modified = HttpWire::httpDate(qint64(st.st_mtim.tv_sec));
    const auto validators = [&](MHD_Response *response) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_ETAG, tag.constData());
        MHD_add_response_header(response, MHD_HTTP_HEADER_LAST_MODIFIED, modified.constData());
        MHD_add_response_header(response, MHD_HTTP_HEADER_ACCEPT_RANGES, "bytes");
    };

    const QByteArray noneMatch = header(connection, MHD_HTTP_HEADER_IF_NONE_MATCH);
    const std::optional<qint64> since
        = HttpWire::parseHttpDate(header(connection, MHD_HTTP_HEADER_IF_MODIFIED_SINCE));
    const bool notModified = !noneMatch.isEmpty() ? HttpWire::tagListMatches(noneMatch, tag)
                                                  : since && qint64(st.st_mtim.tv_sec) <= *since;
    if (notModified) {
        // Built on the file, though no body goes out: the library states the
        // response's length, and a 304 may only carry the one a 200 would have.
        MHD_Response *response = MHD_create_response_from_fd64(uint64_t(size), fd);
        validators(response);
        const MHD_Result queued = MHD_queue_response(connection, MHD_HTTP_NOT_MODIFIED, response);
        MHD_destroy_response(response);
        request.outcome = QStringLiteral("FINISHED OK");
        request.total = 0;
        return queued;
    }

    HttpWire::ByteRange range;
    range.last = size - 1;
    const QByteArray rangeHeader = header(connection, MHD_HTTP_HEADER_RANGE);
    const QByteArray ifRange = header(connection, MHD_HTTP_HEADER_IF_RANGE);
    // A resume against a file that changed since gets the whole new file.
    if (!rangeHeader.isEmpty() && (ifRange.isEmpty() || ifRange == tag || ifRange == modified))
        range = HttpWire::parseRange(rangeHeader, size);
    if (range.kind == HttpWire::ByteRange::Unsatisfiable) {
        ::close(fd);
        MHD_Response *response = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
        validators(response);
        MHD_add_response_header(
            response, MHD_HTTP_HEADER_CONTENT_RANGE, ("bytes */" + QByteArray::number(size)).constData());
        const MHD_Result queued = MHD_queue_response(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, response);
        MHD_destroy_response(response);
        request.outcome = QStringLiteral("RANGE NOT SATISFIABLE");
        return queued;
    }

    // The library sends the body straight from the file (sendfile) and closes it.
    const qint64 length = range.kind == HttpWire::ByteRange::Part ? range.length() : size;
    MHD_Response *response
        = MHD_create_response_from_fd_at_offset64(uint64_t(length), fd, uint64_t(range.first));
    if (!response) {
        ::close(fd);
        return reply(
            connection, &request, MHD_HTTP_INTERNAL_SERVER_ERROR, "Cannot send\n", QStringLiteral("ERROR"));
    }
    validators(response);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "application/octet-stream");
    unsigned int code = MHD_HTTP_OK;
    if (range.kind == HttpWire::ByteRange::Part) {
        code = MHD_HTTP_PARTIAL_CONTENT;
        const QByteArray contentRange = "bytes " + QByteArray::number(range.first) + '-'
            + QByteArray::number(range.last) + '/' + QByteArray::number(size);
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, contentRange.constData());
    }
    const MHD_Result queued = MHD_queue_response(connection, code, response);
    MHD_destroy_response(response);
    request.total = request.head ? 0 : length;
    request.ackedAtStart = request.connection ? socketCounters(request.connection->fd).acked : 0;
    request.outcome = QStringLiteral("FINISHED OK");
    return queued;
}

int HttpEngine::serveIndex(
    MHD_Connection *connection, Request &request, const QString &path, const QString &name)
{
    const QFileInfoList infos = QDir(path).entryInfoList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name | QDir::DirsFirst);
    QList<HttpWire::IndexEntry> entries;
    for (const QFileInfo &info : infos)
        entries.append({ info.fileName(), info.isDir(), info.isDir() ? 0 : info.size() });
    const QByteArray page = HttpWire::folderIndex(QLatin1Char('/') + name, entries);
    MHD_Response *response = MHD_create_response_from_buffer(
        size_t(page.size()), const_cast<char *>(page.constData()), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/html; charset=utf-8");
    const MHD_Result queued = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    request.outcome = QStringLiteral("FINISHED OK");
    request.total = request.head ? 0 : page.size();
    return queued;
}

int HttpEngine::beginUpload(
    MHD_Connection *connection, Request &request, const QString &path, const QString &name)
{
    if (name.isEmpty() || name.endsWith(QLatin1Char('/')) || QFileInfo(path).isDir())
        return reply(connection, &request, MHD_HTTP_METHOD_NOT_ALLOWED, "A folder cannot be uploaded to\n",
            QStringLiteral("ILLEGAL OPERATION"));
    if (!request.upload.open(path)) {
        const int error = request.upload.errorNumber();
        if (diskFull(error))
            return reply(connection, &request, MHD_HTTP_INSUFFICIENT_STORAGE, "Disk full\n",
                QStringLiteral("DISK FULL"));
        return reply(
            connection, &request, MHD_HTTP_FORBIDDEN, "Forbidden\n", QStringLiteral("ACCESS VIOLATION"));
    }
    bool known = false;
    const qint64 length = header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH).toLongLong(&known);
    request.total = known ? length : -1;
    return MHD_YES; // the body follows (after "100 Continue" when the client asks for it)
}

int HttpEngine::receive(MHD_Connection *connection, Request &request, const char *upload, size_t *uploadSize)
{
    if (!request.put || (!request.upload.isOpen() && request.uploadError == 0)) {
        *uploadSize = 0; // already answered (refused): the body is dropped
        return MHD_YES;
    }
    if (*uploadSize > 0) {
        // After a failed write the rest is read and dropped, so that the
        // client gets its answer instead of a reset connection.
        if (request.uploadError == 0 && !request.upload.write(upload, qint64(*uploadSize))) {
            request.uploadError = request.upload.errorNumber();
            request.upload.discard();
        }
        request.received += qint64(*uploadSize);
        *uploadSize = 0;
        progress(request, false);
        return MHD_YES;
    }
    if (request.uploadError == 0 && !request.upload.commit())
        request.uploadError = request.upload.errorNumber();
    if (request.uploadError != 0) {
        if (diskFull(request.uploadError))
            return reply(connection, &request, MHD_HTTP_INSUFFICIENT_STORAGE, "Disk full\n",
                QStringLiteral("DISK FULL"));
        return reply(connection, &request, MHD_HTTP_INTERNAL_SERVER_ERROR, "Write failed\n",
            QStringLiteral("WRITE ERROR"));
    }
    const unsigned int code = request.upload.replacesExisting() ? MHD_HTTP_NO_CONTENT : MHD_HTTP_CREATED;
    request.outcome = QStringLiteral("FINISHED OK");
    return reply(connection, nullptr, code, {});
}
