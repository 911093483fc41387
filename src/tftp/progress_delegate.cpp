#include "tftp/progress_delegate.h"

#include <QApplication>
#include <QPainter>
#include <QPixmapCache>
#include <QStaticText>
#include <QStyle>
#include <QStyleOptionProgressBar>

namespace {

// The bar without its label, drawn by the style once per size, percentage and
// look, then copied: many transfers of one image run at about the same pace,
// so the same few bars are on screen again and again, and the style's
// gradients and rounded frame are far dearer to draw than to copy.
QPixmap barPicture(const QStyleOptionViewItem &option, QSize size, int percent)
{
    const QWidget *widget = option.widget;
    QStyle *style = widget ? widget->style() : QApplication::style();
    const qreal ratio = widget ? widget->devicePixelRatioF() : qApp->devicePixelRatio();
    const int state
        = int(option.state & (QStyle::State_Enabled | QStyle::State_Active | QStyle::State_Selected));
    const QString key = QStringLiteral("tw-progress-%1x%2-%3-%4-%5-%6-%7-%8")
                            .arg(size.width())
                            .arg(size.height())
                            .arg(percent)
                            .arg(state)
                            .arg(int(option.direction))
                            .arg(option.palette.cacheKey())
                            .arg(quintptr(style))
                            .arg(ratio);
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

} // namespace

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
    painter->drawPixmap(rect.topLeft(), barPicture(option, rect.size(), percent));

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
