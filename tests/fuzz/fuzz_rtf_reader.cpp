// A file given to "Load Config": read as RTF, then written and read again, as
// saving the loaded view would, which must keep the text (line breaks aside).
#include "fuzz_input.h"

#include "capture/rtf_reader.h"
#include "capture/rtf_writer.h"

#include <cstdlib>

namespace {
// The writer makes every line break a paragraph (CR LF counts as one), so a
// CR, CR LF or separator reads back as LF; everything else comes back as is.
QString lineBreaksAsNewlines(QString text)
{
    text.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
    for (QChar separator : { QChar(u'\r'), QChar(0x2028), QChar(0x2029) })
        text.replace(separator, QChar(u'\n'));
    return text;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const RichText text = RtfReader::read(QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
    const RichText again = RtfReader::read(RtfWriter::write(text));
    if (lineBreaksAsNewlines(again.plainText()) != lineBreaksAsNewlines(text.plainText()))
        std::abort();
    return 0;
}
