#include "tftp/progress_delegate.h"

#include <QApplication>
#include <QPainter>
#include <QPixmapCache>
#include <QStaticText>
#include <QStringBuilder>
#include <QStyle>
#include <QStyleOptionProgressBar>

namespace {

// Everything but the percentage that a bar's picture depends on.
QString barLook(const QStyleOptionViewItem &option, QSize size)
{
    const QWidget *widget = option.widget;
    const int state
        = int(option.state & (QStyle::State_Enabled | QStyle::State_Active | QStyle::State_Selected));
    const QChar dash = QLatin1Char('-');
    return QStringLiteral("tw-progress-") % QString::number(size.width()) % QLatin1Char('x')
        % QString::number(size.height()) % dash % QString::number(state) % dash
        % QString::number(option.direction) % dash % QString::number(option.palette.cacheKey()) % dash
        % QString::number(quintptr(widget ? widget->style() : QApplication::style())) % dash
        % QString::number(widget ? widget->devicePixelRatioF() : qApp->devicePixelRatio());
}

// The bar without its label, drawn by the style once per look and percentage,
// then copied: the style's gradients and rounded frame are far dearer to draw
// than to copy.
QPixmap barPicture(const QString &look, const QStyleOptionViewItem &option, QSize size, int percent)
{
    const QWidget *widget = option.widget;
    QStyle *style = widget ? widget->style() : QApplication::style();
    const qreal ratio = widget ? widget->devicePixelRatioF() : qApp->devicePixelRatio();
    const QString key = look + QLatin1Char('-') + QString::number(percent);
    QPixmap picture;
    if (QPixmapCache::find(key, &picture))
        return picture;
    picture = QPixmap(size * ratio);
    picture.setDevicePixelRatio(ratio);
    picture.fill(Qt::transparent);
    QStyleOptionProgressBar bar;
    bar.rect = QRect(QPoint(0, 0), size);
    bar.state = option.state | QStyle::State_Horizontal;
    bar.direction = option.direction;
    bar.fontMetrics = option.fontMetrics;
    bar.palette = option.palette;
    bar.minimum = 0;
    bar.maximum = 100;
    bar.progress = percent;
    bar.textVisible = false;
    QPainter painter(&picture);
    style->drawControl(QStyle::CE_ProgressBar, &bar, &painter, widget);
    painter.end();
    QPixmapCache::insert(key, picture);
    return picture;
}

// Where the style ends the filled part of a bar `width` wide.
int filledEnd(int width, int percent)
{
    return int(qint64(width) * percent / 100);
}

// The bar for `percent` put together from three pictures of its look, each
// drawn by the style once: the filled part from the 99% bar, the end of the
// filled part moved there from the 50% bar, and the rest from the empty bar.
// Along a bar the style's pictures change only near its two ends and where
// the filled part ends, so this is the style's own picture wherever the
// filled part ends well away from the bar's ends (checked once per look).
void drawComposedBar(QPainter *painter, QPoint at, const QString &look, const QStyleOptionViewItem &option,
    QSize size, int percent)
{
    const int width = size.width();
    const int height = size.height();
    const int end = filledEnd(width, percent);
    const int moved = filledEnd(width, 50) - end;
    constexpr int before = 3; // columns of the filled part's end left of `end`
    constexpr int after = 2; // and from `end` on
    painter->drawPixmap(QRect(at.x(), at.y(), end - before, height), barPicture(look, option, size, 99),
        QRect(0, 0, end - before, height));
    painter->drawPixmap(QRect(at.x() + end - before, at.y(), before + after, height),
        barPicture(look, option, size, 50), QRect(end - before + moved, 0, before + after, height));
    painter->drawPixmap(QRect(at.x() + end + after, at.y(), width - end - after, height),
        barPicture(look, option, size, 0), QRect(end + after, 0, width - end - after, height));
}

} // namespace

ProgressDelegate::Composed ProgressDelegate::composedRange(
    const QString &look, const QStyleOptionViewItem &option, QSize size) const
{
    // Left to right at one device pixel per pixel, far enough from the ends
    // for the filled part's end to be drawn whole on the bar's middle.
    constexpr int margin = 8;
    const QWidget *widget = option.widget;
    const qreal ratio = widget ? widget->devicePixelRatioF() : qApp->devicePixelRatio();
    if (option.direction != Qt::LeftToRight || ratio != 1.0 || size.width() < 4 * margin)
        return {};
    auto known = m_composed.constFind(look);
    if (known != m_composed.constEnd())
        return *known;
    Composed range;
    range.lowest = 1;
    while (filledEnd(size.width(), range.lowest) < margin)
        ++range.lowest;
    range.highest = 99;
    while (filledEnd(size.width(), range.highest) > size.width() - margin)
        --range.highest;
    // Once per look: is the put-together bar the style's at both ends of that
    // range? (Some styles shade a bar along its length.)
    for (const int percent : { range.lowest, range.highest }) {
        QPixmap composed(size);
        composed.fill(Qt::transparent);
        QPainter painter(&composed);
        drawComposedBar(&painter, QPoint(0, 0), look, option, size, percent);
        painter.end();
        if (composed.toImage() != barPicture(look, option, size, percent).toImage())
            range = {};
    }
    if (m_composed.size() >= 64) // a window dragged wider and narrower
        m_composed.clear();
    return *m_composed.insert(look, range);
}

void ProgressDelegate::drawBar(
    QPainter *painter, QPoint at, const QStyleOptionViewItem &option, QSize size, int percent) const
{
    const QString look = barLook(option, size);
    const Composed range = composedRange(look, option, size);
    if (percent >= range.lowest && percent <= range.highest)
        drawComposedBar(painter, at, look, option, size, percent);
    else
        painter->drawPixmap(at, barPicture(look, option, size, percent));
}

int ProgressDelegate::percentOf(const QString &text)
{
    if (!text.endsWith(QLatin1String("%)")))
        return -1;
    const qsizetype open = text.lastIndexOf(QLatin1Char('('));
    if (open < 0)
        return -1;
    bool ok = false;
    const int percent = text.mid(open + 1, text.size() - open - 3).toInt(&ok);
    return ok && percent >= 0 && percent <= 100 ? percent : -1;
}

void ProgressDelegate::paint(
    QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const
{
    const QString text = index.data().toString();
    const int percent = percentOf(text);
    if (percent < 0) {
        LaidOutTextDelegate::paint(painter, option, index);
        return;
    }
    const QRect rect = option.rect.adjusted(1, 1, -1, -1);
    if (rect.isEmpty())
        return;
    drawBar(painter, rect.topLeft(), option, rect.size(), percent);

    // The label, laid out once and drawn twice: in the text colour over the
    // empty part of the bar and in the highlighted-text colour over the filled
    // part. In a narrow column the whole text would be cut off in the middle:
    // the percentage alone is what still reads there.
    QStaticText label(text);
    label.setTextFormat(Qt::PlainText);
    label.prepare(QTransform(), option.font);
    if (label.size().width() > rect.width() - 2 * option.fontMetrics.averageCharWidth()) {
        label.setText(QStringLiteral("%1%").arg(percent));
        label.prepare(QTransform(), option.font);
    }
    const QPoint at
        = QStyle::alignedRect(option.direction, Qt::AlignCenter, label.size().toSize(), rect).topLeft();
    const int filledWidth = int(qint64(rect.width()) * percent / 100);
    QRect filled = rect;
    QRect empty = rect;
    if (option.direction == Qt::RightToLeft) {
        filled.setLeft(rect.right() + 1 - filledWidth);
        empty.setRight(filled.left() - 1);
    } else {
        filled.setRight(rect.left() + filledWidth - 1);
        empty.setLeft(filled.right() + 1);
    }
    const auto draw = [&](const QRect &part, QPalette::ColorRole role) {
        if (part.isEmpty())
            return;
        painter->save();
        painter->setClipRect(part, Qt::IntersectClip);
        painter->setFont(option.font);
        painter->setPen(option.palette.color(role));
        painter->drawStaticText(at, label);
        painter->restore();
    };
    draw(empty, QPalette::Text);
    draw(filled, QPalette::HighlightedText);
}
