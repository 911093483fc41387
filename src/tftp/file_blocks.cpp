#include "tftp/file_blocks.h"

#include <unistd.h>

qint64 readAt(int fd, char *into, qint64 length, qint64 offset)
{
    qint64 got = 0;
    while (got < length) {
        const ssize_t n = ::pread(fd, into + got, size_t(length - got), off_t(offset + got));
        if (n <= 0)
            break;
        got += n;
    }
    return got;
}
