#pragma once

#include <QObject>
#include <QString>

// The program-wide log settings that every console shares: the "Log To File"
// switch and the folder the per-device, per-day files go to. Owned by the app
// and handed to the log receiver and to every console's log page; a change made
// in one console reaches all of them through the changed signals. Both values
// live only as long as the program runs.
//
// Until a folder is chosen, files go to defaultFolder() (the per-user data
// folder's "logs"), so ticking "Log To File" before choosing never writes into
// whatever happens to be the working directory.
class LogOptions : public QObject
{
    Q_OBJECT
public:
    explicit LogOptions(QObject *parent = nullptr);

    bool logToFile() const { return m_logToFile; }
    void setLogToFile(bool on);

    // The chosen folder, or "" while none has been chosen.
    QString folder() const { return m_folder; }
    void setFolder(const QString &folder);
    // The folder files are really written to.
    QString effectiveFolder() const;
    static QString defaultFolder();

    // --log-dir: the folder for this run, with "Log To File" on.
    void useLogDir(const QString &folder);

Q_SIGNALS:
    void logToFileChanged(bool on);
    void folderChanged(const QString &effectiveFolder);

private:
    bool m_logToFile = false;
    QString m_folder;
};
