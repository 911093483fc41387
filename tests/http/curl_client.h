#pragma once

// curl (and wget) as the HTTP tests' clients: the answer's status, headers
// and body, from the command line a device or an engineer would use.

#include <QByteArray>
#include <QHash>
#include <QProcess>
#include <QStringList>

struct HttpAnswer
{
    int status = 0; // 0: no answer (curl failed)
    QHash<QByteArray, QByteArray> headers; // names in lower case
    QByteArray body;
    QByteArray header(const char *name) const { return headers.value(QByteArray(name)); }
};

// Runs `program` with `arguments` and returns its exit code (-1 when it
// could not run or took more than two minutes), standard output in `out`.
inline int runTool(const QString &program, const QStringList &arguments, QByteArray *out = nullptr)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForStarted(30000) || !process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished();
        return -1;
    }
    if (out)
        *out = process.readAllStandardOutput();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

// curl -i with extra arguments; the last header block is the answer's (after any "100 Continue").
inline HttpAnswer curl(const QStringList &arguments)
{
    QByteArray out;
    HttpAnswer answer;
    if (runTool(QStringLiteral("curl"), QStringList { "-s", "-i", "--path-as-is" } + arguments, &out) < 0)
        return answer;
    while (out.startsWith("HTTP/")) {
        const qsizetype end = out.indexOf("\r\n\r\n");
        if (end < 0)
            break;
        const QList<QByteArray> lines = out.left(end).split('\n');
        answer.status = lines.first().split(' ').value(1).toInt();
        answer.headers.clear();
        for (const QByteArray &line : lines.mid(1)) {
            const qsizetype colon = line.indexOf(':');
            if (colon > 0)
                answer.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
        }
        out = out.mid(end + 4);
        if (answer.status != 100)
            break;
    }
    answer.body = out;
    return answer;
}
