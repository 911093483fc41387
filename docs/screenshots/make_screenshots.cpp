// Draws the README's pictures: builds the real program in-process, on
// loopback ports and a throw-away shared folder, makes it do real work
// (TFTP transfers with tftp-hpa, a console on a fake TCP device, SNMP from a
// local snmpd, syslog datagrams, a captured configuration) and grabs each
// window into a PNG in the output folder given as the only argument.

#include "access/access_list.h"
#include "access/mask_display.h"
#include "access/networkadd_dialog.h"
#include "app/application.h"
#include "app/main_window.h"
#include "browser/browser_window.h"
#include "capture/config_window.h"
#include "console/console_session.h"
#include "console/console_window.h"
#include "console/terminal_view.h"
#include "tftp/transfer_monitor.h"
#include "tftp/transfer_window.h"
#include "util/image_list.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QMdiSubWindow>
#include <QProcess>
#include <QScrollBar>
#include <QSlider>
#include <QStandardItemModel>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QTreeView>
#include <QUdpSocket>
#include <cstdio>
#include <functional>

namespace {

QString g_outDir;
int g_failures = 0;

void say(const QString &text)
{
    std::fprintf(stderr, "screenshots: %s\n", qPrintable(text));
}

// Runs the event loop until `done` holds or the time is up; no QTest, so the
// program is an ordinary GUI application.
bool waitFor(const std::function<bool()> &done, int maxMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > maxMs)
            return false;
        QApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

void settle(int ms)
{
    waitFor([] { return false; }, ms);
}

void save(QWidget *widget, const QString &name)
{
    settle(200);
    const QString path = g_outDir + QLatin1Char('/') + name;
    if (widget->grab().save(path)) {
        say(QStringLiteral("wrote %1").arg(path));
    } else {
        say(QStringLiteral("could not write %1").arg(path));
        ++g_failures;
    }
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

quint16 freeUdpPort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress::LocalHost, 0);
    return probe.localPort();
}

// A pseudo-random but repeatable image, so the file looks like a binary.
QByteArray imageBytes(int size)
{
    QByteArray bytes(size, '\0');
    quint32 x = 2463534242u;
    for (int i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        bytes[i] = char(x & 0xff);
    }
    return bytes;
}

const char *const runningConfig = "!\r\n"
                                  "version 12.4\r\n"
                                  "service timestamps debug datetime msec\r\n"
                                  "service timestamps log datetime msec\r\n"
                                  "service password-encryption\r\n"
                                  "!\r\n"
                                  "hostname R1\r\n"
                                  "!\r\n"
                                  "boot-start-marker\r\n"
                                  "boot-end-marker\r\n"
                                  "!\r\n"
                                  "logging buffered 16384\r\n"
                                  "enable secret 5 $1$mERr$hx5rVt7rPNoS4wqbXKX7m0\r\n"
                                  "!\r\n"
                                  "ip cef\r\n"
                                  "no ip domain lookup\r\n"
                                  "ip domain name lab.example.net\r\n"
                                  "!\r\n"
                                  "interface FastEthernet0/0\r\n"
                                  " description Uplink to core\r\n"
                                  " ip address 10.1.1.1 255.255.255.0\r\n"
                                  " duplex auto\r\n"
                                  " speed auto\r\n"
                                  "!\r\n"
                                  "interface FastEthernet0/1\r\n"
                                  " description Users VLAN 20\r\n"
                                  " ip address 192.168.20.1 255.255.255.0\r\n"
                                  " duplex auto\r\n"
                                  " speed auto\r\n"
                                  "!\r\n"
                                  "router ospf 1\r\n"
                                  " network 10.1.1.0 0.0.0.255 area 0\r\n"
                                  " network 192.168.20.0 0.0.0.255 area 0\r\n"
                                  "!\r\n"
                                  "ip route 0.0.0.0 0.0.0.0 10.1.1.254\r\n"
                                  "!\r\n"
                                  "logging 10.1.1.50\r\n"
                                  "snmp-server community public RO\r\n"
                                  "snmp-server location Rack 4, Building B\r\n"
                                  "!\r\n"
                                  "line con 0\r\n"
                                  " exec-timeout 0 0\r\n"
                                  "line vty 0 4\r\n"
                                  " login local\r\n"
                                  " transport input telnet ssh\r\n"
                                  "!\r\n"
                                  "end\r\n";

// The shared folder as an engineer's TFTP root tends to look.
void makeSharedFolder(const QString &root)
{
    writeFile(root + "/images/c2600-adventerprisek9-mz.124-24.T5.bin", imageBytes(420 * 1024));
    writeFile(root + "/images/c1841-ipbase-mz.124-3.bin", imageBytes(180 * 1024));
    writeFile(root + "/configs/r1-confg.txt", runningConfig);
    writeFile(root + "/configs/sw1-confg", QByteArray(runningConfig).replace("R1", "SW1"));
    writeFile(root + "/configs/archive/r1-confg-2024-03-01", runningConfig);
    writeFile(root + "/notes.txt", "Lab 4: R1 and SW1 images and configs.\n");
    writeFile(root + "/.git/HEAD", "ref: refs/heads/main\n");
}

QString mask(int prefix)
{
    return maskDisplayForm(prefix);
}

QByteArray aclLine(const QString &net, int prefix, const char *read, const char *write, const QString &folder)
{
    AccessEntry e { net, mask(prefix), QString::fromLatin1(read), QString::fromLatin1(write), folder,
        prefix };
    return AccessList::lineFor(e).toLocal8Bit() + "\r\n";
}

// The device on the far end of the console's TCP session: a router that has
// just been logged into and asked for its version.
class FakeDevice : public QObject
{
public:
    FakeDevice()
    {
        m_server.listen(QHostAddress::LocalHost, 0);
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            QTcpSocket *peer = m_server.nextPendingConnection();
            connect(peer, &QTcpSocket::readyRead, peer, [peer] { peer->readAll(); });
            QTimer::singleShot(150, peer, [peer] { peer->write(banner()); });
            QTimer::singleShot(450, peer, [peer] { peer->write(version()); });
            // The prompt comes on its own, as from a real device after its output.
            QTimer::singleShot(700, peer, [peer] { peer->write("R1#"); });
        });
    }
    quint16 port() const { return m_server.serverPort(); }

private:
    static QByteArray banner()
    {
        return "\r\n"
               "==================================================\r\n"
               "  R1 - Lab 4 edge router. Authorised access only.\r\n"
               "==================================================\r\n"
               "\r\n"
               "User Access Verification\r\n"
               "\r\n"
               "Username: admin\r\n"
               "Password: \r\n"
               "\r\n"
               "R1>enable\r\n"
               "Password: \r\n";
    }
    static QByteArray version()
    {
        return "R1#show version\r\n"
               "Cisco IOS Software, C2600 Software (C2600-ADVENTERPRISEK9-M), Version 12.4(24)T5, "
               "RELEASE SOFTWARE (fc3)\r\n"
               "Technical Support: http://www.cisco.com/techsupport\r\n"
               "Compiled Fri 04-Mar-11 02:13 by prod_rel_team\r\n"
               "\r\n"
               "ROM: System Bootstrap, Version 12.2(8r) [cmong 8r], RELEASE SOFTWARE (fc1)\r\n"
               "\r\n"
               "R1 uptime is 2 weeks, 3 days, 4 hours, 12 minutes\r\n"
               "System returned to ROM by power-on\r\n"
               "System image file is \"flash:c2600-adventerprisek9-mz.124-24.T5.bin\"\r\n"
               "\r\n"
               "cisco 2621XM (MPC860P) processor (revision 3.0) with 125952K/5120K bytes of memory.\r\n"
               "2 FastEthernet interfaces\r\n"
               "32K bytes of NVRAM.\r\n"
               "49152K bytes of processor board System flash (Read/Write)\r\n"
               "\r\n"
               "Configuration register is 0x2102\r\n"
               "\r\n";
    }

    QTcpServer m_server;
};

// Starts net-snmp's agent on a free loopback port; empty when it cannot run.
quint16 startAgent(QProcess &agent, const QString &dir)
{
    const QString snmpd = QStringLiteral("/usr/sbin/snmpd");
    if (!QFileInfo::exists(snmpd)) {
        say("no /usr/sbin/snmpd: the SNMP tab stays empty");
        return 0;
    }
    const QString conf = dir + "/snmpd.conf";
    writeFile(conf,
        "rocommunity public 127.0.0.1\n"
        "sysLocation Rack 4, Building B\n"
        "sysContact noc@example.net\n");
    const quint16 port = freeUdpPort();
    agent.setProcessChannelMode(QProcess::MergedChannels);
    agent.start(
        snmpd, { "-f", "-Lo", "-C", "-u", "root", "-c", conf, QStringLiteral("udp:127.0.0.1:%1").arg(port) });
    if (!agent.waitForStarted(3000)) {
        say("snmpd did not start");
        return 0;
    }
    return port;
}

// One tftp-hpa client run; binary mode, the command given as -c arguments.
void startTftp(QProcess &client, quint16 port, const QStringList &command, const QString &workDir)
{
    client.setWorkingDirectory(workDir);
    client.setProcessChannelMode(QProcess::MergedChannels);
    client.start(QStringLiteral("/usr/bin/tftp"),
        QStringList { "-m", "binary", "127.0.0.1", QString::number(port), "-c" } + command);
}

// The server answers from this same event loop, so a client is waited for
// with the loop running, never with QProcess's blocking wait.
bool finished(QProcess &client)
{
    return waitFor([&client] { return client.state() == QProcess::NotRunning; }, 15000);
}

bool transferListHas(QStandardItemModel *model, const QString &status)
{
    for (int row = 0; row < model->rowCount(); ++row) {
        for (int col = 0; col < model->columnCount(); ++col) {
            if (model->index(row, col).data().toString() == status)
                return true;
        }
    }
    return false;
}

// A hand-made TFTP reader that asks for the big image and acknowledges only
// the first blocks, so the transfer is caught in the middle.
class StalledReader : public QObject
{
public:
    StalledReader(quint16 serverPort, const QByteArray &name, int blocksToAck)
        : m_left(blocksToAck)
    {
        m_socket.bind(QHostAddress::LocalHost, 0);
        connect(&m_socket, &QUdpSocket::readyRead, this, [this] { readDatagrams(); });
        QByteArray rrq("\0\1", 2);
        rrq += name + '\0' + "octet" + '\0';
        m_socket.writeDatagram(rrq, QHostAddress::LocalHost, serverPort);
    }
    int acked() const { return m_acked; }

private:
    void readDatagrams()
    {
        while (m_socket.hasPendingDatagrams()) {
            QHostAddress from;
            quint16 fromPort = 0;
            QByteArray datagram(int(m_socket.pendingDatagramSize()), '\0');
            m_socket.readDatagram(datagram.data(), datagram.size(), &from, &fromPort);
            if (datagram.size() < 4 || datagram[1] != 3 || m_left == 0)
                continue;
            --m_left;
            ++m_acked;
            QByteArray ack("\0\4", 2);
            ack += datagram.mid(2, 2);
            m_socket.writeDatagram(ack, from, fromPort);
        }
    }

    QUdpSocket m_socket;
    int m_left;
    int m_acked = 0;
};

void showFrame(MainWindow *main, int index, int width, int height)
{
    QMdiSubWindow *frame = main->frameOf(index);
    frame->showNormal();
    frame->move(0, 0);
    frame->resize(width, height);
    frame->raise();
    settle(150);
}

// The terminal's last lines (the prompt) in view, as after typing.
void showEnd(ConsoleWindow *console)
{
    settle(100);
    QScrollBar *bar = console->consoleBox()->verticalScrollBar();
    bar->setValue(bar->maximum());
}

void fillDialog(NetworkAddDialog &dialog)
{
    const char *const octets[] = { "172", "16", "0", "0" };
    for (int i = 0; i < 4; ++i)
        dialog.octetBox(i)->setText(QString::fromLatin1(octets[i]));
    if (auto *slider = dialog.findChild<QSlider *>(QStringLiteral("Slider1")))
        slider->setValue(12);
    if (auto *read = dialog.findChild<QCheckBox *>(QStringLiteral("Check1")))
        read->setChecked(true);
    if (auto *write = dialog.findChild<QCheckBox *>(QStringLiteral("Check2")))
        write->setChecked(false);
}

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir temp(QDir::tempPath() + QStringLiteral("/tarnwick-XXXXXX"));
    // The run keeps its settings to itself: never the user's own.
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(temp.path() + QStringLiteral("/config")));

    QApplication qapp(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Tarnwick"));
    QApplication::setApplicationName(QStringLiteral("Tarnwick"));
    QApplication::setApplicationVersion(QStringLiteral(TARNWICK_VERSION));
    QApplication::setWindowIcon(tw::programIcon());

    g_outDir = QDir(argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("docs")).absolutePath();
    QDir().mkpath(g_outDir);
    if (!temp.isValid()) {
        say("no temporary folder");
        return 1;
    }
    // The TFTP engine's trace file goes to the working folder: keep it out of the checkout.
    QDir::setCurrent(temp.path());

    // A plain, lasting-looking folder name reads better in the pictures than
    // a random one; it is only borrowed when nobody else has it.
    QString shared = QDir::tempPath() + QStringLiteral("/tftpboot");
    const bool ownShared = !QFileInfo::exists(shared);
    if (!ownShared)
        shared = temp.path() + QStringLiteral("/tftpboot");
    const QString work = temp.path() + QStringLiteral("/client");
    makeSharedFolder(shared);
    QDir().mkpath(work);
    writeFile(work + "/r1-confg", runningConfig);
    writeFile(work + "/sw1-confg", QByteArray(runningConfig).replace("R1", "SW1"));

    // The last matching row decides: loopback may read but not write until
    // the capture step adds a row for 127.0.0.1 that allows it.
    const QString aclPath = temp.path() + QStringLiteral("/ACLIST.ini");
    writeFile(aclPath,
        aclLine("10.1.1.0", 24, "yes", "yes", shared) + aclLine("192.168.0.0", 16, "yes", "no", shared)
            + aclLine("127.0.0.0", 8, "yes", "no", shared));

    QProcess agent;
    const quint16 agentPort = startAgent(agent, temp.path());
    FakeDevice device;

    CommandLineOptions options;
    options.tftpPort = freeUdpPort();
    options.logPort = freeUdpPort();
    options.telnetPort = device.port();
    options.snmpPort = agentPort ? agentPort : freeUdpPort();
    options.folder = shared;
    options.folderGiven = true;
    options.aclFile = aclPath;

    Application app(options);
    app.start();
    MainWindow *main = app.mainWindow();
    main->resize(1200, 760);
    settle(300);
    for (QWidget *top : QApplication::topLevelWidgets()) {
        if (top->objectName() == QLatin1String("Splash"))
            top->close();
    }
    // The grabs are of windows inside the frame; a roomy frame keeps them whole.
    main->resize(1400, 900);
    settle(300);

    // Access list and its dialog.
    showFrame(main, WindowTable::networkIndex, 820, 260);
    save(main->frameOf(WindowTable::networkIndex), QStringLiteral("access-list.png"));
    {
        NetworkAddDialog dialog(
            app.accessList(), app.browser()->folderList(), app.browser()->currentFolder(), main);
        dialog.show();
        fillDialog(dialog);
        save(&dialog, QStringLiteral("access-list-dialog.png"));
        dialog.close();
    }

    // Folder browser with the whole tree open.
    showFrame(main, WindowTable::filesIndex, 560, 520);
    app.browser()->tree()->expandAll();
    save(main->frameOf(WindowTable::filesIndex), QStringLiteral("folder-browser.png"));

    // Console on the fake router.
    auto *console = qobject_cast<ConsoleWindow *>(main->child(WindowTable::firstConsoleIndex));
    if (!console) {
        say("no console window");
        return 1;
    }
    console->session()->ConnectTCP(QStringLiteral("127.0.0.1"));
    if (!waitFor([console] { return console->windowTitle() == QLatin1String("R1#"); }, 5000))
        say("the console did not caption itself R1#");
    showFrame(main, WindowTable::firstConsoleIndex, 860, 600);
    console->selectTab(0);
    showEnd(console);
    save(main->frameOf(WindowTable::firstConsoleIndex), QStringLiteral("console.png"));

    // Transfers: one finished download, one refused upload, one caught mid-way.
    QStandardItemModel *transfers = app.monitor()->transfers();
    // The refusal comes last: a refused request keeps the listening slot deaf
    // until its timer frees it.
    QProcess download;
    startTftp(download, options.tftpPort, { "get", "configs/sw1-confg", work + "/sw1-confg.copy" }, work);
    if (!finished(download))
        say("tftp get did not finish");
    StalledReader reader(options.tftpPort, "images/c2600-adventerprisek9-mz.124-24.T5.bin", 12);
    if (!waitFor([&reader] { return reader.acked() >= 12; }, 5000))
        say("the stalled download did not get going");
    QProcess refused;
    startTftp(refused, options.tftpPort, { "put", "r1-confg", "configs/r1-confg" }, work);
    if (!waitFor([transfers] { return transferListHas(transfers, QStringLiteral("Blocked")); }, 5000))
        say("the refused upload was not listed as Blocked");
    refused.kill();
    finished(refused);
    settle(1200); // one refresh tick copies the ports into the socket table
    showFrame(main, WindowTable::transferIndex, 1000, 440);
    // Room for the image's whole name, as a user would drag the column.
    if (auto *window = qobject_cast<TransferWindow *>(main->child(WindowTable::transferIndex)))
        window->transferList()->resizeColumnToContents(0);
    save(main->frameOf(WindowTable::transferIndex), QStringLiteral("transfer-monitor.png"));

    // SNMP tab filled from the local agent.
    if (auto *community = console->findChild<QLineEdit *>(QStringLiteral("ComString")))
        community->setText(QStringLiteral("public"));
    if (auto *start = console->findChild<QAbstractButton *>(QStringLiteral("SNMPStart")))
        start->click();
    auto *state = console->findChild<QLabel *>(QStringLiteral("Label7"));
    // Every request reads "Waiting" for a moment; the walk is over when it
    // stays that way (the agent's answer past the interface table ends it).
    QElapsedTimer steady;
    steady.start();
    QString lastState;
    const bool walked = waitFor(
        [&] {
            const QString now = state ? state->text() : QString();
            if (now != lastState) {
                lastState = now;
                steady.restart();
            }
            return now == QLatin1String("Waiting") && steady.elapsed() > 600;
        },
        10000);
    if (!walked)
        say("the SNMP page did not settle on \"Waiting\"");
    console->selectTab(1);
    save(main->frameOf(WindowTable::firstConsoleIndex), QStringLiteral("snmp-tab.png"));
    agent.terminate();
    if (!agent.waitForFinished(3000))
        agent.kill();

    // Device logs arriving on the log port.
    {
        QUdpSocket sender;
        sender.bind(QHostAddress::LocalHost, 0);
        const char *const lines[] = {
            "<189>41: *Mar  1 00:10:11.873: %LINK-3-UPDOWN: Interface FastEthernet0/1, changed state to down",
            "<189>42: *Mar  1 00:10:12.123: %LINK-3-UPDOWN: Interface FastEthernet0/1, changed state to up",
            "<189>43: *Mar  1 00:10:13.127: %LINEPROTO-5-UPDOWN: Line protocol on Interface FastEthernet0/1, "
            "changed state to up",
            "<189>44: *Mar  1 00:11:02.455: %SYS-5-CONFIG_I: Configured from console by admin on vty0 "
            "(10.1.1.50)",
            "<190>45: *Mar  1 00:11:40.002: %SEC-6-IPACCESSLOGP: list 101 denied tcp 192.168.20.77(51512) -> "
            "10.1.1.1(23), 1 packet",
            "<189>46: *Mar  1 00:12:05.918: %OSPF-5-ADJCHG: Process 1, Nbr 10.1.1.254 on FastEthernet0/0 "
            "from "
            "LOADING to FULL, Loading Done",
            "<187>47: *Mar  1 00:12:31.604: %SYS-3-CPUHOG: Task is running for (2004)msecs, more than "
            "(2000)msecs "
            "(0/0),process = Exec.",
        };
        for (const char *line : lines) {
            sender.writeDatagram(QByteArray(line), QHostAddress::LocalHost, options.logPort);
            settle(60);
        }
        settle(400);
    }
    console->selectTab(2);
    save(main->frameOf(WindowTable::firstConsoleIndex), QStringLiteral("log-tab.png"));

    // Capture: an upload from the router shows up in the Config window.
    app.configWindow()->captureConfig();
    app.accessList()->appendEntry(
        { QStringLiteral("127.0.0.1"), mask(32), QStringLiteral("yes"), QStringLiteral("yes"), shared, 32 });
    // The refused request's slot listens again once its timer has run out.
    if (!waitFor(
            [&app] { return transferListHas(app.monitor()->sockets(), QStringLiteral("Listen")); }, 20000))
        say("the TFTP listener did not come back");
    QProcess upload;
    startTftp(upload, options.tftpPort, { "put", "r1-confg", "r1-confg" }, work);
    if (!finished(upload))
        say("tftp put did not finish");
    settle(300);
    showFrame(main, WindowTable::configIndex, 760, 620);
    save(main->frameOf(WindowTable::configIndex), QStringLiteral("capture.png"));

    // The whole frame, its children side by side as the program arranges them.
    console->selectTab(0);
    main->frameOf(WindowTable::filesIndex)->showMinimized(); // as at start-up with a shared folder
    main->resize(1280, 800);
    settle(200);
    main->arrangeSideBySide();
    settle(200);
    showEnd(console);
    save(main, QStringLiteral("main-window.png"));

    app.shutDown();
    if (ownShared)
        QDir(shared).removeRecursively();
    return g_failures == 0 ? 0 : 1;
}
