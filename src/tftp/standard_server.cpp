#include "tftp/standard_server.h"

#include "access/access_list.h"
#include "tftp/capture_sink.h"
#include "tftp/standard_loop.h"
#include "tftp/transfer_monitor.h"

#include <sys/resource.h>

namespace {
// Descriptors the rest of the program may need besides the transfers.
constexpr quint64 spareDescriptors = 64;
} // namespace

StandardServer::StandardServer(TransferMonitor *monitor, AccessList *acl, QObject *parent)
    : QObject(parent)
    , m_monitor(monitor)
    , m_acl(acl)
    , m_loop(std::make_unique<StandardLoop>())
    , m_engine(m_loop->engine())
{
    m_loop->setObjectName(QStringLiteral("TFTP standard engine"));
    connect(m_engine, &StandardEngine::rowsChanged, this, &StandardServer::applyRows, Qt::QueuedConnection);
    connect(m_engine, &StandardEngine::socketRowsChanged, this, &StandardServer::applySockets,
        Qt::QueuedConnection);
    connect(
        m_engine, &StandardEngine::limitReached, this, &StandardServer::limitReached, Qt::QueuedConnection);
    connect(m_engine, &StandardEngine::accessDecisionFailed, this, &StandardServer::accessDecisionFailed,
        Qt::QueuedConnection);
    connect(
        m_engine, &StandardEngine::captureFileName, this,
        [this](const QString &path) {
            if (m_capture)
                m_capture->CaptureFileName(path);
        },
        Qt::QueuedConnection);
    connect(
        m_engine, &StandardEngine::captureData, this,
        [this](const QByteArray &data) {
            if (m_capture && m_capture->capturing())
                m_capture->CaptureData(data);
        },
        Qt::QueuedConnection);
    // The engine decides with its own copy of the list, renewed on every edit.
    for (const auto signal : { &QAbstractItemModel::rowsInserted, &QAbstractItemModel::rowsRemoved })
        connect(acl, signal, this, &StandardServer::sendAccessList);
    connect(acl, &QAbstractItemModel::dataChanged, this, &StandardServer::sendAccessList);
    connect(acl, &QAbstractItemModel::modelReset, this, &StandardServer::sendAccessList);
    m_loop->start();
    sendAccessList();
}

StandardServer::~StandardServer() = default; // the loop stops its thread

void StandardServer::onEngine(std::function<void(StandardEngine &)> call)
{
    m_loop->post(std::move(call));
}

void StandardServer::sendAccessList()
{
    QList<AccessEntry> entries;
    for (int row = 1; row <= m_acl->count(); ++row)
        entries.append(m_acl->entry(row));
    onEngine([entries](StandardEngine &engine) { engine.setAccessEntries(entries); });
}

void StandardServer::setPort(quint16 port)
{
    m_port = port;
}

void StandardServer::setBindAddress(const QHostAddress &address)
{
    m_bindAddress = address;
}

void StandardServer::setConfine(bool on)
{
    onEngine([on](StandardEngine &engine) { engine.setConfine(on); });
}

quint64 StandardServer::raiseDescriptorLimit()
{
    rlimit limit {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 1024;
    if (limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        ::getrlimit(RLIMIT_NOFILE, &limit);
    }
    return limit.rlim_cur == RLIM_INFINITY ? std::numeric_limits<quint64>::max() : quint64(limit.rlim_cur);
}

void StandardServer::setMaxTransfers(int limit)
{
    const quint64 descriptors = raiseDescriptorLimit();
    const quint64 fits = descriptors > spareDescriptors ? (descriptors - spareDescriptors) / 2 : 1;
    m_maxTransfers = int(qMin<quint64>(quint64(qMax(1, limit)), qMax<quint64>(1, fits)));
    if (quint64(qMax(1, limit)) > fits)
        Q_EMIT limitLowered(tr(
            "TFTP: the process may open %1 files, enough for %2 transfers at once, not %3; the limit is %2. "
            "Raise it with \"ulimit -n\" or LimitNOFILE=.")
                                .arg(descriptors)
                                .arg(m_maxTransfers)
                                .arg(limit));
    onEngine([max = m_maxTransfers](StandardEngine &engine) { engine.setMaxTransfers(max); });
}

void StandardServer::setCaptureSink(CaptureSink *sink)
{
    m_capture = sink;
    setCapturing(sink && sink->capturing());
}

void StandardServer::setCapturing(bool on)
{
    onEngine([on](StandardEngine &engine) { engine.setCapturing(on); });
}

void StandardServer::setRetransmitInterval(int ms)
{
    onEngine([ms](StandardEngine &engine) { engine.setRetransmitInterval(ms); });
}

bool StandardServer::listen()
{
    const quint32 address = m_bindAddress.toIPv4Address();
    const quint16 port = m_port;
    bool ok = false;
    QString error;
    m_loop->call([&](StandardEngine &engine) {
        engine.setAddress(address, port);
        ok = engine.listen();
        error = engine.errorString();
    });
    m_listening = ok;
    m_error = error;
    return ok;
}

void StandardServer::stopListening()
{
    m_loop->call([](StandardEngine &engine) { engine.stopListening(); });
    m_listening = false;
}

void StandardServer::waitForEngine()
{
    m_loop->call([](StandardEngine &) {});
}

bool StandardServer::rowRunning(int row) const
{
    for (const QPersistentModelIndex &index : m_rows)
        if (index.isValid() && index.row() + 1 == row)
            return true;
    return false;
}

void StandardServer::applyRows(const QList<StandardRow> &rows)
{
    for (const StandardRow &row : rows) {
        int number = 0;
        const auto known = m_rows.constFind(row.id);
        if (known != m_rows.cend()) {
            number = known->isValid() ? known->row() + 1 : 0;
        } else {
            const auto &c = row.columns;
            number = m_monitor->addTransfer(c[0], c[1], c[2], c[3]);
            if (row.running) {
                m_monitor->setTransferRunning(number, true);
                m_rows.insert(row.id, QPersistentModelIndex(m_monitor->transfers()->index(number - 1, 0)));
            }
        }
        if (number > 0)
            for (int column = 0; column < int(row.columns.size()); ++column)
                m_monitor->setTransferText(number, column, row.columns[size_t(column)]);
        if (!row.running && m_rows.remove(row.id) && number > 0)
            m_monitor->setTransferRunning(number, false);
    }
}

void StandardServer::applySockets(const StandardSocketRows &rows)
{
    if (!m_listening)
        return; // the classic profile has the table back
    for (int slot = 1; slot <= rows.size(); ++slot)
        for (int column = 0; column < rows[slot - 1].size(); ++column)
            m_monitor->setSocketText(slot, column, rows[slot - 1][column]);
}
