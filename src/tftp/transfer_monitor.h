#pragma once

#include <QObject>
#include <QStandardItemModel>
#include <functional>

// The store of per-slot status of the TFTP server: two report lists that the
// access decision, the slots and the engine write into by row number, and that
// the Transfer window only shows.
//
//  - the transfer list: one row per request, newest at the end, columns
//    "Filename", "From", "To", "Status", "Data sent/Received";
//  - the socket table: exactly 30 rows, row r belongs to transfer slot r,
//    columns "socket", "LocalPort", "RemotePort", "Status", "errror".
//
// Rows are numbered from 1 and columns from 0 (column 0 is the row text), the
// way the engine addresses them. A write to a row that does not exist is
// ignored: the engine writes some statuses by access-row number, which need
// not name an existing row.
class TransferMonitor : public QObject
{
    Q_OBJECT
public:
    enum TransferColumn { Filename = 0, From, To, Status, DataSentReceived };
    enum SocketColumn { SocketName = 0, LocalPort, RemotePort, SocketStatus, SocketError };
    static constexpr int slotCount = 30;
    static constexpr int defaultKeepRows = 5000;

    explicit TransferMonitor(QObject *parent = nullptr);

    QStandardItemModel *transfers() { return &m_transfers; }
    QStandardItemModel *sockets() { return &m_sockets; }

    // Appends a transfer row and returns its row number (from 1).
    int addTransfer(const QString &fileName, const QString &from, const QString &to, const QString &status);
    void setTransferText(int row, int column, const QString &text);
    QString transferText(int row, int column) const;
    int transferCount() const { return m_transfers.rowCount(); }

    void setSocketText(int slot, int column, const QString &text);
    QString socketText(int slot, int column) const;

    // "Clear Old Transfers". Running transfers write into rows by slot number
    // and by access-row number, so rows up to highestRowInUse keep their place.
    // Above it, every row that does not still read "Allowed" is removed; when
    // nothing is running (highestRowInUse <= 0) the whole list is cleared.
    void clearOldTransfers(int highestRowInUse);

    // A service that runs for months keeps at most `rows` transfer rows
    // ("TftpKeepRows"): past that, the oldest rows whose transfer has ended
    // go first. A row marked running is never dropped, and nothing is dropped
    // while `busy` says that a writer addresses rows by number (the classic
    // profile's running slots).
    void setKeepRows(int rows);
    void setTrimBlocker(std::function<bool()> busy);
    void setTransferRunning(int row, bool running);

    // Tab-separated text of one row, as printed in --headless mode.
    QString transferLine(int row) const;
    QString socketLine(int slot) const;

Q_SIGNALS:
    void transferRowChanged(int row);
    void socketRowChanged(int slot);

private:
    static QString rowText(const QStandardItemModel &model, int row);
    static void setText(QStandardItemModel &model, int row, int column, const QString &text);

    void trim();

    int m_keepRows = defaultKeepRows;
    std::function<bool()> m_busy;
    QStandardItemModel m_transfers;
    QStandardItemModel m_sockets;
};
