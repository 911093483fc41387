#pragma once

#include "recovery/flash_backup.h"

#include <QWidget>

class QGridLayout;
class QPushButton;
class QTreeView;

// The contents of Frame6 "BackUpFlash": the flash list ListView1 (check
// boxes, one row per entry) showing FlashBackup's model, and the buttons
// Command3 "select all", Command4 "Show More", Command5 "Copy" and a "Close"
// button that puts the panel away. "select all" acts on the model directly;
// the others need the connection and only signal: moreClicked(),
// copyClicked(), closeClicked().
class FlashBackupPanel : public QWidget
{
    Q_OBJECT
public:
    explicit FlashBackupPanel(QWidget *parent = nullptr);

    FlashBackup *backup() { return &m_backup; }
    QTreeView *list() const { return m_list; }

Q_SIGNALS:
    void moreClicked();
    void copyClicked();
    void closeClicked();

private:
    QPushButton *addButton(const QString &name, const QString &caption);

    FlashBackup m_backup;
    QTreeView *m_list;
    QGridLayout *m_buttons;
};
