#include "host/GuiMain.h"

#include "host/BatchPage.h"
#include "host/BatchRunner.h"
#include "host/CommandLine.h"
#include "host/GuiApplication.h"
#include "host/GuiWalkthrough.h"
#include "host/PluginHost.h"
#include "host/SkyrinseWizard.h"
#include "plugin/ZIPluginLibrary.h"
#include "plugin/ZIPluginOne2One.h"

#include <QMessageBox>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

void fail(const QString& message) {
    std::fprintf(stderr, "skyrinse: %s\n", qPrintable(message));
    QMessageBox::critical(nullptr, QStringLiteral("Skyrinse"), message);
}

} // namespace

int runGui(int& argc, char** argv) {
    GuiApplication app(argc, argv);
    app.setApplicationVersion(QStringLiteral(SKYRINSE_VERSION));

    CommandLine line;
    if (const int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    app.setThreadCount(line.batch.threads);
    // New images start at the stored default, else at the console command's
    // default; that one is not written to the store.
    app.setSessionDefault(HostServices::kHazeProcessId, HostServices::kStrengthKey,
                          HostServices::kDefaultStrength);

    // The solver's statistics are for the console; the window has its own.
    if (!line.batch.verbose) {
        std::fflush(stdout);
        const int sink = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (sink >= 0) {
            ::dup2(sink, STDOUT_FILENO);
            ::close(sink);
        }
    }

    PluginHost host;
    if (!host.load(line.plugin)) {
        fail(host.errorString());
        return 3;
    }
    const QList<ZIPluginProcess*> processes = host.library()->plugins(true);
    auto* process =
        processes.isEmpty() ? nullptr : dynamic_cast<ZIPluginOne2One*>(processes.last());
    if (!process) {
        fail(QCoreApplication::translate("main", "the plug-in offers no image process"));
        return 3;
    }

    int status = 0;
    {
        // The wizard holds the plug-in's page: it goes before the plug-in.
        SkyrinseWizard wizard(process, line.files);
        if (!line.walkthrough.isEmpty()) new GuiWalkthrough(&wizard, line.walkthrough);
        wizard.show();
        status = app.exec();
        // What "Apply to all Images" made the default outlives the session.
        if (wizard.result() == QDialog::Accepted) process->saveDefaults();
        if (status == 0 && wizard.run()->done() && wizard.run()->failures() > 0) status = 1;
    }
    return status;
}
