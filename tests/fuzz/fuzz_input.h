#pragma once

#include <QByteArray>
#include <QList>

#include <cstddef>
#include <cstdint>

// Fuzz inputs that stand for several things (datagrams, received blocks, a
// file and some requests) are cut into parts at a marker line, which keeps
// the seed corpus files readable.
inline QList<QByteArray> splitInput(const uint8_t *data, size_t size, int maxParts = 64)
{
    static const QByteArray marker("\n%%\n");
    const QByteArray all = QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    QList<QByteArray> parts;
    qsizetype start = 0;
    while (parts.size() < maxParts - 1) {
        const qsizetype at = all.indexOf(marker, start);
        if (at < 0)
            break;
        parts.append(all.mid(start, at - start));
        start = at + marker.size();
    }
    parts.append(all.mid(start));
    return parts;
}
