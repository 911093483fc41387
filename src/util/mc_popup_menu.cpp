#include "mc_popup_menu.h"

#include <QAction>
#include <QApplication>
#include <QCursor>
#include <QMenu>
#include <QWidget>

namespace {
mcPopupMenu::ExecHook &execHook()
{
    static mcPopupMenu::ExecHook hook;
    return hook;
}

QWidget *firstProgramWindow()
{
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (widget->isVisible() && !qobject_cast<QMenu *>(widget) && !(widget->windowType() == Qt::Popup))
            return widget;
    }
    return nullptr;
}
} // namespace

mcPopupMenu::mcPopupMenu(QObject *parent)
    : QObject(parent)
    , m_menu(new QMenu)
{
    m_menu->setObjectName(QStringLiteral("mcPopupMenu"));
}

mcPopupMenu::~mcPopupMenu()
{
    delete m_menu;
}

void mcPopupMenu::setExecHook(ExecHook hook)
{
    execHook() = std::move(hook);
}

void mcPopupMenu::setCaption(const QString &caption)
{
    m_caption = caption;
    m_menu->setTitle(caption);
}

void mcPopupMenu::Remove(int position)
{
    const QList<QAction *> actions = m_menu->actions();
    if (position < 0 || position >= actions.size())
        return;
    QAction *action = actions.at(position);
    m_menu->removeAction(action);
    if (action->parent() == m_menu)
        delete action;
}

void mcPopupMenu::Add(quint32 id, const QVariant &item, bool isDefault, bool checked, int state,
    const QPixmap &bitmapUnchecked, const QPixmap &bitmapChecked)
{
    if (item.canConvert<mcPopupMenu *>() && item.metaType() == QMetaType::fromType<mcPopupMenu *>()) {
        mcPopupMenu *sub = item.value<mcPopupMenu *>();
        if (sub && sub != this)
            m_menu->addMenu(sub->Hwnd());
        return;
    }
    if (item.metaType() != QMetaType::fromType<QString>())
        return;

    const QString text = item.toString();
    QAction *action = nullptr;
    if (text == QLatin1String("-")) {
        action = m_menu->addSeparator();
    } else {
        action = m_menu->addAction(text);
        if (checked) {
            action->setCheckable(true);
            action->setChecked(true);
        }
    }
    action->setData(QVariant::fromValue(id));

    if (!bitmapUnchecked.isNull() || !bitmapChecked.isNull()) {
        QIcon icon;
        if (!bitmapUnchecked.isNull())
            icon.addPixmap(bitmapUnchecked, QIcon::Normal, QIcon::Off);
        if (!bitmapChecked.isNull())
            icon.addPixmap(bitmapChecked, QIcon::Normal, QIcon::On);
        action->setIcon(icon);
    }
    if (isDefault) {
        m_menu->setDefaultAction(action);
        QFont bold = action->font();
        bold.setBold(true);
        action->setFont(bold);
    }
    // Qt has one kind of unavailable item; both states show it greyed.
    if (state == Disabled || state == Greyed)
        action->setEnabled(false);
}

qint32 mcPopupMenu::Show(QWidget *owner, int x, int y, QWidget *placement)
{
    if (!owner)
        owner = firstProgramWindow();
    if (!owner)
        return -1;

    QPoint pos;
    if (!placement) {
        pos = QCursor::pos();
        if (x != -1)
            pos.setX(x);
        if (y != -1)
            pos.setY(y);
    } else {
        pos = placement->mapToGlobal(QPoint(0, placement->height()));
    }

    QAction *chosen = nullptr;
    if (execHook()) {
        chosen = execHook()(m_menu, pos);
    } else {
        chosen = m_menu->exec(pos);
    }
    if (!chosen || chosen->isSeparator())
        return 0;
    return qint32(chosen->data().toUInt());
}
