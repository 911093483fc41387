#include "tftp/report_view.h"

#include <QEvent>
#include <QHeaderView>
#include <QPaintEvent>
#include <QPainter>
#include <QScrollBar>

ReportView::ReportView(QWidget *parent)
    : QAbstractItemView(parent)
    , m_header(new QHeaderView(Qt::Horizontal, this))
{
    // What a tree view sets up for itself.
    setSelectionBehavior(SelectRows);
    setHorizontalScrollMode(ScrollPerPixel);
    setVerticalScrollMode(ScrollPerPixel);
    m_header->setSectionsMovable(true);
    m_header->setStretchLastSection(true);
    m_header->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    m_header->setFocusProxy(this);
    connect(m_header, &QHeaderView::sectionResized, this, &ReportView::relayout);
    connect(m_header, &QHeaderView::sectionMoved, this, &ReportView::relayout);
    connect(m_header, &QHeaderView::geometriesChanged, this, &ReportView::updateGeometries);
    m_pendingRanges.setSingleShot(true);
    m_pendingRanges.setInterval(250);
    connect(&m_pendingRanges, &QTimer::timeout, this, &ReportView::updateScrollRanges);
}

int ReportView::columnWidth(int column) const
{
    return m_header->sectionSize(column);
}

void ReportView::setColumnWidth(int column, int width)
{
    m_header->resizeSection(column, width);
}

void ReportView::setModel(QAbstractItemModel *model)
{
    if (QAbstractItemModel *old = this->model())
        disconnect(old, nullptr, this, nullptr);
    QAbstractItemView::setModel(model);
    m_header->setModel(model);
    if (!model)
        return;
    // Insertions are handled row by row (rowsInserted); everything else that
    // moves rows is rare (clearing old transfers, trimming the oldest) and
    // simply redraws what is in view.
    connect(model, &QAbstractItemModel::rowsRemoved, this, [this] {
        m_removingRows = false;
        relayout();
    });
    connect(model, &QAbstractItemModel::rowsMoved, this, &ReportView::relayout);
    connect(model, &QAbstractItemModel::modelReset, this, &ReportView::relayout);
    connect(model, &QAbstractItemModel::layoutChanged, this, &ReportView::relayout);
    relayout();
}

int ReportView::rowHeight() const
{
    if (m_rowHeight <= 0) {
        // Every row holds one line of text: its height is that of a cell with
        // text, as the delegates (the style's) measure it.
        QStyleOptionViewItem option;
        initViewItemOption(&option);
        option.features |= QStyleOptionViewItem::HasDisplay;
        option.text = QStringLiteral("Xg");
        m_rowHeight
            = qMax(1, style()->sizeFromContents(QStyle::CT_ItemViewItem, &option, QSize(), this).height());
    }
    return m_rowHeight;
}

int ReportView::rowCount() const
{
    return model() ? model()->rowCount(rootIndex()) : 0;
}

QRect ReportView::columnSpan(int column) const
{
    return { m_header->sectionViewportPosition(column), 0, m_header->sectionSize(column), 0 };
}

QRect ReportView::visualRect(const QModelIndex &index) const
{
    if (!index.isValid() || index.parent() != rootIndex() || m_header->isSectionHidden(index.column()))
        return {};
    const QRect span = columnSpan(index.column());
    return { span.left(), index.row() * rowHeight() - verticalOffset(), span.width(), rowHeight() };
}

QModelIndex ReportView::indexAt(const QPoint &point) const
{
    if (!model() || point.y() < 0)
        return {};
    const int row = (point.y() + verticalOffset()) / rowHeight();
    const int column = m_header->logicalIndexAt(point.x());
    if (row >= rowCount() || column < 0)
        return {};
    return model()->index(row, column, rootIndex());
}

void ReportView::scrollTo(const QModelIndex &index, ScrollHint hint)
{
    if (!index.isValid() || m_removingRows)
        return;
    if (m_pendingRanges.isActive())
        updateScrollRanges();
    const int top = index.row() * rowHeight();
    const int height = viewport()->height();
    QScrollBar *bar = verticalScrollBar();
    switch (hint) {
    case PositionAtTop:
        bar->setValue(top);
        break;
    case PositionAtBottom:
        bar->setValue(top + rowHeight() - height);
        break;
    case PositionAtCenter:
        bar->setValue(top - (height - rowHeight()) / 2);
        break;
    case EnsureVisible:
        if (top < bar->value())
            bar->setValue(top);
        else if (top + rowHeight() > bar->value() + height)
            bar->setValue(top + rowHeight() - height);
        break;
    }
    // Sideways, the cell only has to come into view.
    const QRect span = columnSpan(index.column());
    if (span.left() < 0)
        horizontalScrollBar()->setValue(horizontalScrollBar()->value() + span.left());
    else if (span.right() >= viewport()->width())
        horizontalScrollBar()->setValue(
            horizontalScrollBar()->value() + qMin(span.left(), span.right() + 1 - viewport()->width()));
}

QModelIndex ReportView::moveCursor(CursorAction cursorAction, Qt::KeyboardModifiers)
{
    const int rows = rowCount();
    const int columns = model() ? model()->columnCount(rootIndex()) : 0;
    if (rows == 0 || columns == 0)
        return {};
    const QModelIndex current = currentIndex();
    if (!current.isValid())
        return model()->index(0, m_header->logicalIndex(0), rootIndex());
    int row = current.row();
    int visualColumn = m_header->visualIndex(current.column());
    const int page = qMax(1, viewport()->height() / rowHeight());
    switch (cursorAction) {
    case MoveUp:
    case MovePrevious:
        --row;
        break;
    case MoveDown:
    case MoveNext:
        ++row;
        break;
    case MovePageUp:
        row -= page;
        break;
    case MovePageDown:
        row += page;
        break;
    case MoveHome:
        row = 0;
        break;
    case MoveEnd:
        row = rows - 1;
        break;
    case MoveLeft:
        --visualColumn;
        break;
    case MoveRight:
        ++visualColumn;
        break;
    }
    const int column = m_header->logicalIndex(qBound(0, visualColumn, columns - 1));
    return model()->index(qBound(0, row, rows - 1), column, rootIndex());
}

int ReportView::horizontalOffset() const
{
    return horizontalScrollBar()->value();
}

int ReportView::verticalOffset() const
{
    return verticalScrollBar()->value();
}

bool ReportView::isIndexHidden(const QModelIndex &index) const
{
    return m_header->isSectionHidden(index.column());
}

void ReportView::setSelection(const QRect &rect, QItemSelectionModel::SelectionFlags command)
{
    const int rows = rowCount();
    if (!selectionModel() || rows == 0)
        return;
    const QRect area = rect.normalized();
    const auto rowAt = [&](int y) { return qBound(0, (y + verticalOffset()) / rowHeight(), rows - 1); };
    const auto columnAt = [&](int x) {
        const int column = m_header->logicalIndexAt(x);
        return column >= 0 ? column : m_header->logicalIndex(x < 0 ? 0 : m_header->count() - 1);
    };
    int left = columnAt(area.left());
    int right = columnAt(area.right());
    if (m_header->visualIndex(left) > m_header->visualIndex(right))
        std::swap(left, right);
    const QModelIndex topLeft = model()->index(rowAt(area.top()), left, rootIndex());
    const QModelIndex bottomRight = model()->index(rowAt(area.bottom()), right, rootIndex());
    selectionModel()->select(QItemSelection(topLeft, bottomRight), command);
}

QRegion ReportView::visualRegionForSelection(const QItemSelection &selection) const
{
    QRegion region;
    for (const QItemSelectionRange &range : selection) {
        if (range.parent() != rootIndex())
            continue;
        const int top = range.top() * rowHeight() - verticalOffset();
        const int bottom = (range.bottom() + 1) * rowHeight() - verticalOffset();
        // Columns may have been moved: a range of columns is not one span on screen.
        for (int column = range.left(); column <= range.right(); ++column) {
            const QRect span = columnSpan(column);
            region += QRect(span.left(), top, span.width(), bottom - top);
        }
    }
    return region;
}

void ReportView::paintEvent(QPaintEvent *event)
{
    const int rows = rowCount();
    if (rows == 0)
        return;
    const QRect area = event->rect();
    const int height = rowHeight();
    const int first = qMax(0, (area.top() + verticalOffset()) / height);
    const int last = qMin(rows - 1, (area.bottom() + verticalOffset()) / height);
    QPainter painter(viewport());
    QStyleOptionViewItem base;
    initViewItemOption(&base);
    const QModelIndex current = currentIndex();
    const bool focused = hasFocus() && current.isValid();
    const int width = qMax(viewport()->width(), m_header->length() - horizontalOffset());
    QItemSelectionModel *selection = selectionModel();
    for (int row = first; row <= last; ++row) {
        QStyleOptionViewItem option = base;
        option.rect = QRect(0, row * height - verticalOffset(), width, height);
        if (alternatingRowColors() && (row & 1))
            option.features |= QStyleOptionViewItem::Alternate;
        if (selection && selection->isRowSelected(row, rootIndex()))
            option.state |= QStyle::State_Selected;
        style()->drawPrimitive(QStyle::PE_PanelItemViewRow, &option, &painter, this);
        for (int section = 0; section < m_header->count(); ++section) {
            const int column = m_header->logicalIndex(section);
            const QRect span = columnSpan(column);
            if (m_header->isSectionHidden(column) || span.right() < area.left() || span.left() > area.right())
                continue;
            const QModelIndex index = model()->index(row, column, rootIndex());
            QStyleOptionViewItem cell = option;
            cell.rect = QRect(span.left(), option.rect.top(), span.width(), height);
            if (selection && selection->isSelected(index))
                cell.state |= QStyle::State_Selected;
            if (focused && index == current)
                cell.state |= QStyle::State_HasFocus;
            itemDelegateForIndex(index)->paint(&painter, cell, index);
        }
    }
}

void ReportView::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::FontChange || event->type() == QEvent::StyleChange) {
        m_rowHeight = 0;
        relayout();
    }
    QAbstractItemView::changeEvent(event);
}

void ReportView::scrollContentsBy(int dx, int dy)
{
    m_header->setOffset(horizontalOffset());
    viewport()->scroll(dx, dy);
}

void ReportView::updateGeometries()
{
    const int headerHeight = m_header->isHidden() ? 0 : m_header->sizeHint().height();
    // Setting the margins lays the scroll bars out again with the ranges of
    // the moment: only when they change, so that a range that is about to be
    // corrected (columns fitted after a resize) never shows a scroll bar.
    if (viewportMargins().top() != headerHeight)
        setViewportMargins(0, headerHeight, 0, 0);
    const QRect port = viewport()->geometry();
    m_header->setGeometry(port.left(), port.top() - headerHeight, port.width(), headerHeight);
    QMetaObject::invokeMethod(m_header, "updateGeometries");
    updateScrollRanges();
    QAbstractItemView::updateGeometries();
}

void ReportView::updateScrollRanges()
{
    m_pendingRanges.stop();
    QScrollBar *vertical = verticalScrollBar();
    vertical->setSingleStep(rowHeight());
    vertical->setPageStep(viewport()->height());
    vertical->setRange(0, qMax(0, rowCount() * rowHeight() - viewport()->height()));
    QScrollBar *horizontal = horizontalScrollBar();
    horizontal->setSingleStep(qMax(1, fontMetrics().averageCharWidth() * 2));
    horizontal->setPageStep(viewport()->width());
    horizontal->setRange(0, qMax(0, m_header->length() - viewport()->width()));
    m_header->setOffset(horizontalOffset());
}

void ReportView::rowsInserted(const QModelIndex &parent, int start, int end)
{
    QAbstractItemView::rowsInserted(parent, start, end);
    if (parent != rootIndex())
        return;
    const int top = start * rowHeight() - verticalOffset();
    if (top >= viewport()->height()) {
        // Below the view only the scroll bar changes. It catches up a quarter
        // of a second later, so that a burst of new transfers redraws it once
        // rather than batch after batch.
        if (!m_pendingRanges.isActive())
            m_pendingRanges.start();
        return;
    }
    updateScrollRanges();
    // Only what is in view from the first new row down has changed.
    viewport()->update(0, qMax(0, top), viewport()->width(), viewport()->height() - qMax(0, top));
}

void ReportView::rowsAboutToBeRemoved(const QModelIndex &parent, int start, int end)
{
    // When the current row goes, the current index moves on to the next row;
    // old rows trimmed from the top must not scroll the list to it. The
    // selection model moves it after this, so scrolling stays off until the
    // rows are gone (rowsRemoved).
    m_removingRows = true;
    QAbstractItemView::rowsAboutToBeRemoved(parent, start, end);
}

void ReportView::relayout()
{
    updateGeometries();
    viewport()->update();
}
