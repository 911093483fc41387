#include "flash_backup.h"

FlashBackup::FlashBackup(QObject *parent)
    : QObject(parent)
{
    m_model.setColumnCount(ColumnCount);
    m_model.setHorizontalHeaderLabels({ tr("No."), tr("Permissions"), tr("Size"), tr("Month"), tr("Day"),
        tr("Year"), tr("Time"), tr("Zone"), tr("Name") });
    connect(&m_model, &QStandardItemModel::itemChanged, this, &FlashBackup::enforceLastRowUnticked);
}

void FlashBackup::clear()
{
    m_model.removeRows(0, m_model.rowCount());
    m_reader.reset();
}

void FlashBackup::feed(const QByteArray &text)
{
    const QList<FlashListingReader::Entry> entries = m_reader.feed(text);
    for (const FlashListingReader::Entry &words : entries) {
        QList<QStandardItem *> row;
        for (int column = 0; column < ColumnCount; ++column) {
            auto *item = new QStandardItem(column < words.size() ? words.at(column) : QString());
            item->setEditable(false);
            if (column == NumberColumn) {
                item->setCheckable(true);
                item->setCheckState(Qt::Unchecked);
            }
            row.append(item);
        }
        m_model.appendRow(row);
    }
    if (!entries.isEmpty())
        Q_EMIT entriesAdded(int(entries.size()));
}

void FlashBackup::selectAll()
{
    for (int row = 0; row < m_model.rowCount(); ++row)
        setTicked(row, true);
}

QString FlashBackup::text(int row, int column) const
{
    const QStandardItem *item = m_model.item(row, column);
    return item ? item->text() : QString();
}

bool FlashBackup::isTicked(int row) const
{
    const QStandardItem *item = m_model.item(row, NumberColumn);
    return item && item->checkState() == Qt::Checked;
}

void FlashBackup::setTicked(int row, bool ticked)
{
    if (QStandardItem *item = m_model.item(row, NumberColumn))
        item->setCheckState(ticked ? Qt::Checked : Qt::Unchecked);
}

QStringList FlashBackup::tickedFiles() const
{
    QStringList files;
    for (int row = 0; row < m_model.rowCount(); ++row) {
        if (isTicked(row))
            files.append(text(row, NameColumn));
    }
    return files;
}

QByteArray FlashBackup::listCommand()
{
    return QByteArrayLiteral(" dir flash: \r");
}

QByteArray FlashBackup::moreCommand()
{
    return QByteArrayLiteral(" ");
}

QList<QByteArray> FlashBackup::copyCommands(const QString &fileName, const QString &server)
{
    return { "copy flash:" + fileName.toLatin1() + " tftp\r", server.toLatin1() + '\r',
        QByteArrayLiteral("\r") };
}

QList<QByteArray> FlashBackup::copyCommandsForTicked(const QString &server) const
{
    QList<QByteArray> commands;
    for (const QString &file : tickedFiles())
        commands.append(copyCommands(file, server));
    return commands;
}

void FlashBackup::enforceLastRowUnticked(QStandardItem *item)
{
    if (item->column() == NumberColumn && item->row() == m_model.rowCount() - 1
        && item->checkState() != Qt::Unchecked)
        item->setCheckState(Qt::Unchecked);
}
