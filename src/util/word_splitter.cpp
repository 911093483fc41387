#include "word_splitter.h"

namespace tw {

QStringList splitWords(QStringView text)
{
    QStringList words;
    for (QStringView word : text.split(u' ', Qt::SkipEmptyParts))
        words.append(word.toString());
    return words;
}

QString wordAt(QStringView text, int position)
{
    if (position < 1)
        return {};
    int seen = 0;
    for (QStringView word : text.split(u' ', Qt::SkipEmptyParts)) {
        if (++seen == position)
            return word.toString();
    }
    return {};
}

} // namespace tw
