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
#include "host/BatchRunner.h"
#include "host/CommandLine.h"
#include "host/GuiMain.h"
#include "host/PluginHost.h"
#include "host/SkyrinseApplication.h"

#include <cstdio>

int main(int argc, char** argv) {
    // Only the wizard needs a display; the console batch never makes one.
    if (wantsGui(argc, argv)) return runGui(argc, argv);
    SkyrinseApplication app(argc, argv);
    app.setApplicationVersion(QStringLiteral(SKYRINSE_VERSION));
    CommandLine line;
    if (const int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    app.setThreadCount(line.batch.threads);

    PluginHost host;
    if (!host.load(line.plugin)) {
        std::fprintf(stderr, "skyrinse: %s\n", qPrintable(host.errorString()));
        return 3;
    }
    return runBatch(app, host, line.files, line.batch);
}
