#pragma once

#include <QByteArray>

// libvterm 0.1.4 mismeasures the last piece of a control string (OSC, such
// as a window title, or DCS) when its ST (ESC \) is not two bytes in one
// write: when controls (or NUL, DEL) come between the ESC and the "\", or
// when the ESC ends one write and the "\" begins the next. It then takes the
// piece to be (size_t)-1 bytes long and copies up to 64 bytes from there, to
// the next NUL, into the string: bytes past the end of what it was given.
// Any device can send that, and a network block can end anywhere.
//
// Everything that hands device bytes to libvterm passes them through cap()
// (after CsiParameterCap), so libvterm never sees either shape:
//  - controls between a string's ESC and the byte after it are dropped
//    (libvterm would carry them out and still take the "\" as the end of the
//    string; inside a title they do nothing useful);
//  - a string's ESC that ends a block is held back and sent at the front of
//    the next block, so the ESC and its "\" reach libvterm in one write.
// The scan follows libvterm's parser in UTF-8 mode, where bytes from 0x80
// are text and never start a sequence: a string starts only at an ESC
// followed (after any intermediates) by "P" or "]", so outside strings only
// the bytes after an ESC are looked at; a CSI's own bytes are skipped like
// text, since only an ESC leads out of one into anything but text.
class ControlStringGuard
{
public:
    // False when data can go to libvterm as it is; otherwise true, with the
    // bytes to send instead appended to *capped (possibly none).
    bool cap(const char *data, qsizetype size, QByteArray *capped);

private:
    enum class Scan : quint8 { Ground, Escape, String, EscapeInString };
    Scan m_scan = Scan::Ground;
    // In EscapeInString: the string's ESC came in an earlier block and has
    // not been sent yet.
    bool m_escapeHeld = false;
};
