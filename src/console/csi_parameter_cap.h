#pragma once

#include <QByteArray>

#include <cstring>

// The index of the next ESC in data from `from` on, or -1: the step with
// which every scan of device bytes for libvterm skips plain text.
inline qsizetype nextEscape(const char *data, qsizetype from, qsizetype size)
{
    const void *esc = std::memchr(data + from, 0x1b, size_t(size - from));
    return esc ? static_cast<const char *>(esc) - data : -1;
}

// libvterm 0.1.4 writes past its array of CSI parameters when a sequence has
// more than 16 of them, which any device can send (ESC [ followed by twenty
// ";" crashes it). Everything that hands device bytes to libvterm passes them
// through cap() first: separators beyond the 16th and the parameters after
// them are dropped (xterm ignores parameters past its own limit too). Only
// ESC [ (intermediates between the two allowed) and its parameter bytes are
// looked at; like libvterm, the scan goes on through controls, DEL and bytes
// above 0x7f until a final byte, and across blocks.
class CsiParameterCap
{
public:
    // False when data can go to libvterm as it is; otherwise true, with the
    // bytes to send instead appended to *capped.
    bool cap(const char *data, qsizetype size, QByteArray *capped);

private:
    enum class Scan : quint8 { Ground, Escape, Parameters };
    Scan m_scan = Scan::Ground;
    int m_separators = 0;
};
