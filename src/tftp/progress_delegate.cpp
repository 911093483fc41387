#include "tftp/progress_delegate.h"

#include <QApplication>
#include <QPainter>
#include <QStyle>
#include <QStyleOptionProgressBar>

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
        QStyledItemDelegate::paint(painter, option, index);
        return;
    }
    QStyleOptionProgressBar bar;
    bar.rect = option.rect.adjusted(1, 1, -1, -1);
    bar.state = option.state | QStyle::State_Horizontal;
    bar.direction = option.direction;
    bar.fontMetrics = option.fontMetrics;
    bar.palette = option.palette;
    bar.minimum = 0;
    bar.maximum = 100;
    bar.progress = percent;
    // In a narrow column the whole text would be cut off in the middle:
    // the percentage alone is what still reads there.
    const int room = bar.rect.width() - 2 * option.fontMetrics.averageCharWidth();
    bar.text = option.fontMetrics.horizontalAdvance(text) <= room ? text : QStringLiteral("%1%").arg(percent);
    bar.textVisible = true;
    bar.textAlignment = Qt::AlignCenter;
    const QWidget *widget = option.widget;
    QStyle *style = widget ? widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_ProgressBar, &bar, painter, widget);
}
