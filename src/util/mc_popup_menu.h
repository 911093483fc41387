#pragma once

#include <QObject>
#include <QPixmap>
#include <QString>
#include <QVariant>

#include <functional>

class QMenu;
class QWidget;

// A context menu built at run time, item by item, that returns the caller's
// identifier of the chosen item instead of running a slot.
//
// Add() appends a text item, a separator ("-") or another mcPopupMenu as a
// submenu (shown under its Caption). Show() blocks until the menu closes and
// returns the chosen identifier, 0 when the menu was dismissed, or -1 when
// there is no window to own the menu. Identifiers need not be unique: choosing
// either of two items with the same identifier returns that identifier.
// Remove() deletes by position, counted from 0, not by identifier.
//
// A submenu must outlive the menus it was added to.
class mcPopupMenu : public QObject
{
    Q_OBJECT
public:
    enum State { Normal = 0, Disabled = 1, Greyed = 2 };

    explicit mcPopupMenu(QObject *parent = nullptr);
    ~mcPopupMenu() override;

    QString Caption() const { return m_caption; }
    void setCaption(const QString &caption);

    void Remove(int position);
    QMenu *Hwnd() const { return m_menu; }

    // item is a QString (a text, or "-" for a separator) or an mcPopupMenu*
    // (a submenu: identifier, flags and bitmaps are then ignored). Anything
    // else is ignored.
    void Add(quint32 id, const QVariant &item, bool isDefault = false, bool checked = false,
        int state = Normal, const QPixmap &bitmapUnchecked = {}, const QPixmap &bitmapChecked = {});

    // owner: the window the menu belongs to; nullptr picks the first visible
    // window of the program (none: -1). placement: nullptr shows the menu at
    // the mouse pointer, with x and y replacing the pointer's coordinates
    // unless they are -1; a widget shows it under that widget's lower-left
    // corner and x and y are ignored.
    qint32 Show(QWidget *owner = nullptr, int x = -1, int y = -1, QWidget *placement = nullptr);

    // Tests replace the interactive part: the hook gets the ready menu and its
    // screen position and returns the action to choose (nullptr: dismissed).
    using ExecHook = std::function<class QAction *(QMenu *menu, const class QPoint &pos)>;
    static void setExecHook(ExecHook hook);

private:
    QString m_caption;
    QMenu *m_menu;
};

Q_DECLARE_METATYPE(mcPopupMenu *)
