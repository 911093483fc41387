#include "util/mc_popup_menu.h"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QPushButton>
#include <QTest>
#include <QTimer>

namespace {
// Chooses the item with this text while the real menu is open, as a user would
// with the keyboard; an empty text presses Escape.
void chooseWhenOpen(const QString &text)
{
    QTimer::singleShot(50, [text] {
        auto *menu = qobject_cast<QMenu *>(QApplication::activePopupWidget());
        if (!menu)
            return;
        if (text.isEmpty()) {
            QTest::keyClick(menu, Qt::Key_Escape);
            return;
        }
        for (QAction *action : menu->actions()) {
            if (action->text() == text) {
                menu->setActiveAction(action);
                QTest::keyClick(menu, Qt::Key_Return);
                return;
            }
        }
        menu->close();
    });
}

QAction *actionAt(QMenu *menu, const QString &text)
{
    for (QAction *action : menu->actions()) {
        if (action->text() == text)
            return action;
        if (action->menu())
            if (QAction *inner = actionAt(action->menu(), text))
                return inner;
    }
    return nullptr;
}
} // namespace

class TestMcPopupMenu : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void cleanup() { mcPopupMenu::setExecHook({}); }
    void noOwnerWindowGivesMinusOne();
    void realMenuReturnsIdentifierOrZero();
    void itemsAndFlags();
    void submenuChoiceAndSharedIdentifiers();
    void removeByPosition();
    void placement();
};

void TestMcPopupMenu::noOwnerWindowGivesMinusOne()
{
    mcPopupMenu menu;
    menu.Add(1, QStringLiteral("Copy"));
    bool shown = false;
    mcPopupMenu::setExecHook([&](QMenu *, const QPoint &) -> QAction * {
        shown = true;
        return nullptr;
    });
    QCOMPARE(menu.Show(), -1);
    QVERIFY(!shown);
}

void TestMcPopupMenu::realMenuReturnsIdentifierOrZero()
{
    QPushButton owner(QStringLiteral("owner"));
    owner.show();
    QVERIFY(QTest::qWaitForWindowExposed(&owner));
    mcPopupMenu menu;
    menu.Add(7, QStringLiteral("Copy"));
    menu.Add(9, QStringLiteral("Paste"));

    chooseWhenOpen(QStringLiteral("Paste"));
    QCOMPARE(menu.Show(&owner, 10, 10), 9);
    chooseWhenOpen(QString());
    QCOMPARE(menu.Show(&owner, 10, 10), 0);
    // With no owner given, the program's own window is found.
    chooseWhenOpen(QStringLiteral("Copy"));
    QCOMPARE(menu.Show(nullptr, -1, -1), 7);
}

void TestMcPopupMenu::itemsAndFlags()
{
    mcPopupMenu menu;
    menu.Add(1, QStringLiteral("Find"), true);
    menu.Add(2, QStringLiteral("-"));
    menu.Add(4, QStringLiteral("Grey"), false, true, mcPopupMenu::Greyed);
    menu.Add(6, QVariant(42)); // neither text nor menu: ignored
    const QList<QAction *> actions = menu.Hwnd()->actions();
    QCOMPARE(actions.size(), 3);
    QCOMPARE(menu.Hwnd()->defaultAction(), actions[0]);
    QVERIFY(actions[1]->isSeparator());
    QVERIFY(actions[2]->isChecked() && !actions[2]->isEnabled());
}

void TestMcPopupMenu::submenuChoiceAndSharedIdentifiers()
{
    QPushButton owner;
    owner.show();
    mcPopupMenu sub;
    sub.setCaption(QStringLiteral("More"));
    sub.Add(30, QStringLiteral("IP>Hostname"));
    mcPopupMenu menu;
    menu.Add(1, QStringLiteral("Copy"));
    menu.Add(1, QStringLiteral("Copy all"));
    menu.Add(99, QVariant::fromValue(&sub));
    QCOMPARE(menu.Hwnd()->actions().last()->text(), QStringLiteral("More"));

    QString pick;
    mcPopupMenu::setExecHook([&](QMenu *shown, const QPoint &) { return actionAt(shown, pick); });
    pick = QStringLiteral("IP>Hostname");
    QCOMPARE(menu.Show(&owner), 30);
    pick = QStringLiteral("Copy");
    QCOMPARE(menu.Show(&owner), 1);
    pick = QStringLiteral("Copy all");
    QCOMPARE(menu.Show(&owner), 1);
}

void TestMcPopupMenu::removeByPosition()
{
    QPushButton owner;
    owner.show();
    mcPopupMenu menu;
    menu.Add(10, QStringLiteral("a"));
    menu.Add(20, QStringLiteral("b"));
    menu.Add(30, QStringLiteral("c"));
    menu.Remove(1);
    menu.Remove(7); // past the end: nothing
    QCOMPARE(menu.Hwnd()->actions().size(), 2);
    QCOMPARE(menu.Hwnd()->actions().at(1)->text(), QStringLiteral("c"));
    menu.Remove(0);
    menu.Remove(0);

    // Nothing left to choose: the menu can only be dismissed.
    mcPopupMenu::setExecHook([](QMenu *shown, const QPoint &) -> QAction * {
        return shown->actions().isEmpty() ? nullptr : shown->actions().first();
    });
    QCOMPARE(menu.Show(&owner), 0);
}

void TestMcPopupMenu::placement()
{
    QWidget owner;
    owner.resize(200, 100);
    auto *anchor = new QPushButton(QStringLiteral("anchor"), &owner);
    anchor->setGeometry(20, 30, 80, 25);
    owner.show();
    QVERIFY(QTest::qWaitForWindowExposed(&owner));
    mcPopupMenu menu;
    menu.Add(1, QStringLiteral("x"));
    QPoint at;
    mcPopupMenu::setExecHook([&](QMenu *, const QPoint &pos) -> QAction * {
        at = pos;
        return nullptr;
    });

    menu.Show(&owner, 5, 5, anchor);
    QCOMPARE(at, anchor->mapToGlobal(QPoint(0, anchor->height())));
    QCursor::setPos(QPoint(50, 60));
    menu.Show(&owner, 123, -1);
    QCOMPARE(at.x(), 123);
    QCOMPARE(at.y(), QCursor::pos().y());
    menu.Show(&owner, -1, -1);
    QCOMPARE(at, QCursor::pos());
}

QTEST_MAIN(TestMcPopupMenu)
#include "tst_mc_popup_menu.moc"
