// The console run: its options and the batch over the files given.
#pragma once

#include <QString>
#include <QStringList>

class PluginHost;
class HostServices;

struct BatchOptions {
    int strength = -1; // -1: the stored default, else 60
    int threads = 0;   // 0: the CPUs available to the process
    bool verbose = false;
    bool overwrite = false; // replace outputs that exist; without it they are kept
};

// Dehazes every file through the plug-in, one line per file on standard
// error. Before any work, outputs that two sources (or a source and an
// output) would share are refused together. Returns the process exit status:
// 0 when all were written, 1 when one failed or its output was kept, 2 when
// outputs collide, 3 when the plug-in offers no process.
int runBatch(HostServices& app, PluginHost& host, const QStringList& files,
             const BatchOptions& options);
