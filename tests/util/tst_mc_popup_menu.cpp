#include "util/mc_popup_menu.h"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QPushButton>
#include <QTest>
#include <QTimer>

class TestMcPopupMenu : public QObject
{
    Q_OBJECT
    // Once the real menu is open, moves down `downs` items and presses Return,
    // as a user would; a negative count presses Escape.
    static void pressWhenOpen(int downs)
    {
        QTimer::singleShot(50, [downs] {
            QWidget *menu = QApplication::activePopupWidget();
            for (int i = 0; menu && i < downs; ++i)
                QTest::keyClick(menu, Qt::Key_Down);
            if (menu)
                QTest::keyClick(menu, downs < 0 ? Qt::Key_Escape : Qt::Key_Return);
        });
    }

private Q_SLOTS:
    void realMenuReturnsTheCallersIdentifier()
    {
        mcPopupMenu menu;
        menu.Add(7, "Copy");
        menu.Add(9, "Paste");
        QCOMPARE(menu.Show(), -1); // no window of the program to own it
        QPushButton owner("owner");
        owner.show();
        QVERIFY(QTest::qWaitForWindowExposed(&owner));
        pressWhenOpen(2);
        QCOMPARE(menu.Show(&owner, 10, 10), 9);
        pressWhenOpen(-1);
        QCOMPARE(menu.Show(&owner, 10, 10), 0);
        pressWhenOpen(1); // with no owner given, the program's own window is found
        QCOMPARE(menu.Show(nullptr, -1, -1), 7);
    }

    void itemsSubmenusRemoveAndPlacement()
    {
        QWidget owner;
        auto *anchor = new QPushButton("anchor", &owner);
        anchor->setGeometry(20, 30, 80, 25);
        owner.show();
        QVERIFY(QTest::qWaitForWindowExposed(&owner));
        mcPopupMenu sub, menu;
        sub.setCaption("More");
        sub.Add(30, "IP>Hostname");
        menu.Add(1, "Copy", true);
        menu.Add(1, "Copy all");
        menu.Add(2, "-");
        menu.Add(4, "Grey", false, true, mcPopupMenu::Greyed);
        menu.Add(6, QVariant(42)); // neither text nor menu: ignored
        menu.Add(99, QVariant::fromValue(&sub));
        QList<QAction *> actions = menu.Hwnd()->actions();
        QCOMPARE(actions.size(), 5);
        QCOMPARE(menu.Hwnd()->defaultAction(), actions[0]);
        QVERIFY(actions[2]->isSeparator() && actions[3]->isChecked() && !actions[3]->isEnabled());
        QCOMPARE(actions[4]->text(), QStringLiteral("More"));

        QAction *pick = nullptr;
        QPoint at;
        mcPopupMenu::setExecHook([&](QMenu *, const QPoint &pos) { return at = pos, pick; });
        const QList<QPair<QAction *, int>> picks { { sub.Hwnd()->actions()[0], 30 }, { actions[0], 1 },
            { actions[1], 1 } };
        for (const auto &[action, id] : picks) {
            pick = action;
            QCOMPARE(menu.Show(&owner), id);
        }
        pick = nullptr;
        QCOMPARE(menu.Show(&owner, 5, 5, anchor), 0); // under the widget; x and y ignored
        QCOMPARE(at, anchor->mapToGlobal(QPoint(0, anchor->height())));
        QCursor::setPos(QPoint(50, 60));
        menu.Show(&owner, 123, -1);
        QCOMPARE(at, QPoint(123, QCursor::pos().y()));
        menu.Show(&owner, -1, -1);
        QCOMPARE(at, QCursor::pos());

        menu.Remove(1); // by position, not by identifier
        menu.Remove(9); // past the end: nothing
        actions = menu.Hwnd()->actions();
        QVERIFY(actions.size() == 4 && actions[0]->text() == "Copy" && actions[1]->isSeparator());
        for (int i = 0; i < 4; ++i)
            menu.Remove(0);
        QVERIFY(menu.Hwnd()->actions().isEmpty());
    }

    void cleanup() { mcPopupMenu::setExecHook({}); }
};

QTEST_MAIN(TestMcPopupMenu)
#include "tst_mc_popup_menu.moc"
