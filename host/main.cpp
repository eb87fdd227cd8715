// skyrinse: removes the haze from photographs through the haze plug-in.
//
//   skyrinse [--strength N] [--threads N] [--overwrite] [--verbose] FILE...
//   skyrinse --gui [FILE...]            (the desktop wizard, host/GuiMain.cpp)
//
// Each FILE is written as FILE_dehazed.<suffix> beside it, in the same format
// and depth, with its metadata; an existing output is kept unless --overwrite.
// A failure is reported with its text and location and the batch goes on;
// the exit status is 0 only if every file was written, 2 for a command line
// that cannot be run (bad option, no file, two files with one output).
#include "ZImage/ZFileName.h"
#include "host/BatchRunner.h"
#include "host/GuiMain.h"
#include "host/PluginHost.h"
#include "host/SkyrinseApplication.h"

#include <QCommandLineParser>
#include <cstdio>

int main(int argc, char** argv) {
    // Only the wizard needs a display; the console batch never makes one.
    if (wantsGui(argc, argv)) return runGui(argc, argv);
    SkyrinseApplication app(argc, argv);
    app.setApplicationVersion(QStringLiteral(SKYRINSE_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QCoreApplication::translate("main", "Removes atmospheric haze from photographs. Each FILE "
                                            "is written as FILE_dehazed beside it."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption strength(
        QStringLiteral("strength"),
        QCoreApplication::translate("main", "Strength of the correction in percent, 0 to 100 "
                                            "(default: the stored default, else 60)."),
        QStringLiteral("N"));
    const QCommandLineOption threads(
        QStringLiteral("threads"),
        QCoreApplication::translate("main", "Worker threads (default: the CPUs available)."),
        QStringLiteral("N"));
    const QCommandLineOption verbose(
        QStringLiteral("verbose"),
        QCoreApplication::translate("main", "Report the plug-in, the settings, the threads "
                                            "granted and why, and the solver's statistics "
                                            "and error reports."));
    const QCommandLineOption plugin(
        QStringLiteral("plugin"),
        QCoreApplication::translate("main", "Load the haze plug-in from PATH."),
        QStringLiteral("PATH"));
    const QCommandLineOption overwrite(
        QStringLiteral("overwrite"),
        QCoreApplication::translate("main", "Replace outputs that exist already (without it they "
                                            "are kept and their sources reported as failed)."));
    const QCommandLineOption gui(
        QStringLiteral("gui"),
        QCoreApplication::translate("main", "Show the desktop wizard instead, with a live "
                                            "preview (needs a display)."));
    parser.addOptions({strength, threads, verbose, plugin, overwrite, gui});
    parser.addPositionalArgument(QStringLiteral("FILE"),
                                 QCoreApplication::translate("main", "Photographs to dehaze."),
                                 QStringLiteral("FILE..."));
    // The names as the system gave them: bytes that are not UTF-8 are kept.
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << ZFileName::decode(QByteArray(argv[i]));
    if (!parser.parse(arguments)) {
        std::fprintf(stderr, "skyrinse: %s\n", qPrintable(parser.errorText()));
        return 2;
    }
    if (parser.isSet(QStringLiteral("help"))) parser.showHelp(0);
    if (parser.isSet(QStringLiteral("version"))) parser.showVersion();

    BatchOptions options;
    options.verbose = parser.isSet(verbose);
    options.overwrite = parser.isSet(overwrite);
    QString error;
    if (!parseStrength(parser.isSet(strength), parser.value(strength), options.strength, error) ||
        !parseThreads(parser.isSet(threads), parser.value(threads), options.threads, error)) {
        std::fprintf(stderr, "skyrinse: %s\n", qPrintable(error));
        return 2;
    }
    if (parser.positionalArguments().isEmpty()) {
        std::fprintf(stderr, "skyrinse: %s\n",
                     qPrintable(QCoreApplication::translate("main", "no FILE given (see --help)")));
        return 2;
    }
    app.setThreadCount(options.threads);

    PluginHost host;
    if (!host.load(parser.value(plugin))) {
        std::fprintf(stderr, "skyrinse: %s\n", qPrintable(host.errorString()));
        return 3;
    }
    return runBatch(app, host, parser.positionalArguments(), options);
}
