#pragma once

#include "capture/rich_text.h"

#include <QByteArray>

// Reads the text and colours out of an RTF document, from our own writer,
// word processors (LibreOffice, WordPad, Word) or anything else. It keeps the
// characters (\par, \line, \tab and friends, \'hh in code page 1252, \uN with
// its \ucN fallback skipped), the colour table and \cf runs; it skips font
// tables, style sheets, pictures, document info, field instructions and every
// {\* ...} destination.
//
// Malformed input is read as far as it makes sense and never crashes: a
// missing or stray brace, truncation, control words of any length, overflowing
// parameters, \bin past the end, 100,000 nested groups (deeper than
// maxDepth they share the deepest state), \cf beyond the table.
class RtfReader
{
public:
    static constexpr int maxDepth = 1024;
    static constexpr int maxColours = 4096;

    static RichText read(const QByteArray &rtf);
};
