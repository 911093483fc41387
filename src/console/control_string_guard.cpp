#include "control_string_guard.h"
#include "csi_parameter_cap.h"

#include <cstring>

bool ControlStringGuard::cap(const char *data, qsizetype size, QByteArray *capped)
{
    bool changed = false;
    qsizetype copied = 0; // data before this is in *capped already (once changed)
    qsizetype escapeAt = -1; // the string's ESC, when it is in this block
    const auto copyUpTo = [&](qsizetype end) {
        if (!changed) {
            capped->reserve(size + 1);
            changed = true;
        }
        capped->append(data + copied, end - copied);
        copied = end;
    };
    for (qsizetype i = 0; i < size; ++i) {
        const auto c = uchar(data[i]);
        if (m_scan == Scan::Ground) {
            i = nextEscape(data, i, size);
            if (i < 0)
                break;
            m_scan = Scan::Escape;
            continue;
        }
        if (m_scan == Scan::EscapeInString) {
            if ((c < 0x20 && c != 0x1b && c != 0x18 && c != 0x1a) || c == 0x7f) {
                copyUpTo(i); // dropped: the ESC stays next to the byte that decides
                copied = i + 1;
                continue;
            }
            if (m_escapeHeld) {
                copyUpTo(i);
                capped->append('\x1b');
                m_escapeHeld = false;
            }
            if (c == '\\') {
                m_scan = Scan::Ground; // ST: the string is complete
                continue;
            }
            m_scan = Scan::Escape; // the string is given up; c goes on as after any ESC
        }
        if (c == 0x18 || c == 0x1a) { // CAN and SUB end a sequence or string
            m_scan = Scan::Ground;
            continue;
        }
        if (c == 0x1b) {
            if (m_scan == Scan::String) {
                m_scan = Scan::EscapeInString;
                escapeAt = i;
            } else {
                m_scan = Scan::Escape;
            }
            continue;
        }
        if (c == 0x07 && m_scan == Scan::String) { // BEL ends a string as ST does
            m_scan = Scan::Ground;
            continue;
        }
        if (c < 0x20 || c == 0x7f)
            continue; // controls are carried out, NUL and DEL ignored: the sequence goes on
        if (m_scan == Scan::Escape) {
            if (c == 'P' || c == ']') // DCS, OSC (after intermediates too, as libvterm takes them)
                m_scan = Scan::String;
            else if (c >= 0x30 && c < 0x7f)
                m_scan = Scan::Ground; // the final byte, or "[": a CSI ends without a string, or at an ESC
            // intermediates and bytes from 0x80 leave the escape waiting
        }
    }
    if (m_scan == Scan::EscapeInString && !m_escapeHeld) {
        // The string's ESC ends the block (or only dropped controls follow
        // it): it waits for the byte that decides what it is.
        if (copied <= escapeAt)
            copyUpTo(escapeAt);
        else
            capped->chop(1); // it went out before the controls that were dropped
        copied = size;
        m_escapeHeld = true;
    }
    if (changed)
        capped->append(data + copied, size - copied);
    return changed;
}
