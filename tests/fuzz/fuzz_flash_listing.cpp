// A device's answer to "dir flash:", one received block per part of the
// input, through the listing reader into the flash backup's list; then every
// row is ticked and the copy commands are built, as "Backup" would.
#include "fuzz_input.h"

#include "recovery/flash_backup.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FlashBackup backup;
    FlashListingReader reader; // the same text, to watch the reader's bounds
    for (const QByteArray &block : splitInput(data, size)) {
        backup.feed(block);
        for (const FlashListingReader::Entry &entry : reader.feed(block)) {
            if (entry.isEmpty() || entry.size() > FlashListingReader::wordsKept
                || !FlashListingReader::isNumericWord(entry.first()))
                std::abort();
        }
        if (reader.pendingLine().size() > FlashListingReader::maxLineLength)
            std::abort();
    }
    backup.selectAll();
    // The summary line is never a file.
    if (backup.rowCount() > 0 && backup.isTicked(backup.rowCount() - 1))
        std::abort();
    backup.copyCommandsForTicked(QStringLiteral("10.0.0.1"));
    return 0;
}
