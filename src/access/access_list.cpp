#include "access/access_list.h"

#include <QFile>
#include <QSaveFile>

AccessList::AccessList(QObject *parent)
    : QStandardItemModel(0, 5, parent)
{
    setHorizontalHeaderLabels({ QStringLiteral("Network"), QStringLiteral("Subnet Mask"),
        QStringLiteral("Read"), QStringLiteral("Write"), QStringLiteral("Folder") });
}

void AccessList::appendEntry(const AccessEntry &entry)
{
    auto *networkItem = new QStandardItem(entry.network);
    networkItem->setData(entry.prefix, Qt::UserRole);
    appendRow({ networkItem, new QStandardItem(entry.mask), new QStandardItem(entry.read),
        new QStandardItem(entry.write), new QStandardItem(entry.folder) });
}

AccessEntry AccessList::entry(int row) const
{
    AccessEntry e;
    if (row < 1 || row > rowCount())
        return e;
    const auto text = [&](int column) { return index(row - 1, column).data().toString(); };
    e.network = text(Network);
    e.mask = text(Mask);
    e.read = text(Read);
    e.write = text(Write);
    e.folder = text(Folder);
    e.prefix = index(row - 1, Network).data(Qt::UserRole).toInt();
    return e;
}

int AccessList::count() const
{
    return rowCount();
}

void AccessList::setFilePath(const QString &path)
{
    m_filePath = path;
}

QString AccessList::filePath() const
{
    return m_filePath;
}

QString AccessList::field(const QString &line, int k)
{
    if (k < 1)
        return {};
    // section() already gives "rest of the line" for a missing closing ";"
    // and an empty text when too few separators exist.
    return line.section(QLatin1Char(';'), k - 1, k - 1);
}

AccessEntry AccessList::entryFromLine(const QString &line)
{
    AccessEntry e;
    e.network = field(line, 1);
    e.mask = field(line, 2);
    e.read = field(line, 3);
    e.write = field(line, 4);
    e.folder = field(line, 5);
    e.prefix = field(line, 6).trimmed().toInt(); // junk reads as 0
    return e;
}

QString AccessList::lineFor(const AccessEntry &entry)
{
    const QLatin1Char sep(';');
    return entry.network + sep + entry.mask + sep + entry.read + sep + entry.write + sep + entry.folder + sep
        + QString::number(entry.prefix) + sep;
}

void AccessList::load_ACL()
{
    QFile file(m_filePath);
    if (m_filePath.isEmpty() || !file.open(QIODevice::ReadOnly))
        return;
    const QByteArray bytes = file.readAll();
    file.close();

    // CR LF is what we write; a lone CR or LF (files edited elsewhere) also
    // ends a line. A final line without its line end still counts.
    qsizetype start = 0;
    const qsizetype size = bytes.size();
    while (start < size) {
        qsizetype end = start;
        while (end < size && bytes[end] != '\r' && bytes[end] != '\n')
            ++end;
        appendEntry(entryFromLine(QString::fromLocal8Bit(bytes.constData() + start, end - start)));
        if (end < size && bytes[end] == '\r' && end + 1 < size && bytes[end + 1] == '\n')
            ++end;
        start = end + 1;
    }
}

void AccessList::save_ACL()
{
    if (m_filePath.isEmpty())
        return;
    QByteArray out;
    for (int row = 1; row <= count(); ++row) {
        const AccessEntry e = entry(row);
        if (e.network.isEmpty())
            continue;
        out += lineFor(e).toLocal8Bit();
        out += "\r\n";
    }
    // Written whole, so a failing disk never leaves half a list behind.
    QSaveFile file(m_filePath);
    if (!file.open(QIODevice::WriteOnly))
        return;
    file.write(out);
    file.commit();
}
