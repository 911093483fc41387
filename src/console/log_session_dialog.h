#pragma once

#include "console/session_log.h"

#include <QDialog>

class QLineEdit;
class QRadioButton;

// "Log Session...": asks where a console's session log goes and what it
// holds (the text as shown, or the raw bytes). The file offered is
// "<host>-<YYYYMMDD-HHMMSS>.log" in the log folder; an existing file is
// appended to, never replaced.
class LogSessionDialog : public QDialog
{
    Q_OBJECT
public:
    LogSessionDialog(const QString &offeredPath, QWidget *parent = nullptr);

    QString path() const;
    SessionLog::Mode mode() const;
    QLineEdit *pathEdit() const { return m_path; }
    QRadioButton *rawButton() const { return m_raw; }

private:
    QLineEdit *m_path;
    QRadioButton *m_text;
    QRadioButton *m_raw;
};
