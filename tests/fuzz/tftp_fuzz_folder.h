#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <iterator>

// The shared folder both TFTP targets serve: one temporary folder for the
// whole run (scripts/fuzz puts TMPDIR in memory where it can). Before each
// input, each file that an input changed (uploads may replace them) is
// written afresh: a file of three blocks, one of exactly two, and a text
// file for netascii. An unchanged file is left alone, so a typical input
// costs three small reads. Anything else an input left in the folder (a new
// upload) is removed, so every input starts from the same folder.
inline const QTemporaryDir &tftpFuzzFolder()
{
    static QTemporaryDir dir;
    return dir;
}

inline void resetTftpFuzzFiles()
{
    const QString share = tftpFuzzFolder().filePath(QStringLiteral("share"));
    static const bool made = QDir().mkpath(share + QStringLiteral("/sub"));
    Q_UNUSED(made);
    static const std::pair<const char *, QByteArray> files[] = { { "/f.bin", QByteArray(1500, 'f') },
        { "/e.bin", QByteArray(1024, 'e') }, { "/t.txt", QByteArray("line\nline\r\nend\r") } };
    QDir folder(share);
    const QStringList entries
        = folder.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        if (entry == QLatin1String("sub"))
            continue;
        if (std::none_of(std::begin(files), std::end(files),
                [&](const auto &f) { return entry == QLatin1String(f.first + 1); }))
            QFile::remove(folder.filePath(entry)) || QDir(folder.filePath(entry)).removeRecursively();
    }
    QDir sub(share + QStringLiteral("/sub"));
    if (!sub.isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)) {
        sub.removeRecursively();
        QDir().mkpath(share + QStringLiteral("/sub"));
    }
    for (const auto &[name, content] : files) {
        QFile file(share + QLatin1String(name));
        if (file.open(QIODevice::ReadOnly) && file.read(content.size() + 1) == content)
            continue;
        file.close();
        if (file.open(QIODevice::WriteOnly))
            file.write(content);
    }
}
