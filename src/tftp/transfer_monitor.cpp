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
    const int row = m_transfers.rowCount();
    Q_EMIT transferRowChanged(row);
    return row;
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
    if (highestRowInUse <= 0) {
        m_transfers.removeRows(0, m_transfers.rowCount());
        return;
    }
    for (int row = m_transfers.rowCount(); row > highestRowInUse; --row) {
        if (transferText(row, Status) != QLatin1String("Allowed"))
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
