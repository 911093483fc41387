#include "flash_backup_panel.h"

#include <QGridLayout>
#include <QHeaderView>
#include <QPushButton>
#include <QTreeView>
#include <QVBoxLayout>

FlashBackupPanel::FlashBackupPanel(QWidget *parent)
    : QWidget(parent)
    , m_backup(this)
{
    setObjectName(QStringLiteral("FlashBackupPanel"));
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);

    m_list = new QTreeView(this);
    m_list->setObjectName(QStringLiteral("ListView1"));
    m_list->setModel(m_backup.model());
    m_list->setRootIsDecorated(false);
    m_list->setUniformRowHeights(true);
    m_list->setAlternatingRowColors(true);
    m_list->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_list->header()->setStretchLastSection(true);
    m_list->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    // The panel is narrow: show the file name beside the entry number rather
    // than past the scroll edge. Only the view's order changes, not the model's.
    m_list->header()->moveSection(FlashBackup::NameColumn, FlashBackup::NumberColumn + 1);
    layout->addWidget(m_list, 1);

    m_buttons = new QGridLayout;
    layout->addLayout(m_buttons);
    connect(addButton(QStringLiteral("Command3"), tr("select all")), &QPushButton::clicked, &m_backup,
        &FlashBackup::selectAll);
    connect(addButton(QStringLiteral("Command4"), tr("Show More")), &QPushButton::clicked, this,
        &FlashBackupPanel::moreClicked);
    connect(addButton(QStringLiteral("Command5"), tr("Copy")), &QPushButton::clicked, this,
        &FlashBackupPanel::copyClicked);
    connect(addButton(QStringLiteral("CloseBackUpFlash"), tr("Close")), &QPushButton::clicked, this,
        &FlashBackupPanel::closeClicked);
}

QPushButton *FlashBackupPanel::addButton(const QString &name, const QString &caption)
{
    auto *button = new QPushButton(caption, this);
    button->setObjectName(name);
    const int index = m_buttons->count();
    m_buttons->addWidget(button, index / 2, index % 2);
    return button;
}
