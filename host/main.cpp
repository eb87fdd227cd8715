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
#include <cstdlib>
#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

// The libraries' own threads, started by their initialisers before main,
// get the lowest priority. The one that matters is OpenBLAS's helper: it
// spins (sched_yield) for about a tenth of a second after it starts, on a
// core that the decode and the solver's preparation need beside each other,
// and OpenBLAS reads the variable that would keep it from starting before
// main. It has nothing to do here, as the runtime is told to run the BLAS on
// the calling thread (the photo solve's dense blocks are small and run
// mostly inside the solver's own parallel regions, one thread each). A
// user who set the runtime's thread counts keeps them, and the threads keep
// their priority, since the helper may then be given work. The others, a
// logging library's pool, wait for work that never comes.
void quietLibraryThreads() {
    if (std::getenv("NRT_DOMAIN_NUM_THREADS")) return;
    ::setenv("NRT_DOMAIN_NUM_THREADS", "NRT_BLAS=1", 1);
    DIR* tasks = ::opendir("/proc/self/task");
    if (!tasks) return;
    const pid_t self = ::gettid();
    while (const dirent* entry = ::readdir(tasks))
        if (const int tid = std::atoi(entry->d_name); tid > 0 && tid != self)
            ::setpriority(PRIO_PROCESS, static_cast<id_t>(tid), 19);
    ::closedir(tasks);
}

} // namespace

int main(int argc, char** argv) {
    quietLibraryThreads();
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
