#include "rich_text_document.h"

#include <QBrush>
#include <QTextBlock>
#include <QTextCharFormat>
#include <QTextCursor>
#include <QTextDocument>

namespace tw {

RichText richTextFromDocument(const QTextDocument &document)
{
    RichText out;
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
        if (block != document.begin())
            out.append(QStringLiteral("\n"), out.runs.isEmpty() ? std::nullopt : out.runs.last().colour);
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextFragment fragment = it.fragment();
            if (!fragment.isValid())
                continue;
            QString text = fragment.text();
            text.remove(QChar::ObjectReplacementCharacter);
            const QBrush brush = fragment.charFormat().foreground();
            std::optional<quint32> colour;
            if (brush.style() != Qt::NoBrush)
                colour = brush.color().rgb() & 0xFFFFFF;
            out.append(text, colour);
        }
    }
    return out;
}

void setDocumentRichText(QTextDocument &document, const RichText &text)
{
    document.clear();
    QTextCursor cursor(&document);
    for (const RichRun &run : text.runs) {
        QTextCharFormat format;
        if (run.colour)
            format.setForeground(QColor::fromRgb(QRgb(*run.colour)));
        cursor.insertText(run.text, format);
    }
}

} // namespace tw
