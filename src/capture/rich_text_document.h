#pragma once

#include "capture/rich_text.h"

class QTextDocument;

// Moves RichText in and out of a QTextDocument: blocks become '\n'-separated
// text, a character format's foreground brush becomes the run's colour.
// Everything else a document may hold (fonts, images) is left out.
namespace tw {
RichText richTextFromDocument(const QTextDocument &document);
// Replaces the document's contents.
void setDocumentRichText(QTextDocument &document, const RichText &text);
} // namespace tw
