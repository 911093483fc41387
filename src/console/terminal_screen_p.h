#pragma once

// What terminal_screen.cpp and terminal_screen_text.cpp share about stored
// cells: their attribute bits and colours as libvterm keeps them.

#include "console/terminal_screen.h"

#include <vterm.h>

#include <cstring>

namespace terminal_screen {
enum StoredAttr : quint8 {
    Bold = 1,
    Underline = 2,
    Italic = 4,
    Reverse = 8,
    DefaultBg = 16,
    DefaultFg = 32,
    Protected = 64, // DECSCA: selective erase leaves the cell alone
};

inline quint32 packColour(const VTermColor &colour)
{
    static_assert(sizeof(VTermColor) == sizeof(quint32));
    quint32 packed;
    std::memcpy(&packed, &colour, sizeof packed);
    return packed;
}

inline TerminalRgb rgbOf(const VTermState *state, quint32 packed)
{
    VTermColor colour;
    std::memcpy(&colour, &packed, sizeof colour);
    vterm_state_convert_color_to_rgb(state, &colour);
    return (TerminalRgb(colour.rgb.red) << 16) | (TerminalRgb(colour.rgb.green) << 8) | colour.rgb.blue;
}

inline bool blank(char32_t ch)
{
    return ch == 0 || ch == U' ';
}
} // namespace terminal_screen
