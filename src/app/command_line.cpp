#include "command_line.h"

#include <QCommandLineParser>

namespace {
bool readPort(const QCommandLineParser &parser, const QString &name, quint16 &port, QString &error)
{
    if (!parser.isSet(name))
        return true;
    bool ok = false;
    const uint value = parser.value(name).toUInt(&ok);
    if (!ok || value == 0 || value > 65535) {
        error = QStringLiteral("--%1 needs a port number from 1 to 65535, not \"%2\"")
                    .arg(name, parser.value(name));
        return false;
    }
    port = quint16(value);
    return true;
}
} // namespace

CommandLineResult parseCommandLine(const QStringList &arguments, CommandLineOptions &options)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Tarnwick: TFTP server, device consoles, SNMP and syslog monitors for routers and switches."));
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    const QCommandLineOption help(
        { QStringLiteral("h"), QStringLiteral("help") }, QStringLiteral("Show this help and exit."));
    const QCommandLineOption version(QStringLiteral("version"), QStringLiteral("Show the version and exit."));
    parser.addOption(help);
    parser.addOption(version);
    parser.addOptions({
        { QStringLiteral("headless"),
            QStringLiteral(
                "Show no window; run the TFTP server and log receiver and print every transfer-monitor "
                "row change to stdout. Stops on SIGINT/SIGTERM.") },
        { QStringLiteral("tftp-port"), QStringLiteral("UDP port of the TFTP server (default 69)."),
            QStringLiteral("N") },
        { QStringLiteral("log-port"), QStringLiteral("UDP port of the log receiver (default 514)."),
            QStringLiteral("N") },
        { QStringLiteral("telnet-port"), QStringLiteral("TCP port consoles connect to (default 23)."),
            QStringLiteral("N") },
        { QStringLiteral("snmp-port"), QStringLiteral("UDP port of the devices' SNMP agents (default 161)."),
            QStringLiteral("N") },
        { QStringLiteral("folder"), QStringLiteral("Shared TFTP folder for this run."),
            QStringLiteral("PATH") },
        { QStringLiteral("acl"),
            QStringLiteral("Access list file (default: ACLIST.ini in the program's folder)."),
            QStringLiteral("FILE") },
        { QStringLiteral("connect"),
            QStringLiteral("Connect the first console at start-up: HOST or HOST:PORT over TCP "
                           "(Telnet port by default), or ssh://[USER@]HOST[:PORT]."),
            QStringLiteral("HOST") },
        { QStringLiteral("log-dir"),
            QStringLiteral("Folder for device log files; switches \"Log To File\" on."),
            QStringLiteral("DIR") },
        { QStringLiteral("confine"),
            QStringLiteral("Refuse TFTP file names that would leave the access entry's folder.") },
        { QStringLiteral("tftp-standard"),
            QStringLiteral("Answer TFTP with the standard profile for this run (options, block roll-over, "
                           "ERROR replies, retransmission) instead of the classic one.") },
        { QStringLiteral("tftp-max-transfers"),
            QStringLiteral(
                "Transfers the standard TFTP profile runs at once (default: the \"TftpMaxTransfers\" "
                "setting, 1000)."),
            QStringLiteral("N") },
        { QStringLiteral("http-port"),
            QStringLiteral("Serve the access list's folders over HTTP on this TCP port for this run."),
            QStringLiteral("N") },
        { QStringLiteral("https-cert"),
            QStringLiteral("PEM certificate: with --https-key, the HTTP port speaks HTTPS."),
            QStringLiteral("FILE") },
        { QStringLiteral("https-key"), QStringLiteral("PEM private key for --https-cert."),
            QStringLiteral("FILE") },
    });

    CommandLineResult result;
    if (!parser.parse(arguments)) {
        result.action = CommandLineResult::ExitError;
        result.output = parser.errorText() + QStringLiteral("\nTry --help for the list of options.");
        return result;
    }
    if (!parser.positionalArguments().isEmpty()) {
        result.action = CommandLineResult::ExitError;
        result.output = QStringLiteral("Unexpected argument \"%1\".\nTry --help for the list of options.")
                            .arg(parser.positionalArguments().constFirst());
        return result;
    }
    if (parser.isSet(help)) {
        result.action = CommandLineResult::ExitOk;
        result.output
            = parser.helpText().replace(QStringLiteral("<executable_name>"), QStringLiteral("tarnwick"));
        return result;
    }
    if (parser.isSet(version)) {
        result.action = CommandLineResult::ExitOk;
        result.output = QStringLiteral("Tarnwick %1\n").arg(QStringLiteral(TARNWICK_VERSION));
        return result;
    }

    QString error;
    if (!readPort(parser, QStringLiteral("tftp-port"), options.tftpPort, error)
        || !readPort(parser, QStringLiteral("log-port"), options.logPort, error)
        || !readPort(parser, QStringLiteral("telnet-port"), options.telnetPort, error)
        || !readPort(parser, QStringLiteral("snmp-port"), options.snmpPort, error)
        || !readPort(parser, QStringLiteral("http-port"), options.httpPort, error)) {
        result.action = CommandLineResult::ExitError;
        result.output = error;
        return result;
    }
    if (parser.isSet(QStringLiteral("tftp-max-transfers"))) {
        bool ok = false;
        const int value = parser.value(QStringLiteral("tftp-max-transfers")).toInt(&ok);
        if (!ok || value < 1) {
            result.action = CommandLineResult::ExitError;
            result.output = QStringLiteral("--tftp-max-transfers needs a number of at least 1, not \"%1\"")
                                .arg(parser.value(QStringLiteral("tftp-max-transfers")));
            return result;
        }
        options.tftpMaxTransfers = value;
    }
    options.headless = parser.isSet(QStringLiteral("headless"));
    options.folderGiven = parser.isSet(QStringLiteral("folder"));
    options.folder = parser.value(QStringLiteral("folder"));
    options.aclFile = parser.value(QStringLiteral("acl"));
    options.connectHost = parser.value(QStringLiteral("connect"));
    options.logDir = parser.value(QStringLiteral("log-dir"));
    options.confine = parser.isSet(QStringLiteral("confine"));
    options.tftpStandard = parser.isSet(QStringLiteral("tftp-standard"));
    options.httpsCert = parser.value(QStringLiteral("https-cert"));
    options.httpsKey = parser.value(QStringLiteral("https-key"));
    if (options.httpsCert.isEmpty() != options.httpsKey.isEmpty()) {
        result.action = CommandLineResult::ExitError;
        result.output = QStringLiteral("--https-cert and --https-key go together");
    }
    return result;
}
