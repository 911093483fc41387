#pragma once

// What the classic server's and the standard engine's targets share: the
// folder they serve, the access list, the records their inputs are made of
// and the application both need for their timers and deferred deletes.

#include "access/access_list.h"
#include "access/mask_display.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdint>
#include <iterator>

// The shared folder both TFTP targets serve: one temporary folder for the
// whole run (scripts/fuzz puts TMPDIR in memory where it can).
inline const QTemporaryDir &tftpFuzzFolder()
{
    static QTemporaryDir dir;
    return dir;
}

inline QString tftpFuzzShare()
{
    return tftpFuzzFolder().filePath(QStringLiteral("share"));
}

// Before each input, each file that an input changed (uploads may replace
// them) is written afresh: a file of three blocks, one of exactly two, and a
// text file for netascii. An unchanged file is left alone, so a typical input
// costs three small reads. Anything else an input left in the folder (a new
// upload, something in the empty folder "sub") is removed, so every input
// starts from the same folder.
inline void resetTftpFuzzFiles()
{
    static const std::pair<QString, QByteArray> files[]
        = { { QStringLiteral("f.bin"), QByteArray(1500, 'f') },
              { QStringLiteral("e.bin"), QByteArray(1024, 'e') },
              { QStringLiteral("t.txt"), QByteArray("line\nline\r\nend\r") } };
    const QDir folder(tftpFuzzShare()), sub(folder.filePath(QStringLiteral("sub")));
    const auto all = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
    for (const QString &entry : folder.entryList(all))
        if (entry != QLatin1String("sub")
            && std::none_of(
                std::begin(files), std::end(files), [&](const auto &f) { return entry == f.first; }))
            QFile::remove(folder.filePath(entry)) || QDir(folder.filePath(entry)).removeRecursively();
    if (!sub.exists() || !sub.isEmpty(all)) {
        QDir(sub).removeRecursively();
        QDir().mkpath(sub.path());
    }
    for (const auto &[name, content] : files) {
        QFile file(folder.filePath(name));
        if (file.open(QIODevice::ReadOnly) && file.read(content.size() + 1) == content)
            continue;
        file.close();
        if (file.open(QIODevice::WriteOnly))
            file.write(content);
    }
}

// Everyone may read and write the share but 10.0.0.3, which is refused.
inline QList<AccessEntry> tftpFuzzAccess()
{
    return { { QStringLiteral("0.0.0.0"), maskDisplayForm(0), QStringLiteral("yes"), QStringLiteral("yes"),
                 tftpFuzzShare(), 0 },
        { QStringLiteral("10.0.0.3"), maskDisplayForm(32), QStringLiteral("no"), QStringLiteral("no"),
            tftpFuzzShare(), 32 } };
}

// The input: a first byte of flags (bit 0 capture on, bit 1 --confine), then
// records of [control][length][length bytes].
//   control bits 0-1: the sender (three addresses, two ports each);
//   control bits 2-4: where it goes: 0 the listening port, 1-6 the n-th open
//                     transfer socket, 7 time moves on (no bytes follow; the
//                     target reads the length its own way).
// Calls tick(length) for time, deliver(target, datagram, sender 0-2, port)
// for the rest.
template <class Tick, class Deliver>
void forEachTftpRecord(const uint8_t *data, size_t size, Tick tick, Deliver deliver)
{
    for (size_t at = 1; at + 2 <= size;) {
        const uint8_t control = data[at], length = data[at + 1];
        at += 2;
        if (((control >> 2) & 7) == 7) {
            tick(length);
            continue;
        }
        const QByteArray datagram(
            reinterpret_cast<const char *>(data + at), int(qMin<size_t>(length, size - at)));
        at += size_t(datagram.size());
        deliver(
            (control >> 2) & 7, datagram, (control & 3) % 3, quint16(1000 + (control & 3) + (control >> 5)));
    }
}

// The servers' timers and deferred deletes need an application, made once.
inline void tftpFuzzApplication(const char *target)
{
    static int argc = 1;
    static char *argv[] = { const_cast<char *>(target), nullptr };
    static QCoreApplication app(argc, argv);
}

// Ends one input: deferred deletes first (outside an event loop only a call
// for them delivers them), then every other posted event. A call filtered by
// type never trims Qt's list of posted events, so without the second call the
// list kept every event ever posted, and each filtered call walked all of it:
// the targets slowed down input after input.
inline void endTftpFuzzInput()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();
}
