#pragma once

// Window geometry of the original design is given in twips (1/1440 inch).
// At the usual 96 dpi that is 15 twips per pixel; every place that turns a
// designed size into pixels goes through here.
namespace tw {

constexpr int twipsPerPixel = 15;

constexpr int twips(int value)
{
    return value / twipsPerPixel;
}

} // namespace tw
