#pragma once

#include <QFont>
#include <QHash>
#include <QStaticText>
#include <QStyledItemDelegate>

// Draws a report row's cells as the style does, but keeps each cell's text
// laid out between paints. A row is repainted whole whenever one of its cells
// changes, which in the transfer list is the progress column, several times a
// second per running transfer; laying out (shaping) the other, unchanged texts
// again each time was most of what a repaint cost the windows' thread.
class LaidOutTextDelegate : public QStyledItemDelegate
{
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(
        QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;

private:
    struct Key
    {
        QString text;
        int width;
        Qt::TextElideMode elide;
        bool operator==(const Key &other) const
        {
            return width == other.width && elide == other.elide && text == other.text;
        }
    };
    friend size_t qHash(const Key &key, size_t seed)
    {
        return qHashMulti(seed, key.text, key.width, key.elide);
    }

    const QStaticText &laidOut(
        const QString &text, int width, const QFont &font, Qt::TextElideMode elide) const;

    mutable QHash<Key, QStaticText> m_texts;
    mutable QFont m_font;
};
