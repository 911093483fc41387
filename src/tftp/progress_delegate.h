#pragma once

#include "tftp/laid_out_text_delegate.h"

// Draws the "Data sent/Received" column as a progress bar while a transfer
// with a known size runs ("1048576 of 100000000 bytes (1%)"), with that text
// on the bar (only the percentage where the column is too narrow for all of
// it); any other text is drawn as it is. The model keeps the text, so
// --headless output and copying rows are unchanged.
class ProgressDelegate : public LaidOutTextDelegate
{
public:
    using LaidOutTextDelegate::LaidOutTextDelegate;

    // The percentage a progress text ends with, or -1.
    static int percentOf(const QString &text);

    void paint(
        QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;

private:
    // The percentages whose bars are put together from three pictures of the
    // look instead of one picture each (none: lowest 101).
    struct Composed
    {
        int lowest = 101;
        int highest = -1;
    };
    Composed composedRange(const QString &look, const QStyleOptionViewItem &option, QSize size) const;
    void drawBar(
        QPainter *painter, QPoint at, const QStyleOptionViewItem &option, QSize size, int percent) const;

    mutable QHash<QString, Composed> m_composed; // per look (see barLook)
};
