#pragma once

#include <QByteArrayView>
#include <QList>
#include <QString>
#include <QStringList>

// Reads a device's flash listing ("dir flash:") out of the raw text the
// console receives, one character at a time, and hands back the lines that
// describe an entry. No I/O: the flash backup feeds it whatever TCP text
// arrives while its panel is up.
//
// Rules, per received character:
//  - backspace (8) removes the last character collected, if any, which is how
//    the device wipes its "--More--" prompt after the user pages on;
//  - carriage return (13) ends the line: if its first word is a number, the
//    line is an entry, split into words with the shared word splitter (runs
//    of spaces between the aligned columns count as one separator); other
//    lines (headers, prompts, blank lines) are dropped;
//  - other control characters (line feed, NUL, escape, ...) are dropped: a
//    device ends its lines with CR LF, and a line feed carried into the next
//    line would hide that line's entry number;
//  - everything else is appended to the line. A line that grows past
//    maxLineLength stops growing, so a device that never sends CR cannot make
//    the reader hold an unbounded amount of text.
//
// The summary line ("15998976 bytes total (7381248 bytes free)") starts with
// a number too and therefore comes back as an entry; the list that shows the
// entries knows it is the last one.
class FlashListingReader
{
public:
    // An entry's words: [0] the entry number, [1..8] the columns after it
    // (permissions, size, month, day, year, time, zone, name for the usual
    // line). Words beyond the ninth are not kept; a short line has fewer.
    using Entry = QStringList;
    static constexpr int wordsKept = 9;
    static constexpr int maxLineLength = 4096;

    // Reads one block of received text and returns the entries it completed.
    QList<Entry> feed(QByteArrayView text);

    // The characters of the line not yet ended by a carriage return.
    QString pendingLine() const { return m_line; }
    void reset() { m_line.clear(); }

    // True for a word made of decimal digits only (the entry number).
    static bool isNumericWord(const QString &word);

private:
    QString m_line;
};
