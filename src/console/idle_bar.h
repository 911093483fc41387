#pragma once

#include <QWidget>

class ConsoleSession;

// `Picture1`: the idle bar of a TCP session. It shows how much of the idle
// minute is left before the next keep-alive step, drawn one way in the first
// idle minute (KeepAlive 1) and another in the second (KeepAlive 2), and is
// redrawn full whenever the device sends something.
class IdleBar : public QWidget
{
    Q_OBJECT
public:
    explicit IdleBar(ConsoleSession *session, QWidget *parent = nullptr);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    ConsoleSession *m_session;
    int m_hue = 0;
};
