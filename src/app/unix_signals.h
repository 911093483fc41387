#pragma once

#include <QObject>

// Turns SIGINT and SIGTERM into a Qt signal delivered on the event loop, so
// headless runs stop cleanly (main window unload steps, sockets closed).
class UnixSignalWatcher : public QObject
{
    Q_OBJECT
public:
    explicit UnixSignalWatcher(QObject *parent = nullptr);

Q_SIGNALS:
    void terminationRequested();
};
