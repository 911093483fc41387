#pragma once

// The whole program inside a test process, as main() builds it, on ports and
// files of the test's own: TFTP and syslog on free loopback ports, the access
// list in `folder`, and whatever `adjust` changes (as an option would).

#include "app/application.h"
#include "app/command_line.h"
#include "test_support.h"

#include <functional>
#include <memory>

inline std::unique_ptr<Application> startApplication(
    const QString &folder, const std::function<void(CommandLineOptions &)> &adjust = {})
{
    CommandLineOptions options;
    options.tftpPort = tw::test::freeUdpPort();
    options.logPort = tw::test::freeUdpPort();
    options.aclFile = folder + QStringLiteral("/ACLIST.ini");
    if (adjust)
        adjust(options);
    auto app = std::make_unique<Application>(options);
    app->start();
    return app;
}
