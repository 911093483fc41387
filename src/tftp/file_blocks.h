#pragma once

#include <QtGlobal>

// Reads up to `length` bytes at `offset` of an open file, retrying short
// reads; returns what was read (less at the end of the file, 0 on error).
// Both TFTP profiles fill their DATA blocks with it.
qint64 readAt(int fd, char *into, qint64 length, qint64 offset);
