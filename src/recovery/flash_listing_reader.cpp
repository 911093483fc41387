#include "flash_listing_reader.h"

#include "util/word_splitter.h"

QList<FlashListingReader::Entry> FlashListingReader::feed(QByteArrayView text)
{
    QList<Entry> entries;
    for (char byte : text) {
        const auto code = static_cast<unsigned char>(byte);
        if (code == 8) {
            if (!m_line.isEmpty())
                m_line.chop(1);
        } else if (code == 13) {
            Entry words = tw::splitWords(m_line);
            m_line.clear();
            if (words.isEmpty() || !isNumericWord(words.first()))
                continue;
            if (words.size() > wordsKept)
                words.resize(wordsKept);
            entries.append(words);
        } else if (code < 32 || code == 127) {
            continue;
        } else if (m_line.size() < maxLineLength) {
            m_line.append(QChar::fromLatin1(byte));
        }
    }
    return entries;
}

bool FlashListingReader::isNumericWord(const QString &word)
{
    if (word.isEmpty())
        return false;
    for (QChar c : word) {
        if (c < u'0' || c > u'9')
            return false;
    }
    return true;
}
