#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

// The shared folder both TFTP targets serve: one temporary folder for the
// whole run, its files written afresh before each input (uploads may have
// replaced them): a file of three blocks, one of exactly two, and a text file
// for netascii.
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
    const std::pair<const char *, QByteArray> files[] = { { "/f.bin", QByteArray(1500, 'f') },
        { "/e.bin", QByteArray(1024, 'e') }, { "/t.txt", QByteArray("line\nline\r\nend\r") } };
    for (const auto &[name, content] : files) {
        QFile file(share + QLatin1String(name));
        if (file.open(QIODevice::WriteOnly))
            file.write(content);
    }
}
