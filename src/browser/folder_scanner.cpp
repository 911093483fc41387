#include "folder_scanner.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QFileInfo>
#include <algorithm>
#include <vector>

namespace {

// Blanks only, as the names are compared and shown; tabs are part of a name.
QString trimBlanks(const QString &text)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && text.at(begin) == QLatin1Char(' '))
        ++begin;
    while (end > begin && text.at(end - 1) == QLatin1Char(' '))
        --end;
    return text.mid(begin, end - begin);
}

QStandardItem *makeNode(const QString &text, const QString &key, int image, const QString &tag)
{
    auto *item = new QStandardItem(text);
    item->setEditable(false);
    item->setData(key, FolderScanner::KeyRole);
    item->setData(image, FolderScanner::ImageIndexRole);
    item->setData(tag, FolderScanner::TagRole);
    return item;
}

struct DirEntry
{
    QString name;
    bool isDir;
    bool isLink;
    QString target; // real path of a linked folder
};

} // namespace

FolderScanner::FolderScanner(QObject *parent)
    : QObject(parent)
{ }

QString FolderScanner::fileKind(const QString &name)
{
    // Four characters only: ".config" can never match, and "jpeg" has no dot.
    const QString ending = name.right(4).toLower();
    auto is = [&ending](std::initializer_list<const char *> endings) {
        return std::any_of(
            endings.begin(), endings.end(), [&ending](const char *e) { return ending == QLatin1String(e); });
    };
    if (is({ ".bin" }))
        return QStringLiteral("IOS");
    if (is({ ".config", ".txt", ".ini" }))
        return QStringLiteral("Config");
    if (is({ ".txt", ".doc", ".pdf" }))
        return QStringLiteral("text");
    if (is({ ".exe", ".zip", ".rar", ".iso", ".imz" }))
        return QStringLiteral("application");
    if (is({ ".wav", ".wma", ".ogg" }))
        return QStringLiteral("audio");
    if (is({ "jpeg", ".tif", ".jpg" }))
        return QStringLiteral("image");
    return QString();
}

int FolderScanner::imageIndex(const QString &kind)
{
    if (kind.isEmpty())
        return 5;
    if (kind == QLatin1String("IOS") || kind == QLatin1String("application"))
        return 3;
    if (kind == QLatin1String("Config"))
        return 4;
    if (kind == QLatin1String("mp3")) // no ending yields it; the picture stays unused
        return 6;
    if (kind == QLatin1String("image"))
        return 7;
    return 9;
}

void FolderScanner::Show_folders()
{
    const quint64 generation = ++m_generation;
    m_scanning = true;
    m_dirs.clear();
    m_dirsCanonical.clear();
    m_files.clear();
    m_seen.clear();
    m_tree.clear();
    m_folders.setStringList({});
    m_currentFolder.clear();

    if (!m_sharedFolder.isEmpty()) {
        m_folders.setStringList({ m_sharedFolder });
        m_currentFolder = m_sharedFolder;
        const QString canonical = QFileInfo(trimBlanks(m_sharedFolder)).canonicalFilePath();
        m_dirs.append(m_sharedFolder);
        m_dirsCanonical.append(canonical);
        m_seen.insert(canonical);

        QString anchor = QLatin1String(anchorSentinel);
        QStandardItem *anchorNode = nullptr;
        m_sinceYield.start();
        while (!m_dirs.isEmpty()) {
            const QString current = m_dirs.first();
            QStandardItem *node = makeNode(current, current, folderImage, QStringLiteral("Parent"));
            if (anchorNode && current.contains(anchor, Qt::CaseInsensitive)) {
                anchorNode->appendRow(node);
            } else {
                m_tree.appendRow(node);
                anchorNode = node;
                anchor = current;
            }
            // A copy: the scan appends to the queue, which may move its storage.
            const QString canonical = m_dirsCanonical.first();
            if (!scanFolder(current, canonical, node, generation))
                return; // a newer run has taken over
            m_dirs.removeFirst();
            m_dirsCanonical.removeFirst();
        }
    }
    m_scanning = false;
    Q_EMIT foldersShown();
}

bool FolderScanner::scanFolder(
    const QString &folder, const QString &canonical, QStandardItem *node, quint64 generation)
{
    QString path = trimBlanks(folder);
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');

    // Read the whole listing first and sort it, so the lists come out in the
    // same order on every run whatever order the file system keeps.
    std::vector<DirEntry> entries;
    QDirIterator it(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const bool link = info.isSymLink();
        if (info.isDir())
            entries.push_back({ info.fileName(), true, link, link ? info.canonicalFilePath() : QString() });
        else if (info.isFile()) // dangling links, sockets and pipes have nothing to serve
            entries.push_back({ info.fileName(), false, false, QString() });
    }
    std::sort(entries.begin(), entries.end(), [](const DirEntry &a, const DirEntry &b) {
        const int c = a.name.compare(b.name, Qt::CaseInsensitive);
        return c != 0 ? c < 0 : a.name < b.name;
    });

    // File nodes are handed to the model once per folder: one insertion for
    // the view to handle instead of one per file.
    QList<QStandardItem *> fileNodes;
    fileNodes.reserve(qsizetype(entries.size()));
    bool first = true;
    for (const DirEntry &entry : entries) {
        if (!first) {
            betweenEntries();
            if (generation != m_generation) {
                qDeleteAll(fileNodes);
                return false;
            }
        }
        first = false;
        if (entry.isDir) {
            if (entry.name.startsWith(QLatin1Char('.')))
                continue;
            const QString real = entry.isLink
                ? entry.target
                : canonical + (canonical.endsWith(QLatin1Char('/')) ? "" : "/") + entry.name;
            if (m_seen.contains(real))
                continue; // a link back into the tree would never end
            m_seen.insert(real);
            const QString sub = path + entry.name + QLatin1Char('/');
            m_dirs.append(sub);
            m_dirsCanonical.append(real);
            const int row = m_folders.rowCount();
            m_folders.insertRows(row, 1);
            m_folders.setData(m_folders.index(row), sub);
        } else {
            const QString full = path + entry.name;
            m_files.append(full);
            QString name = entry.name;
            const qsizetype nul = name.indexOf(QChar(0));
            if (nul >= 0)
                name.truncate(nul);
            name = trimBlanks(name);
            fileNodes.append(makeNode(name, full, imageIndex(fileKind(name)), full));
        }
    }
    node->appendRows(fileNodes);
    return true;
}

void FolderScanner::betweenEntries()
{
    if (m_eventHook) {
        m_eventHook();
        return;
    }
    if (m_sinceYield.elapsed() >= m_yieldInterval) {
        QCoreApplication::processEvents();
        m_sinceYield.start();
    }
}
