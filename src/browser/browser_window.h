#pragma once

#include "util/child_window.h"

#include <functional>

class FolderScanner;
class QComboBox;
class QMenuBar;
class QTreeView;

// The "Files" window: the shared folder as the PublicShares tree, the folder
// list Combo1 and the menu entry "Change Folder" (MnuFolder). The scanner
// owns the tree and the lists; this window only shows them, with the image
// list's pictures as icons.
//
// The shared folder is a program-wide value that the application keeps (and
// stores under "FolderPath"): it sets it here with setSharedFolder() and then
// calls Show_folders(), and it hears about a new choice through
// sharedFolderChanged().
class BrowserWindow : public ChildWindow
{
    Q_OBJECT
public:
    // Asks for a folder; returns "" when the user cancels.
    using FolderChooser = std::function<QString(QWidget *parent, const QString &title, const QString &start)>;

    explicit BrowserWindow(QWidget *parent = nullptr);

    QString sharedFolder() const;
    // Records the folder (emitting sharedFolderChanged when it differs); does
    // not rescan.
    void setSharedFolder(const QString &path);
    void Show_folders();

    // What the Add Network dialog copies: Combo1's entries and current text.
    QStringList folderList() const;
    QString currentFolder() const;

    // Replaces the platform folder dialog (tests); an empty chooser restores it.
    void setFolderChooser(FolderChooser chooser);

    FolderScanner *scanner() const { return m_scanner; }
    QTreeView *tree() const { return m_tree; }
    QComboBox *combo() const { return m_combo; }

public Q_SLOTS:
    // "Change Folder": a cancelled dialog empties the shared folder and the tree.
    void changeFolder();

Q_SIGNALS:
    void sharedFolderChanged(const QString &path);

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    FolderScanner *m_scanner;
    QMenuBar *m_menuBar;
    QComboBox *m_combo;
    QTreeView *m_tree;
    FolderChooser m_chooser;
};
