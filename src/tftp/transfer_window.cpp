#include "transfer_window.h"

#include "tftp/laid_out_text_delegate.h"
#include "tftp/progress_delegate.h"
#include "tftp/report_view.h"
#include "tftp/transfer_monitor.h"
#include "util/twips.h"

#include <QAction>
#include <QHeaderView>
#include <QMenuBar>
#include <QResizeEvent>
#include <QStyle>

namespace {
ReportView *makeReportView(QAbstractItemModel *model, const QString &name, QWidget *parent)
{
    auto *view = new ReportView(parent);
    view->setObjectName(name);
    view->setModel(model);
    view->setAlternatingRowColors(true);
    view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    view->setEditTriggers(QAbstractItemView::NoEditTriggers);
    view->header()->setStretchLastSection(true);
    view->header()->setDefaultSectionSize(110);
    view->setItemDelegate(new LaidOutTextDelegate(view));
    return view;
}
} // namespace

TransferWindow::TransferWindow(TransferMonitor *monitor, QWidget *parent)
    : ChildWindow(parent)
    , m_menuBar(new QMenuBar(this))
    , m_standard(new QAction(QStringLiteral("Standard TFTP"), this))
    , m_transferList(makeReportView(monitor->transfers(), QStringLiteral("ListView1"), this))
    , m_socketTable(makeReportView(monitor->sockets(), QStringLiteral("ListView2"), this))
{
    setObjectName(QStringLiteral("Transfer"));
    setWindowTitle(QStringLiteral("Transfer"));
    QAction *clear = m_menuBar->addAction(QStringLiteral("Clear Old Transfers"));
    clear->setObjectName(QStringLiteral("MnuClearOldTransfers"));
    connect(clear, &QAction::triggered, this, &TransferWindow::clearOldTransfersRequested);
    m_standard->setObjectName(QStringLiteral("MnuStandardTftp"));
    m_standard->setCheckable(true);
    m_menuBar->addAction(m_standard);
    connect(m_standard, &QAction::triggered, this, &TransferWindow::standardProfileToggled);
    m_transferList->setItemDelegateForColumn(TransferMonitor::DataSentReceived, new ProgressDelegate(this));
    // The columns are fitted with room for the scroll bar, and it stays there:
    // when the list fills, the columns do not narrow and redraw (every bar
    // then has a new width) while the transfers that filled it are starting.
    m_transferList->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    QAction *http = m_menuBar->addAction(QStringLiteral("HTTP Server..."));
    http->setObjectName(QStringLiteral("MnuHttpServer"));
    connect(http, &QAction::triggered, this, &TransferWindow::httpServerRequested);
    m_transferList->setColumnWidth(0, 180);
    m_socketTable->setColumnWidth(0, 60);
    resize(640, 480);
}

void TransferWindow::setStandardProfile(bool on)
{
    m_standard->setChecked(on); // triggered is not emitted for this
}

void TransferWindow::resizeEvent(QResizeEvent *event)
{
    ChildWindow::resizeEvent(event);
    // Both lists inset by 100 twips, as wide as the window less 200, one above
    // the other, each about half of what is left under the menu.
    const int inset = tw::twips(100);
    const int top = m_menuBar->sizeHint().height();
    m_menuBar->setGeometry(0, 0, width(), top);
    const int listWidth = qMax(0, width() - 2 * inset);
    const int half = qMax(0, (height() - top - 3 * inset) / 2);
    m_transferList->setGeometry(inset, top + inset, listWidth, half);
    m_socketTable->setGeometry(inset, top + 2 * inset + half, listWidth, half);
    fitTransferColumns();
}

void TransferWindow::fitTransferColumns()
{
    // Tiled in the main window the list is far narrower than its columns: then
    // they share the width (Filename and "Data sent/Received", whose bar shows
    // how far a transfer is, the most) so that every column, the bar included,
    // is in view without scrolling. Wide enough, the columns keep their widths
    // and the last one takes the rest.
    static constexpr int defaults[] = { 180, 110, 110, 110 };
    static constexpr int weights[] = { 3, 2, 2, 2, 4 };
    const int scrollBar = style()->pixelMetric(QStyle::PM_ScrollBarExtent, nullptr, m_transferList);
    const int width = m_transferList->width() - 2 * m_transferList->frameWidth() - scrollBar;
    int fixed = 0;
    for (int w : defaults)
        fixed += w;
    if (width >= fixed + minimumDataWidth) {
        for (int column = 0; column < 4; ++column)
            m_transferList->setColumnWidth(column, defaults[column]);
        // The stretched last column never shrinks below the width it was last given.
        m_transferList->setColumnWidth(4, minimumDataWidth);
        return;
    }
    int total = 0;
    for (int w : weights)
        total += w;
    for (int column = 0; column < 5; ++column)
        m_transferList->setColumnWidth(column, qMax(1, width * weights[column] / total));
}
