#include "log_options.h"

#include <QDir>
#include <QStandardPaths>

LogOptions::LogOptions(QObject *parent)
    : QObject(parent)
{ }

void LogOptions::setLogToFile(bool on)
{
    if (m_logToFile == on)
        return;
    m_logToFile = on;
    Q_EMIT logToFileChanged(on);
}

void LogOptions::setFolder(const QString &folder)
{
    if (m_folder == folder)
        return;
    m_folder = folder;
    Q_EMIT folderChanged(effectiveFolder());
}

QString LogOptions::effectiveFolder() const
{
    return m_folder.isEmpty() ? defaultFolder() : m_folder;
}

QString LogOptions::defaultFolder()
{
    // Looked up once: the receiver asks for it with every record.
    static const QString folder = [] {
        QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
        if (base.isEmpty())
            base = QDir::homePath();
        return QDir::cleanPath(base + QStringLiteral("/Tarnwick/logs"));
    }();
    return folder;
}

void LogOptions::useLogDir(const QString &folder)
{
    setFolder(QDir(folder).absolutePath());
    setLogToFile(true);
}
