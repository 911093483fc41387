#pragma once

#include "util/child_window.h"

#include <QPointer>
#include <QString>
#include <array>

// The program-wide table of child windows, reached by index from every window
// that needs another one. Entries 0 to 4 are fixed at start-up: Files,
// Network, Transfer, the first Console and Config; consoles added later take
// the index equal to the new count (not the first free entry), so an entry may
// be overwritten while its old console is still open. That placement is how
// the program has always behaved and is kept.
struct WindowTable
{
    static constexpr int size = 31;
    static constexpr int filesIndex = 0;
    static constexpr int networkIndex = 1;
    static constexpr int transferIndex = 2;
    static constexpr int firstConsoleIndex = 3;
    static constexpr int configIndex = 4;
    // New consoles are refused when the count equals this.
    static constexpr int consoleLimit = 10;

    std::array<QPointer<ChildWindow>, size> instances;
    std::array<QString, size> names;
    qint16 count = 0;
};
