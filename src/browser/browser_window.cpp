#include "browser_window.h"

#include "browser/folder_scanner.h"
#include "util/image_list.h"
#include "util/twips.h"

#include <QAction>
#include <QComboBox>
#include <QFileDialog>
#include <QHeaderView>
#include <QIdentityProxyModel>
#include <QMenuBar>
#include <QResizeEvent>
#include <QTreeView>

namespace {

// The scanner stores image indexes only; the pictures come from here.
class ImageListProxy : public QIdentityProxyModel
{
public:
    using QIdentityProxyModel::QIdentityProxyModel;

    QVariant data(const QModelIndex &index, int role) const override
    {
        if (role == Qt::DecorationRole)
            return tw::imageListIcon(QIdentityProxyModel::data(index, FolderScanner::ImageIndexRole).toInt());
        return QIdentityProxyModel::data(index, role);
    }
};

QString platformFolderDialog(QWidget *parent, const QString &title, const QString &start)
{
    return QFileDialog::getExistingDirectory(parent, title, start, QFileDialog::ShowDirsOnly);
}

} // namespace

BrowserWindow::BrowserWindow(QWidget *parent)
    : ChildWindow(parent)
    , m_scanner(new FolderScanner(this))
    , m_menuBar(new QMenuBar(this))
    , m_combo(new QComboBox(this))
    , m_tree(new QTreeView(this))
    , m_chooser(platformFolderDialog)
{
    setObjectName(QStringLiteral("Files"));
    setWindowTitle(QStringLiteral("Files"));
    setWindowIcon(tw::imageListIcon(1));

    QAction *change = m_menuBar->addAction(QStringLiteral("Change Folder"));
    change->setObjectName(QStringLiteral("MnuFolder"));
    connect(change, &QAction::triggered, this, &BrowserWindow::changeFolder);

    m_combo->setObjectName(QStringLiteral("Combo1"));
    m_combo->setModel(m_scanner->folders());
    connect(m_combo, &QComboBox::currentTextChanged, m_scanner, &FolderScanner::setCurrentFolder);
    // A rebuild resets the list; the shared folder, its first entry, is current.
    connect(m_scanner->folders(), &QAbstractItemModel::modelReset, m_combo, [this] {
        if (m_combo->currentIndex() < 0 && m_combo->count() > 0)
            m_combo->setCurrentIndex(0);
    });

    auto *proxy = new ImageListProxy(this);
    proxy->setSourceModel(m_scanner->tree());
    m_tree->setObjectName(QStringLiteral("PublicShares"));
    m_tree->setModel(proxy);
    m_tree->setHeaderHidden(true);
    m_tree->setUniformRowHeights(true);
    m_tree->setSelectionMode(QAbstractItemView::SingleSelection);
    m_tree->setEditTriggers(QAbstractItemView::NoEditTriggers);
    // The root is the only top-level node; open it as rows arrive.
    connect(proxy, &QAbstractItemModel::rowsInserted, m_tree, [this](const QModelIndex &parent) {
        if (!parent.isValid())
            m_tree->expand(m_tree->model()->index(0, 0));
    });

    resize(tw::twips(6000), tw::twips(7200));
}

QString BrowserWindow::sharedFolder() const
{
    return m_scanner->sharedFolder();
}

void BrowserWindow::setSharedFolder(const QString &path)
{
    if (path == m_scanner->sharedFolder())
        return;
    m_scanner->setSharedFolder(path);
    Q_EMIT sharedFolderChanged(path);
}

void BrowserWindow::Show_folders()
{
    m_scanner->Show_folders();
}

QStringList BrowserWindow::folderList() const
{
    return m_scanner->folders()->stringList();
}

QString BrowserWindow::currentFolder() const
{
    return m_combo->currentText();
}

void BrowserWindow::setFolderChooser(FolderChooser chooser)
{
    m_chooser = chooser ? std::move(chooser) : FolderChooser(platformFolderDialog);
}

void BrowserWindow::changeFolder()
{
    setSharedFolder(m_chooser(this, QStringLiteral("Please choose a folder"), sharedFolder()));
    Show_folders();
}

void BrowserWindow::resizeEvent(QResizeEvent *event)
{
    ChildWindow::resizeEvent(event);
    // A window made too small just gets an empty tree, never a negative size.
    const int menu = m_menuBar->sizeHint().height();
    m_menuBar->setGeometry(0, 0, width(), menu);
    const int comboHeight = m_combo->sizeHint().height();
    m_combo->setGeometry(0, menu, width(), comboHeight);
    const int top = menu + comboHeight;
    m_tree->setGeometry(0, top, width(), qMax(0, height() - top));
}
