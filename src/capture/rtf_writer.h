#pragma once

#include "capture/rich_text.h"

#include <QByteArray>

// Writes RichText as an RTF document that word processors open with the
// colours intact: an ANSI (code page 1252) header, one fixed-pitch font, a
// colour table of the colours used (entry 0 is "auto"), \cf switches between
// runs and \par for line breaks. \ { } are escaped, 8-bit Latin-1 characters
// become \'hh and anything else (control characters above 0x7F included)
// \uN? so the text reads back exactly.
class RtfWriter
{
public:
    static QByteArray write(const RichText &text);
};
