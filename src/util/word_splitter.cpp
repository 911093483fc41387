#include "word_splitter.h"

namespace tw {

QStringList splitWords(QStringView text)
{
    QStringList words;
    for (QStringView word : text.split(u' ', Qt::SkipEmptyParts))
        words.append(word.toString());
    return words;
}

} // namespace tw
