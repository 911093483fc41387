#pragma once

#include <QString>
#include <QStringList>

// The program's command line. Every option has a meaning for the running
// program; the port options exist so that it can run without the privilege to
// bind ports below 1024, and so that tests bind ephemeral ports.
struct CommandLineOptions
{
    bool headless = false;
    quint16 tftpPort = 69;
    quint16 logPort = 514;
    quint16 telnetPort = 23;
    quint16 snmpPort = 161;
    QString folder; // --folder: the shared folder for this run
    bool folderGiven = false;
    QString aclFile; // --acl: where ACLIST.ini lives
    QString connectHost; // --connect: HOST, HOST:PORT or ssh://[USER@]HOST[:PORT] for the first console
    QString logDir; // --log-dir: log folder, with "Log To File" on
    bool confine = false;
    bool tftpStandard = false; // --tftp-standard: the standard TFTP profile for this run
    int tftpMaxTransfers = 0; // --tftp-max-transfers: 0 when not given (the setting decides)
    quint16 httpPort = 0;      // --http-port: serve HTTP on this port for this run (0: as the setting says)
    QString httpsCert, httpsKey; // --https-cert, --https-key: PEM files; both given: HTTPS
};

struct CommandLineResult
{
    enum Action { Run, ExitOk, ExitError };
    Action action = Run;
    QString output; // help/version text for ExitOk, the message for ExitError
};

// Parses arguments (arguments[0] is the program). Never exits by itself: the
// caller prints `output` and leaves with status 0 (help, version) or 2 (error).
CommandLineResult parseCommandLine(const QStringList &arguments, CommandLineOptions &options);
