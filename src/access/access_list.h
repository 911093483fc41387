#pragma once

#include <QStandardItemModel>
#include <QString>

// One row of the access list: which network (under which mask) may read and
// write, and the folder its files live in. read/write grant the right unless
// they hold exactly "no". prefix is the mask length chosen in the editor; it
// is only stored and reloaded, the decision reads the mask text.
struct AccessEntry
{
    QString network, mask, read, write, folder;
    int prefix = 0;
};

// The ordered access list; the rows of the "Network" window's list view.
// Columns "Network", "Subnet Mask", "Read", "Write", "Folder"; the prefix is
// the row's tag (Qt::UserRole on column 0). A row's position, counted from 1,
// is its identity: the access decision answers with it and the TFTP engine
// takes the folder of that row. The list is never sorted.
//
// The list is stored in ACLIST.ini (path given by the application): one entry
// per line, the six fields each followed by ";", lines ended by CR LF.
// load_ACL appends (it never clears) and keeps blank lines as empty rows;
// save_ACL rewrites the file and drops rows whose network is empty.
class AccessList : public QStandardItemModel
{
public:
    enum Column { Network = 0, Mask, Read, Write, Folder };

    explicit AccessList(QObject *parent = nullptr);

    void appendEntry(const AccessEntry &entry);
    AccessEntry entry(int row) const; // row from 1; an empty entry when out of range
    int count() const;

    void setFilePath(const QString &path);
    QString filePath() const;

    void load_ACL(); // appends the file's lines; missing file: nothing
    void save_ACL(); // rewrites the file

    // Field k (from 1) of one ACLIST.ini line: the text between the (k-1)-th
    // and the k-th ";", the rest of the line when the k-th ";" is missing,
    // empty when even the (k-1)-th is missing.
    static QString field(const QString &line, int k);
    // One entry as a line of the file, without the line end.
    static QString lineFor(const AccessEntry &entry);
    static AccessEntry entryFromLine(const QString &line);

private:
    QString m_filePath;
};
