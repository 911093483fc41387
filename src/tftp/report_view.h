#pragma once

#include <QAbstractItemView>
#include <QTimer>

class QHeaderView;

// A report list: the rows of a flat model under a header, every row as high
// as a line of text. It looks and behaves as a tree view with no branches
// would (alternating rows, whole-row selection, movable and resizable columns,
// keys, copy of the current cell), but costs less where the transfer list
// needs it: rows are found by arithmetic, so painting, hit testing and a
// cell's change cost the same with 5 or 5000 rows, and a row added out of view
// costs only the scroll bar. A tree view lays out all its rows again and
// repaints everything in view after each batch of new rows, which with
// hundreds of transfers starting at once was the longest work the windows'
// thread did.
class ReportView : public QAbstractItemView
{
    Q_OBJECT
public:
    explicit ReportView(QWidget *parent = nullptr);

    QHeaderView *header() const { return m_header; }
    int columnWidth(int column) const;
    void setColumnWidth(int column, int width);

    void setModel(QAbstractItemModel *model) override;
    QRect visualRect(const QModelIndex &index) const override;
    void scrollTo(const QModelIndex &index, ScrollHint hint = EnsureVisible) override;
    QModelIndex indexAt(const QPoint &point) const override;

protected:
    QModelIndex moveCursor(CursorAction cursorAction, Qt::KeyboardModifiers modifiers) override;
    int horizontalOffset() const override;
    int verticalOffset() const override;
    bool isIndexHidden(const QModelIndex &index) const override;
    void setSelection(const QRect &rect, QItemSelectionModel::SelectionFlags command) override;
    QRegion visualRegionForSelection(const QItemSelection &selection) const override;

    void paintEvent(QPaintEvent *event) override;
    void changeEvent(QEvent *event) override;
    void scrollContentsBy(int dx, int dy) override;
    void updateGeometries() override;
    void rowsInserted(const QModelIndex &parent, int start, int end) override;
    void rowsAboutToBeRemoved(const QModelIndex &parent, int start, int end) override;

private:
    int rowHeight() const;
    int rowCount() const;
    // Column `column`'s left edge and width in the viewport.
    QRect columnSpan(int column) const;
    void updateScrollRanges();
    void relayout();

    QHeaderView *m_header;
    QTimer m_pendingRanges; // rows were added below the view: the scroll bar is behind
    bool m_removingRows = false;
    mutable int m_rowHeight = 0; // 0: measure again (the font or the style changed)
};
