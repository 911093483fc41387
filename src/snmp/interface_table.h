#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// How one value of the device's interface table lands in the statistics list.
//
// The list has twenty columns; values are placed by the interface-table column
// number c into sub-item c - 2 (c = 2, the description, is the row's own text).
// There is no column for incoming non-unicast packets, so from "discards in"
// on each header stands over the value of the column before the one its words
// name; the headers stay as they are. Values without a sub-item (the index
// column, the last column) are not shown.
namespace InterfaceTable {

constexpr int columnCount = 20;

// The twenty headers, in order.
QStringList headers();

// One value placed: row is the interface number (rows count from 1), subItem
// the list column (0 is the row text, -1 or columnCount and above: none).
struct Cell
{
    int row = 0;
    int column = 0; // the interface-table column the value came from
    int subItem = -1;
    QString text;
};

// Works out column and row from the response key (" 6 1 2 1 2 2 1 c i...")
// and renders the value: bytes as two hex digits each, joined without a gap,
// or each followed by "#" for the physical address; numbers are read from
// that hex text, most significant byte first.
Cell converttolist(const QString &key, const QByteArray &value, bool physicalAddress);

} // namespace InterfaceTable
