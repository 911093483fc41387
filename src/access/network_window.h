#pragma once

#include "util/child_window.h"

#include <functional>

class AccessList;
class QMenuBar;
class QTreeView;

// The "Network" window: the access list as a report list (ListView1) with the
// columns "Network", "Subnet Mask", "Read", "Write", "Folder" (the prefix is
// kept as the row's tag and not shown), and the menu entries "Add Network"
// (MnuAddNetwork) and "Remove Network" (MnuRemoveNetwork).
//
// "Add Network" runs the networkadd dialog modally and saves the list when it
// closes; this is the only place the file is written. "Remove Network" takes
// out the first selected row and does not save, so until the next entry is
// added the file still holds the removed row and a restart brings it back.
class NetworkWindow : public ChildWindow
{
    Q_OBJECT
public:
    // The folder browser's folder list and current folder at the moment the
    // dialog opens; the application supplies them.
    struct FolderChoice
    {
        QStringList folders;
        QString current;
    };
    using FolderSource = std::function<FolderChoice()>;

    explicit NetworkWindow(AccessList *list, QWidget *parent = nullptr);

    void setFolderSource(FolderSource source) { m_folderSource = std::move(source); }
    QTreeView *list() const { return m_view; }

public Q_SLOTS:
    void addNetwork();
    void removeNetwork();

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    AccessList *m_list;
    QMenuBar *m_menuBar;
    QTreeView *m_view;
    FolderSource m_folderSource;
};
