#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QStandardItemModel>
#include <QStringList>
#include <QStringListModel>
#include <functional>
#include <vector>

// The folder browser's engine: it owns what the "Files" window shows and what
// the Add Network dialog copies, and rebuilds all of it from the shared folder
// in Show_folders().
//
//  - tree(): the PublicShares tree. The shared folder is the only top-level
//    node; every folder found below it, at any depth, is a node directly under
//    it (deliberately flat), and each folder node holds its own files. Every
//    item carries:
//      Qt::DisplayRole  the text shown (a folder's full path, a file's name);
//      KeyRole          the node key (the full path of the folder or file);
//      ImageIndexRole   the index into the program's image list (1 = folder);
//      TagRole          "Parent" for folders, the full path for files.
//    Icons are left to the window, so the engine needs no artwork.
//  - folders() / currentFolder(): Combo1, the shared folder first, then every
//    folder found in scan order as a path ending in "/"; the current text is
//    the shared folder after a rebuild.
//  - pendingFolders(): lstdirs, the breadth-first work queue (empty after a
//    scan); files(): lstfiles, the full paths of the files found.
//
// The scan runs on the caller's thread. Between two directory entries (and
// between two folders of the old tree as it is dropped) it calls the event
// hook, which by default lets Qt process pending events when
// yieldInterval() milliseconds have passed since it last did, so a window stays
// responsive during a long scan without paying for an event round per entry.
// A Show_folders() started from inside that hook (the user chose another
// folder meanwhile) abandons the scan in progress.
//
// Unreadable folders contribute nothing and stop nothing; no error is reported.
// Folders whose names begin with "." are skipped with everything below them.
// Every folder reachable by name is listed, a folder and each symbolic link to
// it alike (so the same content may appear under several names); the one
// guard is against loops: a link leading to the folder being scanned, to one
// it was reached through, or to an ancestor of any of these is not followed.
class FolderScanner : public QObject
{
    Q_OBJECT
public:
    enum Role { KeyRole = Qt::UserRole + 1, ImageIndexRole, TagRole };

    // Never matches a path: the first folder always becomes a top-level node.
    static constexpr const char *anchorSentinel = "_?.98";
    static constexpr int folderImage = 1;

    explicit FolderScanner(QObject *parent = nullptr);

    QString sharedFolder() const { return m_sharedFolder; }
    // Only records the folder; call Show_folders() to rebuild.
    void setSharedFolder(const QString &path) { m_sharedFolder = path; }

    void Show_folders();

    QStandardItemModel *tree() { return &m_tree; }
    QStringListModel *folders() { return &m_folders; }
    QString currentFolder() const { return m_currentFolder; }
    void setCurrentFolder(const QString &text) { m_currentFolder = text; }
    QStringList pendingFolders() const { return m_dirs; }
    QStringList files() const { return m_files; }
    bool isScanning() const { return m_scanning; }

    // The hook run between two directory entries; an empty hook restores the
    // default (processEvents() once yieldInterval() ms have passed).
    void setEventHook(std::function<void()> hook) { m_eventHook = std::move(hook); }
    int yieldInterval() const { return m_yieldInterval; }
    void setYieldInterval(int ms) { m_yieldInterval = ms; }

    // File kind from the last four characters of the name, lower-cased.
    static QString fileKind(const QString &name);
    // Image index of a kind.
    static int imageIndex(const QString &kind);

Q_SIGNALS:
    // Emitted when a Show_folders() run has rebuilt everything (also for an
    // empty shared folder), not when a run was abandoned.
    void foldersShown();

private:
    bool dropTree(quint64 generation);
    bool scanFolder(const QString &folder, int record, QStandardItem *node, quint64 generation);
    bool leadsBack(const QString &real, int record) const;
    void betweenEntries();

    QString m_sharedFolder;
    QString m_currentFolder;
    QStandardItemModel m_tree;
    QStringListModel m_folders;
    QStringList m_dirs;
    // Every folder queued so far: its real path and the folder it was found in,
    // so the route to each folder can be followed back for the loop guard.
    struct FolderRecord
    {
        QString real;
        int parent; // -1 for the shared folder
    };
    std::vector<FolderRecord> m_records;
    QList<int> m_dirsRecord; // the record of each queued folder, parallel to m_dirs
    QStringList m_files;
    std::function<void()> m_eventHook;
    QElapsedTimer m_sinceYield;
    int m_yieldInterval = 15;
    quint64 m_generation = 0;
    bool m_scanning = false;
};
