// The command line of `skyrinse`, console batch and wizard alike: one set of
// options, one parse, one rule for what is refused.
#pragma once

#include "host/BatchRunner.h"

#include <QString>
#include <QStringList>

struct CommandLine {
    BatchOptions batch;
    bool gui = false;
    QString plugin;      // empty: the usual places
    QString walkthrough; // the wizard steps through itself, saving pictures here
    QStringList files;
};

// True when the command line asks for the wizard; looked at before any Qt
// application exists, since only the wizard may make one that needs a display.
bool wantsGui(int argc, char** argv);

// Parses the arguments (bytes that are not UTF-8 are kept in the names) into
// `line`. Returns -1 to go on, else the status to exit with: 0 after --help
// or --version (printed), 2 after a command line that cannot be run (its
// reason printed on standard error). Needs the application object.
int parseCommandLine(int argc, char** argv, CommandLine& line);
