#include "network_window.h"

#include "access/access_list.h"
#include "access/networkadd_dialog.h"
#include "util/image_list.h"

#include <QAction>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QMenuBar>
#include <QResizeEvent>
#include <QTreeView>

NetworkWindow::NetworkWindow(AccessList *list, QWidget *parent)
    : ChildWindow(parent)
    , m_list(list)
    , m_menuBar(new QMenuBar(this))
    , m_view(new QTreeView(this))
{
    setObjectName(QStringLiteral("Network"));
    setWindowTitle(QStringLiteral("Network"));
    setWindowIcon(tw::imageListIcon(1));

    QAction *add = m_menuBar->addAction(QStringLiteral("Add Network"));
    add->setObjectName(QStringLiteral("MnuAddNetwork"));
    connect(add, &QAction::triggered, this, &NetworkWindow::addNetwork);
    QAction *remove = m_menuBar->addAction(QStringLiteral("Remove Network"));
    remove->setObjectName(QStringLiteral("MnuRemoveNetwork"));
    connect(remove, &QAction::triggered, this, &NetworkWindow::removeNetwork);

    m_view->setObjectName(QStringLiteral("ListView1"));
    m_view->setModel(m_list);
    m_view->setRootIsDecorated(false);
    m_view->setUniformRowHeights(true);
    m_view->setAlternatingRowColors(true);
    m_view->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_view->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_view->header()->setStretchLastSection(true);
    const int widths[] = { 110, 130, 50, 50 };
    for (int column = 0; column < 4; ++column)
        m_view->setColumnWidth(column, widths[column]);
    resize(640, 300);
}

void NetworkWindow::addNetwork()
{
    const FolderChoice choice = m_folderSource ? m_folderSource() : FolderChoice {};
    NetworkAddDialog dialog(m_list, choice.folders, choice.current, this);
    dialog.exec();
    m_list->save_ACL();
}

void NetworkWindow::removeNetwork()
{
    const QItemSelectionModel *selection = m_view->selectionModel();
    for (int row = 0; row < m_list->rowCount(); ++row) {
        if (selection->isRowSelected(row, QModelIndex())) {
            m_list->removeRow(row);
            return;
        }
    }
}

void NetworkWindow::resizeEvent(QResizeEvent *event)
{
    ChildWindow::resizeEvent(event);
    const int top = m_menuBar->sizeHint().height();
    m_menuBar->setGeometry(0, 0, width(), top);
    m_view->setGeometry(0, top, width(), qMax(0, height() - top));
}
