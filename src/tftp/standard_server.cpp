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

int StandardServer::defaultLoops()
{
    return qBound(1, QThread::idealThreadCount(), 2);
}

StandardServer::StandardServer(TransferMonitor *monitor, AccessList *acl, QObject *parent, int loops)
    : QObject(parent)
    , m_monitor(monitor)
    , m_acl(acl)
{
    std::vector<StandardLoop *> all;
    for (int i = 0; i < qMax(1, loops); ++i) {
        m_loops.push_back(std::make_unique<StandardLoop>());
        all.push_back(m_loops.back().get());
        all.back()->setObjectName(QStringLiteral("TFTP standard engine %1").arg(i));
        connect(all.back()->engine(), &StandardEngine::rowsChanged, this, &StandardServer::applyRows,
            Qt::QueuedConnection);
    }
    m_engine = all.front()->engine();
    if (all.size() > 1) {
        m_engine->setLoops(int(all.size()), [all](int loop, std::shared_ptr<StandardEngine::Transfer> t) {
            all[size_t(loop)]->post([t](StandardEngine &engine) { engine.adopt(t); });
        });
        for (size_t i = 1; i < all.size(); ++i)
            all[i]->engine()->setEnded([first = all.front()](quint64 serial) {
                first->post([serial](StandardEngine &engine) { engine.transferEnded(serial); });
            });
    }
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
    for (auto &loop : m_loops)
        loop->start();
    sendAccessList();
}

StandardServer::~StandardServer()
{
    // The loops post to each other: none may be gone while another still runs.
    for (auto &loop : m_loops)
        loop->stop();
    while (!m_loops.empty())
        m_loops.pop_back(); // the first last: transfers still queued for the others use its sockets' net
}

void StandardServer::onEngine(std::function<void(StandardEngine &)> call)
{
    m_loops.front()->post(std::move(call));
}

void StandardServer::onEveryEngine(const std::function<void(StandardEngine &)> &call)
{
    for (auto &loop : m_loops)
        loop->post(call);
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
    onEveryEngine([on](StandardEngine &engine) { engine.setCapturing(on); });
}

void StandardServer::setRetransmitInterval(int ms)
{
    onEveryEngine([ms](StandardEngine &engine) { engine.setRetransmitInterval(ms); });
}

bool StandardServer::listen()
{
    const quint32 address = m_bindAddress.toIPv4Address();
    const quint16 port = m_port;
    bool ok = false;
    QString error;
    m_loops.front()->call([&](StandardEngine &engine) {
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
    m_loops.front()->call([](StandardEngine &engine) { engine.stopListening(); });
    m_listening = false;
}

void StandardServer::waitForEngine()
{
    // The first loop last: it then has every end the others told it of.
    for (auto it = m_loops.rbegin(); it != m_loops.rend(); ++it)
        (*it)->call([](StandardEngine &) {});
}

std::vector<int> StandardServer::transfersPerLoop()
{
    std::vector<int> counts;
    m_loops.front()->call([&](StandardEngine &engine) { counts = engine.transfersPerLoop(); });
    return counts;
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
