#include "host/GuiMain.h"

#include "host/BatchPage.h"
#include "host/BatchRunner.h"
#include "host/GuiApplication.h"
#include "host/GuiWalkthrough.h"
#include "host/PluginHost.h"
#include "host/SkyrinseWizard.h"
#include "plugin/ZIPluginLibrary.h"
#include "plugin/ZIPluginOne2One.h"

#include <QCommandLineParser>
#include <QMessageBox>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

const QString kProcessId = QStringLiteral("6A2F91C4-38DE-4B07-A15C-7E04D3C2B81F");
const QString kStrengthKey = QStringLiteral("hazeRemove");
constexpr int kDefaultStrength = 60;

void fail(const QString& message) {
    std::fprintf(stderr, "skyrinse: %s\n", qPrintable(message));
    QMessageBox::critical(nullptr, QStringLiteral("Skyrinse"), message);
}

} // namespace

bool wantsGui(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0) return false;
        if (std::strcmp(argv[i], "--gui") == 0) return true;
    }
    return false;
}

int runGui(int& argc, char** argv) {
    GuiApplication app(argc, argv);
    app.setApplicationVersion(QStringLiteral(SKYRINSE_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QCoreApplication::translate("main", "Removes atmospheric haze from photographs."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption gui(QStringLiteral("gui"),
                                 QCoreApplication::translate("main", "Show the wizard."));
    const QCommandLineOption threads(
        QStringLiteral("threads"),
        QCoreApplication::translate("main", "Worker threads (default: the CPUs available)."),
        QStringLiteral("N"));
    const QCommandLineOption verbose(
        QStringLiteral("verbose"),
        QCoreApplication::translate("main",
                                    "Let the solver's statistics and error reports through."));
    const QCommandLineOption plugin(
        QStringLiteral("plugin"),
        QCoreApplication::translate("main", "Load the haze plug-in from PATH."),
        QStringLiteral("PATH"));
    QCommandLineOption walkthrough(
        QStringLiteral("walkthrough"),
        QCoreApplication::translate("main", "Step through the wizard alone, saving pictures "
                                            "of it into DIR."),
        QStringLiteral("DIR"));
    walkthrough.setFlags(QCommandLineOption::HiddenFromHelp);
    parser.addOptions({gui, threads, verbose, plugin, walkthrough});
    parser.addPositionalArgument(QStringLiteral("FILE"),
                                 QCoreApplication::translate("main", "Photographs to dehaze."),
                                 QStringLiteral("[FILE...]"));
    parser.process(app);

    BatchOptions options;
    QString error;
    if (!parseThreads(parser.isSet(threads), parser.value(threads), options.threads, error)) {
        std::fprintf(stderr, "skyrinse: %s\n", qPrintable(error));
        return 2;
    }
    app.setThreadCount(options.threads);
    // New images start at the stored default, else at the console command's
    // default; that one is not written to the store.
    app.setSessionDefault(kProcessId, kStrengthKey, kDefaultStrength);

    // The solver's statistics are for the console; the window has its own.
    if (!parser.isSet(verbose)) {
        std::fflush(stdout);
        const int sink = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (sink >= 0) {
            ::dup2(sink, STDOUT_FILENO);
            ::close(sink);
        }
    }

    PluginHost host;
    if (!host.load(parser.value(plugin))) {
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
        SkyrinseWizard wizard(process, parser.positionalArguments());
        if (parser.isSet(walkthrough)) new GuiWalkthrough(&wizard, parser.value(walkthrough));
        wizard.show();
        status = app.exec();
        // What "Apply to all Images" made the default outlives the session.
        if (wizard.result() == QDialog::Accepted) process->saveDefaults();
        if (status == 0 && wizard.run()->done() && wizard.run()->failures() > 0) status = 1;
    }
    return status;
}
