#include "tftp/laid_out_text_delegate.h"

#include <QApplication>
#include <QPainter>
#include <QStyle>

namespace {
// Texts of rows long gone are dropped all at once past this many.
constexpr int keptTexts = 4096;
} // namespace

const QStaticText &LaidOutTextDelegate::laidOut(
    const QString &text, int width, const QFont &font, Qt::TextElideMode elide) const
{
    if (font != m_font) {
        m_texts.clear();
        m_font = font;
    }
    const Key key { text, width, elide };
    auto found = m_texts.constFind(key);
    if (found != m_texts.constEnd())
        return *found;
    if (m_texts.size() >= keptTexts)
        m_texts.clear();
    const QFontMetrics metrics(font);
    QStaticText laid(
        metrics.horizontalAdvance(text) <= width ? text : metrics.elidedText(text, elide, width));
    laid.setTextFormat(Qt::PlainText);
    laid.prepare(QTransform(), font);
    return *m_texts.insert(key, laid);
}

void LaidOutTextDelegate::paint(
    QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    QStyleOptionViewItem item = option;
    initStyleOption(&item, index);
    const QString text = item.text;
    const QWidget *widget = item.widget;
    QStyle *style = widget ? widget->style() : QApplication::style();
    if (text.contains(QLatin1Char('\n')) || text.contains(QChar::LineSeparator)) {
        style->drawControl(QStyle::CE_ItemViewItem, &item, painter, widget); // several lines: the style's way
        return;
    }
    // Background, selection and focus from the style; the text where and in
    // the colour the style would put it.
    item.text.clear();
    style->drawControl(QStyle::CE_ItemViewItem, &item, painter, widget);
    if (text.isEmpty())
        return;
    const int margin = style->pixelMetric(QStyle::PM_FocusFrameHMargin, nullptr, widget) + 1;
    const QRect area
        = style->subElementRect(QStyle::SE_ItemViewItemText, &item, widget).adjusted(margin, 0, -margin, 0);
    if (area.width() <= 0)
        return;
    const QStaticText &laid = laidOut(text, area.width(), item.font, item.textElideMode);
    const QPalette::ColorGroup group = !(item.state & QStyle::State_Enabled) ? QPalette::Disabled
        : (item.state & QStyle::State_Active)                                ? QPalette::Normal
                                                                             : QPalette::Inactive;
    const QRect at = QStyle::alignedRect(
        item.direction, item.displayAlignment, laid.size().toSize().boundedTo(area.size()), area);
    painter->save();
    painter->setFont(item.font);
    painter->setPen(item.palette.color(
        group, (item.state & QStyle::State_Selected) ? QPalette::HighlightedText : QPalette::Text));
    painter->setClipRect(area, Qt::IntersectClip);
    painter->drawStaticText(at.topLeft(), laid);
    painter->restore();
}
