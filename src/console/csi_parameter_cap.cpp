#include "csi_parameter_cap.h"

#include <cstring>

bool CsiParameterCap::cap(const char *data, qsizetype size, QByteArray *capped)
{
    constexpr int maxSeparators = 15;
    bool changed = false;
    qsizetype copied = 0; // data before this is in *capped already (once changed)
    for (qsizetype i = 0; i < size; ++i) {
        const auto c = uchar(data[i]);
        if (m_scan == Scan::Ground) {
            i = nextEscape(data, i, size);
            if (i < 0)
                break;
            m_scan = Scan::Escape;
            continue;
        }
        if (c == 0x1b) {
            m_scan = Scan::Escape;
            continue;
        }
        if (c == 0x18 || c == 0x1a) { // CAN and SUB end a sequence
            m_scan = Scan::Ground;
            continue;
        }
        if (c < 0x20 || c >= 0x7f)
            continue; // controls are carried out, DEL and high bytes ignored: the sequence goes on
        if (m_scan == Scan::Escape) {
            if (c < 0x30)
                continue; // an intermediate: libvterm still takes a "[" after it for CSI
            m_scan = c == '[' ? Scan::Parameters : Scan::Ground;
            m_separators = 0;
            continue;
        }
        if (c >= 0x40) {
            m_scan = Scan::Ground; // the final byte (0x40 to 0x7e)
            continue;
        }
        if (c < 0x30)
            continue; // an intermediate: still counted as one sequence, to be safe
        if (c == ';' || c == ':')
            ++m_separators;
        if (m_separators > maxSeparators) {
            if (!changed) {
                capped->reserve(size);
                changed = true;
            }
            capped->append(data + copied, i - copied);
            copied = i + 1;
        }
    }
    if (changed)
        capped->append(data + copied, size - copied);
    return changed;
}
