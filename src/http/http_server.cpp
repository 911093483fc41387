#include "http/http_server.h"

#include "access/access_list.h"
#include "http/http_engine.h"
#include "tftp/transfer_monitor.h"

#include <QFile>

HttpServer::HttpServer(TransferMonitor *monitor, AccessList *acl, QObject *parent)
    : QObject(parent)
    , m_monitor(monitor)
    , m_acl(acl)
{
    qRegisterMetaType<HttpEvents>();
    connect(this, &HttpServer::eventsArrived, this, &HttpServer::apply, Qt::QueuedConnection);
    // The engine's thread cannot read the list: it gets a fresh copy on every change.
    connect(m_acl, &QAbstractItemModel::dataChanged, this, &HttpServer::publishAccessList);
    connect(m_acl, &QAbstractItemModel::rowsInserted, this, &HttpServer::publishAccessList);
    connect(m_acl, &QAbstractItemModel::rowsRemoved, this, &HttpServer::publishAccessList);
    connect(m_acl, &QAbstractItemModel::rowsMoved, this, &HttpServer::publishAccessList);
    connect(m_acl, &QAbstractItemModel::modelReset, this, &HttpServer::publishAccessList);
}

HttpServer::~HttpServer()
{
    stop();
}

void HttpServer::setBindAddress(const QHostAddress &address)
{
    m_bindAddress = address;
}

void HttpServer::setIdleTimeout(int ms)
{
    m_idleTimeoutMs = ms;
}

void HttpServer::setConnectionLimits(int total, int perAddress)
{
    m_maxConnections = total;
    m_maxPerAddress = perAddress;
}

bool HttpServer::setTlsFiles(const QString &certificateFile, const QString &keyFile)
{
    m_certificate.clear();
    m_key.clear();
    if (certificateFile.isEmpty() && keyFile.isEmpty())
        return true;
    QFile certificate(certificateFile), key(keyFile);
    if (!certificate.open(QIODevice::ReadOnly) || !key.open(QIODevice::ReadOnly)) {
        m_error = QStringLiteral("cannot read the HTTPS certificate or key: %1")
                      .arg(certificate.isOpen() ? key.errorString() : certificate.errorString());
        return false;
    }
    // The library takes them as C strings.
    m_certificate = certificate.readAll() + '\0';
    m_key = key.readAll() + '\0';
    return true;
}

bool HttpServer::start(quint16 port)
{
    stop();
    HttpEngine::Settings settings;
    settings.bindAddress = m_bindAddress;
    settings.port = port;
    settings.idleTimeoutMs = m_idleTimeoutMs;
    settings.maxConnections = m_maxConnections;
    settings.maxPerAddress = m_maxPerAddress;
    settings.certificatePem = m_certificate;
    settings.keyPem = m_key;
    // Called on the engine's thread: the signal is queued to this object's thread.
    auto engine = std::make_unique<HttpEngine>(
        settings, [this](const HttpEvents &events) { Q_EMIT eventsArrived(events); });
    m_engine = std::move(engine);
    publishAccessList();
    if (!m_engine->start()) {
        m_error = m_engine->errorString();
        m_engine.reset();
        return false;
    }
    m_error.clear();
    return true;
}

void HttpServer::stop()
{
    m_engine.reset();
}

quint16 HttpServer::port() const
{
    return m_engine ? m_engine->port() : 0;
}

void HttpServer::publishAccessList()
{
    if (!m_engine)
        return;
    QList<AccessEntry> rows;
    rows.reserve(m_acl->count());
    for (int row = 1; row <= m_acl->count(); ++row)
        rows.append(m_acl->entry(row));
    m_engine->publishAccessList(rows);
}

int HttpServer::highestTransferRowInUse() const
{
    int highest = 0;
    for (const QPersistentModelIndex &index : m_rows) {
        if (index.isValid())
            highest = qMax(highest, index.row() + 1);
    }
    return highest;
}

void HttpServer::apply(const HttpEvents &events)
{
    for (const HttpEvent &event : events) {
        if (event.kind == HttpEvent::AccessFailure) {
            Q_EMIT accessDecisionFailed(event.data);
            continue;
        }
        if (event.kind == HttpEvent::Added) {
            const int row = m_monitor->addTransfer(event.fileName, event.from, event.to, event.status);
            m_rows.insert(event.request, QPersistentModelIndex(m_monitor->transfers()->index(row - 1, 0)));
            continue;
        }
        const QPersistentModelIndex index
            = event.kind == HttpEvent::Ended ? m_rows.take(event.request) : m_rows.value(event.request);
        if (!index.isValid())
            continue;
        const int row = index.row() + 1;
        if (!event.data.isNull())
            m_monitor->setTransferText(row, TransferMonitor::DataSentReceived, event.data);
        if (!event.status.isNull())
            m_monitor->setTransferText(row, TransferMonitor::Status, event.status);
    }
}
