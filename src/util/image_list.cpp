#include "image_list.h"

#include <array>

namespace tw {

namespace {

QIcon loadIcon(const char *name)
{
    QIcon icon;
    for (int size : { 16, 32 })
        icon.addFile(QStringLiteral(":/tarnwick/icons/%1/%2.png").arg(size).arg(QLatin1String(name)),
            QSize(size, size));
    return icon;
}

} // namespace

const QIcon &imageListIcon(int index)
{
    static const std::array<QIcon, imageListCount()> icons = {
        loadIcon("folder"),
        loadIcon("console"),
        loadIcon("application"),
        loadIcon("config"),
        loadIcon("unknown"),
        loadIcon("audio"),
        loadIcon("picture"),
        loadIcon("network"),
        loadIcon("text"),
    };
    static const QIcon none;
    if (index < 1 || index > imageListCount())
        return none;
    return icons[std::size_t(index - 1)];
}

const QIcon &programIcon()
{
    static const QIcon icon = loadIcon("program");
    return icon;
}

} // namespace tw
