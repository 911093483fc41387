#include "access/served_path.h"

#include <QFileInfo>
#include <QStringList>

namespace ServedPath {

QString join(const QString &folder, const QString &name)
{
    return folder + QLatin1Char('/') + name;
}

bool staysInside(const QString &folder, const QString &name)
{
    if (folder.isEmpty() || name.isEmpty() || name.startsWith(QLatin1Char('/')))
        return false;
    const QStringList parts = name.split(QLatin1Char('/'));
    if (parts.contains(QStringLiteral("..")))
        return false;
    const QString root = QFileInfo(folder).canonicalFilePath();
    if (root.isEmpty())
        return false;
    // Links are followed: the file (or, for a new upload, its folder) must
    // resolve to somewhere under the access row's folder.
    const QFileInfo target(join(folder, name));
    QString resolved = target.canonicalFilePath();
    if (resolved.isEmpty()) {
        if (target.isSymLink())
            return false; // a dangling link could be created anywhere
        resolved = QFileInfo(target.absolutePath()).canonicalFilePath();
        if (resolved.isEmpty())
            return false;
        resolved += QLatin1Char('/') + target.fileName();
    }
    const QString prefix = root.endsWith(QLatin1Char('/')) ? root : root + QLatin1Char('/');
    return resolved.startsWith(prefix) && resolved.size() > prefix.size();
}

} // namespace ServedPath
