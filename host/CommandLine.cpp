#include "host/CommandLine.h"

#include "ZImage/ZFileName.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <cstdio>
#include <cstring>

namespace {

QString tr(const char* text) {
    return QCoreApplication::translate("main", text);
}

bool parseBounded(const QString& text, int low, int high, int& value) {
    bool ok = false;
    const int parsed = text.trimmed().toInt(&ok, 10);
    if (!ok || parsed < low || parsed > high) return false;
    value = parsed;
    return true;
}

// -1 when not given; false when not a whole number in range.
bool parseStrength(bool given, const QString& text, int& strength) {
    strength = -1;
    return !given || parseBounded(text, 0, 100, strength);
}

// 0 (the CPUs available) when not given.
bool parseThreads(bool given, const QString& text, int& threads) {
    threads = 0;
    return !given || parseBounded(text, 1, 1024, threads);
}

int refuse(const QString& reason) {
    std::fprintf(stderr, "skyrinse: %s\n", qPrintable(reason));
    return 2;
}

} // namespace

bool wantsGui(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") == 0) return false;
        if (std::strcmp(argv[i], "--gui") == 0) return true;
    }
    return false;
}

int parseCommandLine(int argc, char** argv, CommandLine& line) {
    QCommandLineParser parser;
    parser.setApplicationDescription(tr("Removes atmospheric haze from photographs. Each FILE "
                                        "is written as FILE_dehazed beside it."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption strength(QStringLiteral("strength"),
                                      tr("Strength of the correction in percent, 0 to 100 "
                                         "(default: the stored default, else 60)."),
                                      QStringLiteral("N"));
    const QCommandLineOption threads(QStringLiteral("threads"),
                                     tr("Worker threads (default: the CPUs available)."),
                                     QStringLiteral("N"));
    const QCommandLineOption verbose(QStringLiteral("verbose"),
                                     tr("Report the plug-in, the settings, the threads "
                                        "granted and why, and the solver's statistics "
                                        "and error reports."));
    const QCommandLineOption plugin(QStringLiteral("plugin"),
                                    tr("Load the haze plug-in from PATH."), QStringLiteral("PATH"));
    const QCommandLineOption overwrite(QStringLiteral("overwrite"),
                                       tr("Replace outputs that exist already (without it they "
                                          "are kept and their sources reported as failed)."));
    const QCommandLineOption gui(QStringLiteral("gui"),
                                 tr("Show the desktop wizard instead, with a live "
                                    "preview (needs a display)."));
    QCommandLineOption walkthrough(QStringLiteral("walkthrough"),
                                   tr("Step through the wizard alone, saving pictures "
                                      "of it into DIR."),
                                   QStringLiteral("DIR"));
    walkthrough.setFlags(QCommandLineOption::HiddenFromHelp);
    parser.addOptions({strength, threads, verbose, plugin, overwrite, gui, walkthrough});
    parser.addPositionalArgument(QStringLiteral("FILE"), tr("Photographs to dehaze."),
                                 QStringLiteral("FILE..."));

    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << ZFileName::decode(QByteArray(argv[i]));
    if (!parser.parse(arguments)) return refuse(parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) parser.showHelp(0);
    if (parser.isSet(QStringLiteral("version"))) parser.showVersion();

    line.gui = parser.isSet(gui);
    line.plugin = parser.value(plugin);
    line.walkthrough = parser.value(walkthrough);
    line.files = parser.positionalArguments();
    line.batch.verbose = parser.isSet(verbose);
    line.batch.overwrite = parser.isSet(overwrite);
    if (!parseThreads(parser.isSet(threads), parser.value(threads), line.batch.threads))
        return refuse(tr("--threads takes a whole number from 1 to 1024, not \"%1\"")
                          .arg(parser.value(threads)));
    if (line.gui) {
        // The wizard sets the strength on its page and never replaces a file.
        if (parser.isSet(strength) || parser.isSet(overwrite))
            return refuse(tr("--strength and --overwrite are for the console run, not --gui"));
        return -1;
    }
    if (parser.isSet(walkthrough)) return refuse(tr("--walkthrough needs --gui"));
    if (!parseStrength(parser.isSet(strength), parser.value(strength), line.batch.strength))
        return refuse(tr("--strength takes a whole number from 0 to 100, not \"%1\"")
                          .arg(parser.value(strength)));
    if (line.files.isEmpty()) return refuse(tr("no FILE given (see --help)"));
    return -1;
}
