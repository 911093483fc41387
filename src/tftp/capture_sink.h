#pragma once

#include <QByteArray>
#include <QString>

// Where uploads go while configuration capture is on. The TFTP engine asks
// capturing() for every accepted write request and every DATA block; while it
// is true, the file name and the blocks are handed here instead of being
// written to disk. The capture window implements it.
class CaptureSink
{
public:
    virtual ~CaptureSink() = default;

    // The program-wide capture flag.
    virtual bool capturing() const = 0;
    // An accepted write request: the full path it would have been written to (shown in red).
    virtual void CaptureFileName(const QString &path) = 0;
    // One DATA block's bytes, as 8-bit characters (shown in blue).
    virtual void CaptureData(const QByteArray &data) = 0;
};
