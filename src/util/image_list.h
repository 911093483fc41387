#pragma once

#include <QIcon>

// The program's image list: the pictures that windows, trees and toolbar
// buttons refer to by a 1-based index, drawn for Tarnwick and shipped as Qt
// resources in 16 and 32 pixels.
//
//   1 folder (also every child window's icon)   6 audio
//   2 console / terminal                        7 picture
//   3 IOS image or application                  8 network
//   4 configuration                             9 text or document
//   5 unknown file
//
// An index outside 1..imageListCount() gives a null icon, never a crash.
namespace tw {

constexpr int imageListCount()
{
    return 9;
}

const QIcon &imageListIcon(int index);

// The program icon: a router over a console prompt.
const QIcon &programIcon();

} // namespace tw
