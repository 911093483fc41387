#include "transfer_monitor.h"

TransferMonitor::TransferMonitor(QObject *parent)
    : QObject(parent)
    , m_transfers(0, 5)
    , m_sockets(0, 5)
{
    m_transfers.setHorizontalHeaderLabels({ QStringLiteral("Filename"), QStringLiteral("From"),
        QStringLiteral("To"), QStringLiteral("Status"), QStringLiteral("Data sent/Received") });
    m_sockets.setHorizontalHeaderLabels({ QStringLiteral("socket"), QStringLiteral("LocalPort"),
        QStringLiteral("RemotePort"), QStringLiteral("Status"), QStringLiteral("errror") });
    for (int slot = 1; slot <= slotCount; ++slot) {
        QList<QStandardItem *> items { new QStandardItem(QString::number(slot)), new QStandardItem,
            new QStandardItem, new QStandardItem(QStringLiteral("ready")), new QStandardItem };
        m_sockets.appendRow(items);
    }
    connect(&m_transfers, &QStandardItemModel::dataChanged, this,
        [this](const QModelIndex &topLeft) { Q_EMIT transferRowChanged(topLeft.row() + 1); });
    connect(&m_sockets, &QStandardItemModel::dataChanged, this,
        [this](const QModelIndex &topLeft) { Q_EMIT socketRowChanged(topLeft.row() + 1); });
}

int TransferMonitor::addTransfer(
    const QString &fileName, const QString &from, const QString &to, const QString &status)
{
    QList<QStandardItem *> items { new QStandardItem(fileName), new QStandardItem(from),
        new QStandardItem(to), new QStandardItem(status), new QStandardItem };
    m_transfers.appendRow(items);
    trim();
    const int row = m_transfers.rowCount();
    Q_EMIT transferRowChanged(row);
    return row;
}

namespace {
constexpr int runningRole = Qt::UserRole + 1;
}

void TransferMonitor::setKeepRows(int rows)
{
    m_keepRows = qMax(1, rows);
    trim();
}

void TransferMonitor::setTrimBlocker(std::function<bool()> busy)
{
    m_busy = std::move(busy);
}

void TransferMonitor::setTransferRunning(int row, bool running)
{
    if (QStandardItem *item = m_transfers.item(row - 1, 0))
        item->setData(running ? QVariant(true) : QVariant(), runningRole);
}

void TransferMonitor::trim()
{
    int excess = m_transfers.rowCount() - m_keepRows;
    if (excess <= 0 || (m_busy && m_busy()))
        return;
    // Oldest first; runs of finished rows go in one removal.
    for (int row = 0; row < m_transfers.rowCount() && excess > 0;) {
        int run = 0;
        while (row + run < m_transfers.rowCount() && run < excess
            && !m_transfers.item(row + run, 0)->data(runningRole).toBool())
            ++run;
        if (run > 0) {
            m_transfers.removeRows(row, run);
            excess -= run;
        } else {
            ++row;
        }
    }
}

void TransferMonitor::setText(QStandardItemModel &model, int row, int column, const QString &text)
{
    if (row < 1 || row > model.rowCount() || column < 0 || column >= model.columnCount())
        return;
    QStandardItem *item = model.item(row - 1, column);
    if (!item) {
        model.setItem(row - 1, column, new QStandardItem(text));
        return;
    }
    if (item->text() != text)
        item->setText(text);
}

void TransferMonitor::setTransferText(int row, int column, const QString &text)
{
    setText(m_transfers, row, column, text);
}

QString TransferMonitor::transferText(int row, int column) const
{
    const QModelIndex index = m_transfers.index(row - 1, column);
    return index.isValid() ? index.data().toString() : QString();
}

void TransferMonitor::setSocketText(int slot, int column, const QString &text)
{
    setText(m_sockets, slot, column, text);
}

QString TransferMonitor::socketText(int slot, int column) const
{
    const QModelIndex index = m_sockets.index(slot - 1, column);
    return index.isValid() ? index.data().toString() : QString();
}

void TransferMonitor::clearOldTransfers(int highestRowInUse)
{
    // Rows of the standard engine's running transfers stay too: they are
    // found by identity, not by number, so the rows around them may go.
    for (int row = m_transfers.rowCount(); row > qMax(0, highestRowInUse); --row) {
        if (m_transfers.item(row - 1, 0)->data(Qt::UserRole + 1).toBool())
            continue;
        if (highestRowInUse <= 0 || transferText(row, Status) != QLatin1String("Allowed"))
            m_transfers.removeRow(row - 1);
    }
}

QString TransferMonitor::rowText(const QStandardItemModel &model, int row)
{
    QStringList columns;
    for (int column = 0; column < model.columnCount(); ++column)
        columns << model.index(row - 1, column).data().toString();
    return columns.join(QLatin1Char('\t'));
}

QString TransferMonitor::transferLine(int row) const
{
    return QStringLiteral("transfer\t%1\t%2").arg(row).arg(rowText(m_transfers, row));
}

QString TransferMonitor::socketLine(int slot) const
{
    return QStringLiteral("socket\t%1\t%2").arg(slot).arg(rowText(m_sockets, slot));
}
