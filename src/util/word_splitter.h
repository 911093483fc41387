#pragma once

#include <QString>
#include <QStringList>
#include <QStringView>

// The word splitter shared by the parts that read device output by position.
// Words are separated by spaces; device listings align their columns with runs
// of spaces, so the empty words such runs would produce are skipped and the
// n-th word is the n-th field a reader sees on screen. Only the space separates
// words: other characters, tabs included, belong to the word they are in.
namespace tw {

// All non-empty words of text, in order.
QStringList splitWords(QStringView text);

} // namespace tw
