#include "snmp/snmp_monitor.h"

#include "snmp/counter_rates.h"
#include "snmp/snmp_poller.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QMutex>
#include <QSet>
#include <QWaitCondition>

#include <atomic>
#include <cmath>
#include <mutex>

namespace {

QString statusText(int status)
{
    static const char *const names[]
        = { "", "up", "down", "testing", "unknown", "dormant", "notPresent", "lowerLayerDown" };
    if (status == 0)
        return QString(); // the agent gave none
    return status >= 1 && status <= 7 ? QLatin1String(names[status]) : QString::number(status);
}

QString optionalText(const std::optional<double> &v, const std::function<QString(double)> &format)
{
    return v ? format(*v) : QString();
}

QString csvField(QString text)
{
    if (text.contains(QLatin1Char(',')) || text.contains(QLatin1Char('"'))
        || text.contains(QLatin1Char('\n'))) {
        text.replace(QLatin1String("\""), QLatin1String("\"\""));
        return QLatin1Char('"') + text + QLatin1Char('"');
    }
    return text;
}

std::atomic_int runningWorkers { 0 };
QMutex workersLock;
QWaitCondition workersEnded;

void finishWorkersAtExit()
{
    SnmpMonitor::finishWorkers(3000);
}

} // namespace

// Who deletes the worker and its thread: the monitor, when the thread has
// finished by the time it goes, else the thread itself as it finishes.
struct SnmpMonitor::Handoff
{
    QMutex lock;
    bool finished = false;
    bool orphaned = false;
};

int SnmpMonitor::workersRunning()
{
    return runningWorkers.load();
}

bool SnmpMonitor::finishWorkers(int ms)
{
    QDeadlineTimer deadline(ms);
    QMutexLocker lock(&workersLock);
    while (runningWorkers.load() > 0)
        if (!workersEnded.wait(&workersLock, deadline))
            return runningWorkers.load() == 0;
    return true;
}

SnmpMonitor::SnmpMonitor(std::function<QString()> deviceAddress, QObject *parent)
    : QObject(parent)
    , m_deviceAddress(std::move(deviceAddress))
{
    qRegisterMetaType<SnmpTarget>();
    qRegisterMetaType<PollResult>();
    AgentSession::initLibrary();
    static std::once_flag atExit;
    std::call_once(atExit, [] { qAddPostRoutine(finishWorkersAtExit); });
    m_table.setHorizontalHeaderLabels(
        { tr("Index"), tr("Name"), tr("Alias"), tr("Admin"), tr("Oper"), tr("Speed"), tr("In bit/s"),
            tr("Out bit/s"), tr("In %"), tr("Out %"), tr("Errors/s"), tr("Discards/s") });
    m_interval.setInterval(defaultIntervalMs);
    connect(&m_interval, &QTimer::timeout, this, &SnmpMonitor::tick);
}

// The worker and its thread start with the first poll: a monitor that never
// polls holds no thread and never needs an event loop.
void SnmpMonitor::startWorker()
{
    m_thread = new QThread;
    m_worker = new SnmpWorker;
    m_worker->moveToThread(m_thread);
    m_handoff = std::make_shared<Handoff>();
    connect(this, &SnmpMonitor::pollRequested, m_worker, &SnmpWorker::poll);
    connect(m_worker, &SnmpWorker::polled, this,
        [this](const PollResult &r) { takeResult(r, QDateTime::currentMSecsSinceEpoch()); });
    // Runs on the worker thread as it ends.
    connect(
        m_thread, &QThread::finished, m_thread,
        [handoff = m_handoff, thread = m_thread, worker = m_worker] {
            QMutexLocker lock(&handoff->lock);
            handoff->finished = true;
            {
                QMutexLocker ended(&workersLock);
                --runningWorkers;
                workersEnded.wakeAll();
            }
            if (handoff->orphaned) {
                delete worker; // it lives on this thread, whose event loop has ended
                thread->deleteLater();
            }
        },
        Qt::DirectConnection);
    m_thread->setObjectName(QStringLiteral("snmp-monitor"));
    ++runningWorkers;
    m_thread->start();
}

SnmpMonitor::~SnmpMonitor()
{
    if (!m_thread)
        return;
    m_worker->cancel();
    m_thread->quit();
    QMutexLocker lock(&m_handoff->lock);
    if (!m_handoff->finished) {
        m_handoff->orphaned = true; // the thread deletes itself and the worker when it is done
        return;
    }
    lock.unlock();
    m_thread->wait(); // it has emitted finished: only its last steps remain
    delete m_worker;
    delete m_thread;
}

void SnmpMonitor::setIntervalMs(int ms)
{
    m_interval.setInterval(qMax(minimumIntervalMs, ms));
}

void SnmpMonitor::start()
{
    const QString host = m_deviceAddress().trimmed();
    if (host.isEmpty()) {
        stop();
        Q_EMIT noConnection();
        return;
    }
    SnmpTarget t = m_settings;
    t.host = host;
    t.port = SnmpPoller::agentPort();
    if (!(t == m_polling)) {
        // Another device or other credentials: the old counters say nothing about the new ones.
        m_tracks.clear();
        m_table.setRowCount(0);
        m_hasUptime = false;
    }
    m_polling = t;
    setState(tr("Polling %1").arg(host));
    m_interval.start();
    tick();
}

void SnmpMonitor::stop()
{
    m_interval.stop();
}

void SnmpMonitor::tick()
{
    if (m_busy)
        return;
    m_busy = true;
    if (!m_thread)
        startWorker();
    Q_EMIT pollRequested(m_polling);
}

void SnmpMonitor::setState(const QString &state)
{
    if (m_state == state)
        return;
    m_state = state;
    Q_EMIT stateChanged(state);
}

int SnmpMonitor::interfaceAt(int row) const
{
    const QStandardItem *item = m_table.item(row, IndexColumn);
    return item ? item->data(Qt::UserRole).toInt() : 0;
}

void SnmpMonitor::takeResult(const PollResult &result, qint64 nowMs)
{
    m_busy = false;
    m_lastError = result.ok ? 0 : result.errorCode;
    if (!result.ok) {
        setState(result.error);
        Q_EMIT polled(false);
        return;
    }
    setState(tr("OK %1").arg(QDateTime::fromMSecsSinceEpoch(nowMs).toString(QStringLiteral("HH:mm:ss"))));
    Q_EMIT uptimeTextChanged(result.hasUptime ? SnmpPoller::formatUptime(result.uptime) : QString());
    Q_EMIT cpuTextChanged(result.cpu);
    Q_EMIT freeMemoryTextChanged(result.freeMemory);
    Q_EMIT interfacesTextChanged(result.ifNumber >= 0 ? QString::number(result.ifNumber) : QString());

    std::optional<quint32> ticks;
    if (result.hasUptime && m_hasUptime)
        ticks = CounterRates::elapsedTicks(m_lastUptime, result.uptime);
    m_lastUptime = result.uptime;
    m_hasUptime = result.hasUptime;

    QSet<int> seen;
    QList<int> changed;
    for (const IfReading &r : result.interfaces) {
        seen.insert(r.index);
        Track &t = m_tracks[r.index];
        t.inBps = t.outBps = t.errors = t.discards = std::nullopt;
        if (ticks && t.hasLast && t.last.hasOctets && r.hasOctets && t.last.octetBits == r.octetBits) {
            const double maxOctets = r.speedBps / 8;
            const auto rate = [&](quint64 a, quint64 b, int bits, double max) {
                return CounterRates::perSecond(a, b, bits, *ticks, max);
            };
            if (const auto in = rate(t.last.inOctets, r.inOctets, r.octetBits, maxOctets))
                t.inBps = *in * 8;
            if (const auto out = rate(t.last.outOctets, r.outOctets, r.octetBits, maxOctets))
                t.outBps = *out * 8;
            const auto ie = rate(t.last.inErrors, r.inErrors, 32, 0),
                       oe = rate(t.last.outErrors, r.outErrors, 32, 0);
            if (ie && oe)
                t.errors = *ie + *oe;
            const auto id = rate(t.last.inDiscards, r.inDiscards, 32, 0);
            const auto od = rate(t.last.outDiscards, r.outDiscards, 32, 0);
            if (id && od)
                t.discards = *id + *od;
            if (t.inBps || t.outBps) {
                t.history.append({ nowMs, t.inBps.value_or(qQNaN()), t.outBps.value_or(qQNaN()) });
                changed.append(r.index);
            }
        }
        while (!t.history.isEmpty() && t.history.first().msecs < nowMs - historyMs)
            t.history.removeFirst();
        t.last = r;
        t.hasLast = true;
    }
    for (auto it = m_tracks.begin(); it != m_tracks.end();)
        it = seen.contains(it.key()) ? std::next(it) : m_tracks.erase(it);

    m_table.setRowCount(int(result.interfaces.size()));
    for (int row = 0; row < result.interfaces.size(); ++row) {
        const IfReading &r = result.interfaces[row];
        updateRow(row, r, m_tracks[r.index]);
    }
    for (int index : changed)
        Q_EMIT historyChanged(index);
    Q_EMIT polled(true);
}

void SnmpMonitor::updateRow(int row, const IfReading &r, const Track &t)
{
    const auto percent = [](double v) { return QString::number(v, 'f', 1); };
    const auto perSecond = [](double v) { return QString::number(v, 'f', v < 10 ? 1 : 0); };
    const auto use = [&](const std::optional<double> &bps) -> std::optional<double> {
        return bps ? CounterRates::utilisation(*bps, r.speedBps) : std::nullopt;
    };
    const QString texts[TableColumns] = { QString::number(r.index), r.name.isEmpty() ? r.descr : r.name,
        r.alias, statusText(r.admin), statusText(r.oper),
        r.speedBps > 0 ? CounterRates::bitRateText(r.speedBps) : QString(),
        optionalText(t.inBps, CounterRates::bitRateText), optionalText(t.outBps, CounterRates::bitRateText),
        optionalText(use(t.inBps), percent), optionalText(use(t.outBps), percent),
        optionalText(t.errors, perSecond), optionalText(t.discards, perSecond) };
    for (int c = 0; c < TableColumns; ++c) {
        QStandardItem *item = m_table.item(row, c);
        if (!item) {
            item = new QStandardItem;
            item->setEditable(false);
            if (c >= SpeedColumn || c == IndexColumn)
                item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
            m_table.setItem(row, c, item);
        }
        if (item->text() != texts[c])
            item->setText(texts[c]);
    }
    m_table.item(row, IndexColumn)->setData(r.index, Qt::UserRole);
}

QString SnmpMonitor::tableCsv() const
{
    QStringList lines;
    QStringList fields;
    for (int c = 0; c < m_table.columnCount(); ++c)
        fields << csvField(m_table.horizontalHeaderItem(c)->text());
    lines << fields.join(QLatin1Char(','));
    for (int row = 0; row < m_table.rowCount(); ++row) {
        fields.clear();
        for (int c = 0; c < m_table.columnCount(); ++c)
            fields << csvField(m_table.item(row, c) ? m_table.item(row, c)->text() : QString());
        lines << fields.join(QLatin1Char(','));
    }
    return lines.join(QLatin1Char('\n')) + QLatin1Char('\n');
}

QString SnmpMonitor::historyCsv(int ifIndex) const
{
    QString csv = QStringLiteral("time,in_bps,out_bps\n");
    const auto number = [](double v) { return std::isnan(v) ? QString() : QString::number(v, 'f', 0); };
    for (const Point &p : m_tracks.value(ifIndex).history)
        csv += QDateTime::fromMSecsSinceEpoch(p.msecs).toUTC().toString(Qt::ISODate) + QLatin1Char(',')
            + number(p.inBps) + QLatin1Char(',') + number(p.outBps) + QLatin1Char('\n');
    return csv;
}
