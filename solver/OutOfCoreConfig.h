// Where the out-of-core factor goes and how much memory it may use.
//
// Read once per handle, the first time a call asks for the out-of-core mode
// (iparm[59] != 0). The environment comes first, key by key:
//   SPDS_OOC_CFG_PATH       folder of the configuration file       (".")
//   SPDS_OOC_CFG_FILE_NAME  name of the configuration file         ("spds_ooc.cfg")
//   SPDS_OOC_PATH           stem of the temporary files            ("ooc_temp")
//   SPDS_OOC_MAX_CORE_SIZE  memory limit in megabytes              (2000)
//   SPDS_OOC_KEEP_FILE      1: keep the files of a finished factor (1)
// then the file, for the three last keys that the environment left open;
// when the environment gave all three the file is not opened at all. A
// missing file is no error: the defaults stand.
//
// File syntax: one "key = value" a line, keys in any case, "#" starts a
// comment, a line without "=" or with an unknown key is skipped. The path
// value may hold blanks (its words are joined by one blank).
//
// The stem is a path prefix: "/scratch/run" gives files "/scratch/run_..."
// (OutOfCoreStore.h adds the process and handle to it). Trailing blanks are
// cut from it.
//
// Keeping files is on by default; each handle's names are unique, so kept
// files pile up run after run unless a program sets 0.
#pragma once

#include <string>

namespace skyrinse::spds {

struct OocConfig {
    std::string stem = "ooc_temp";
    int maxCoreMb = 2000;
    // Kept by default: a caller may solve again from the files in a later
    // run. Names are unique per process and handle, so set 0 to clean up.
    int keepFile = 1;
};

// Reads environment and file; prints what the environment gave (and a file
// that could not be opened) when msglvl > 0.
OocConfig readOocConfig(int msglvl);

// Applies the lines of a configuration file's text to `config`, skipping
// the keys whose `fromEnvironment` flag is set (stem, size, keep).
void applyOocConfigText(const std::string& text, OocConfig& config, const bool fromEnvironment[3]);

} // namespace skyrinse::spds
