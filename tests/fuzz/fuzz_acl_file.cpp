// ACLIST.ini as a user might have edited it, read by the access list and then
// asked about requests: the first part of the input is the file, each further
// part one requesting address (without any, a few fixed addresses and every
// row's own network are asked about).
#include "fuzz_input.h"

#include "access/access_list.h"
#include "access/check_access.h"

#include <QFile>
#include <QTemporaryDir>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QTemporaryDir folder;
    static const QString path = folder.filePath(QStringLiteral("ACLIST.ini"));
    const QList<QByteArray> parts = splitInput(data, size, 16);
    {
        // A new file each time: truncating one that holds data makes the file
        // system flush it to disk on close, a hundred times slower.
        QFile::remove(path);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            std::abort();
        file.write(parts.first());
    }

    AccessList list;
    list.setFilePath(path);
    list.load_ACL();

    QStringList addresses;
    for (qsizetype i = 1; i < parts.size(); ++i)
        addresses << QString::fromLatin1(parts[i]);
    if (addresses.isEmpty()) {
        addresses << QStringLiteral("10.1.1.1") << QStringLiteral("255.255.255.255");
        for (int row = 1; row <= list.count() && row <= 2; ++row)
            addresses << list.entry(row).network;
    }

    int recorded = 0;
    const TransferRecorder record
        = [&](const QString &, const QString &, const QString &, const QString &) { ++recorded; };
    for (const QString &address : std::as_const(addresses)) {
        for (int kind : { AccessDecision::Read, AccessDecision::Write }) {
            const AccessRequest request { address, QStringLiteral("192.168.1.10"), kind,
                QStringLiteral("c2600.bin") };
            const int before = recorded;
            const int result = CheckAccess(list, request, record);
            // The decision answers with a row of the list, a refusal or a failure.
            if (result != AccessDecision::Failed && result != AccessDecision::Refused
                && (result < 1 || result > list.count()))
                std::abort();
            // A failed decision records nothing; any other records exactly one row.
            if (recorded - before != (result == AccessDecision::Failed ? 0 : 1))
                std::abort();
        }
    }

    // Every row as the editor writes it back (less the file, whose save is
    // synced to disk and would slow the target a hundredfold) reads again.
    for (int row = 1; row <= list.count(); ++row)
        AccessList::entryFromLine(AccessList::lineFor(list.entry(row)));
    return 0;
}
