#include "folder_scanner.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <memory>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

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

// A tree node whose text, key, picture and tag are plain members: one is made
// for every file found, and keeping the four values out of QStandardItem's
// role list (a QVariant allocation each) makes the scan about a third faster.
// Editing is left to the view, which has none.
class ScanNode : public QStandardItem
{
public:
    ScanNode(const QString &text, const QString &key, int image, const QString &tag)
        : m_text(text)
        , m_key(key)
        , m_tag(tag)
        , m_image(image)
    { }

    QVariant data(int role) const override
    {
        switch (role) {
        case Qt::DisplayRole:
        case Qt::EditRole:
            return m_text;
        case FolderScanner::KeyRole:
            return m_key;
        case FolderScanner::ImageIndexRole:
            return m_image;
        case FolderScanner::TagRole:
            return m_tag;
        default:
            return QStandardItem::data(role);
        }
    }

    void multiData(QModelRoleDataSpan roleDataSpan) const override
    {
        for (QModelRoleData &roleData : roleDataSpan)
            roleData.setData(data(roleData.role()));
    }

    QStandardItem *clone() const override { return new ScanNode(m_text, m_key, m_image, m_tag); }

private:
    QString m_text;
    QString m_key;
    QString m_tag;
    int m_image;
};

struct DirEntry
{
    QString name;
    bool isDir;
    bool isLink;
};

// One folder's entries as the directory lists them, without "." and "..".
// The entry type comes from the listing itself where the file system gives
// it, so most entries cost no stat() call; links are followed to see what
// they lead to, and a link that leads nowhere (or to a pipe, socket or
// device) is left out, having nothing to serve.
std::vector<DirEntry> listFolder(const QString &path)
{
    std::vector<DirEntry> entries;
    const QByteArray encoded = QFile::encodeName(path);
    DIR *dir = ::opendir(encoded.constData());
    if (!dir)
        return entries;
    while (const dirent *entry = ::readdir(dir)) {
        const char *name = entry->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0)))
            continue;
        struct stat info;
        unsigned char type = entry->d_type;
        // Some file systems leave the type out of the listing: ask, without
        // following a link, so links are still known as links.
        if (type == DT_UNKNOWN) {
            if (::lstat((encoded + name).constData(), &info) != 0)
                continue;
            type = S_ISLNK(info.st_mode) ? DT_LNK
                : S_ISDIR(info.st_mode)  ? DT_DIR
                : S_ISREG(info.st_mode)  ? DT_REG
                                         : DT_UNKNOWN;
        }
        const bool link = type == DT_LNK;
        if (link) {
            if (::stat((encoded + name).constData(), &info) != 0)
                continue;
            type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_UNKNOWN;
        }
        if (type == DT_DIR || type == DT_REG)
            entries.push_back({ QFile::decodeName(name), type == DT_DIR, link });
    }
    ::closedir(dir);
    return entries;
}

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
    m_dirsRecord.clear();
    m_records.clear();
    m_files.clear();
    m_folders.setStringList({});
    m_currentFolder.clear();
    m_sinceYield.start();
    if (!dropTree(generation))
        return;

    if (!m_sharedFolder.isEmpty()) {
        m_folders.setStringList({ m_sharedFolder });
        m_currentFolder = m_sharedFolder;
        const QString canonical = QFileInfo(trimBlanks(m_sharedFolder)).canonicalFilePath();
        m_dirs.append(m_sharedFolder);
        m_records.push_back({ canonical, -1 });
        m_dirsRecord.append(0);

        QString anchor = QLatin1String(anchorSentinel);
        QStandardItem *anchorNode = nullptr;
        while (!m_dirs.isEmpty()) {
            const QString current = m_dirs.first();
            QStandardItem *node = new ScanNode(current, current, folderImage, QStringLiteral("Parent"));
            if (anchorNode && current.contains(anchor, Qt::CaseInsensitive)) {
                anchorNode->appendRow(node);
            } else {
                m_tree.appendRow(node);
                anchorNode = node;
                anchor = current;
            }
            if (!scanFolder(current, m_dirsRecord.first(), node, generation))
                return; // a newer run has taken over
            m_dirs.removeFirst();
            m_dirsRecord.removeFirst();
        }
    }
    m_scanning = false;
    Q_EMIT foldersShown();
}

bool FolderScanner::dropTree(quint64 generation)
{
    // Deleting some 50,000 nodes in one go would stall the window for tens of
    // milliseconds: take the old tree out of the model in one step and delete
    // it a folder at a time, letting events in between.
    std::vector<std::unique_ptr<QStandardItem>> old;
    while (m_tree.rowCount() > 0)
        old.emplace_back(m_tree.takeRow(0).value(0));
    m_tree.clear();
    for (const auto &top : old) {
        while (top && top->rowCount() > 0) {
            qDeleteAll(top->takeRow(top->rowCount() - 1));
            betweenEntries();
            if (generation != m_generation)
                return false;
        }
    }
    return true;
}

bool FolderScanner::leadsBack(const QString &real, int record) const
{
    if (real.isEmpty())
        return true; // cannot tell where it leads: not followed
    const QString below = real.endsWith(QLatin1Char('/')) ? real : real + QLatin1Char('/');
    for (int r = record; r >= 0; r = m_records[size_t(r)].parent) {
        const QString &onRoute = m_records[size_t(r)].real;
        if (onRoute == real || onRoute.startsWith(below))
            return true;
    }
    return false;
}

bool FolderScanner::scanFolder(const QString &folder, int record, QStandardItem *node, quint64 generation)
{
    // A copy: the records grow during the scan, which may move their storage.
    const QString canonical = m_records[size_t(record)].real;
    QString path = trimBlanks(folder);
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');

    // Read the whole listing first and sort it, so the lists come out in the
    // same order on every run whatever order the file system keeps.
    std::vector<DirEntry> entries = listFolder(path);
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
                ? QFileInfo(path + entry.name).canonicalFilePath()
                : canonical + (canonical.endsWith(QLatin1Char('/')) ? "" : "/") + entry.name;
            if (entry.isLink && leadsBack(real, record))
                continue; // following it would never end
            const QString sub = path + entry.name + QLatin1Char('/');
            m_dirs.append(sub);
            m_dirsRecord.append(int(m_records.size()));
            m_records.push_back({ real, record });
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
            fileNodes.append(new ScanNode(name, full, imageIndex(fileKind(name)), full));
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
