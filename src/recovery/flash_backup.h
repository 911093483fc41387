#pragma once

#include "recovery/flash_listing_reader.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QStandardItemModel>

// The flash backup of one console: the list of the device's flash entries
// (the model behind ListView1) filled by the listing reader, the ticking rule,
// and the commands the backup types into the device.
//
// Model: one row per entry, nine columns. Column 0 holds the entry number and
// the row's check box; columns 1 to 8 hold words 2 to 9 of the listing line,
// so for the usual line column 8 (NameColumn) is the file name. The last row
// of a listing is its summary line, never a file: whenever the last row gets
// ticked (by the user or by selectAll()) it is unticked again at once.
//
// The engine sends nothing itself; the panel passes listCommand(),
// moreCommand() and copyCommands() to the console's sending rule. That keeps
// it testable without a connection and free of any window.
class FlashBackup : public QObject
{
    Q_OBJECT
public:
    enum Column { NumberColumn = 0, PermissionsColumn, SizeColumn, NameColumn = 8, ColumnCount = 9 };

    explicit FlashBackup(QObject *parent = nullptr);

    QStandardItemModel *model() { return &m_model; }

    // Empties the list and forgets any half-read line.
    void clear();

    // Received device text; complete entry lines become rows.
    void feed(const QByteArray &text);

    // Ticks every row (the summary row then drops its tick by the rule above).
    void selectAll();

    int rowCount() const { return m_model.rowCount(); }
    QString text(int row, int column) const;
    bool isTicked(int row) const;
    void setTicked(int row, bool ticked);
    // File names (column 8) of the ticked rows, in list order.
    QStringList tickedFiles() const;

    // " dir flash: " and a carriage return: asks for the listing. The leading
    // and trailing spaces are part of what the device has always been sent.
    static QByteArray listCommand();
    // A single space: answers the device's "--More--" paging prompt.
    static QByteArray moreCommand();
    // The three sends for one file: "copy flash:NAME tftp" CR, then the server
    // address and CR (the remote host question), then CR alone (accepting the
    // offered destination name). Sent back to back; the device's prompts are
    // answered ahead of time.
    static QList<QByteArray> copyCommands(const QString &fileName, const QString &server);
    // copyCommands() for every ticked row, in list order.
    QList<QByteArray> copyCommandsForTicked(const QString &server) const;

Q_SIGNALS:
    // Rows were appended from the listing (count of new rows).
    void entriesAdded(int count);

private:
    void enforceLastRowUnticked(QStandardItem *item);

    QStandardItemModel m_model;
    FlashListingReader m_reader;
};
