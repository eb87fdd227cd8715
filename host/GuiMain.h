// `skyrinse --gui [FILE...]`: the desktop wizard instead of the console
// batch. Only this path makes a QApplication and needs a display.
#pragma once

// True when the command line asks for the wizard.
bool wantsGui(int argc, char** argv);
// Runs the wizard; the process's exit status.
int runGui(int& argc, char** argv);
