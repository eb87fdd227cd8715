// `skyrinse --gui [FILE...]`: the desktop wizard instead of the console
// batch. Only this path makes a QApplication and needs a display.
#pragma once

// Runs the wizard; the process's exit status.
int runGui(int& argc, char** argv);
