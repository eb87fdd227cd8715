// Error codes of IFL, the image file library. 0 is success; every IFL call
// returns one of these, and RaiseIflError (ZImage/ZException.h) names them.
#pragma once

enum IflError : short {
    IFL_OK = 0,
    IFL_ERROR_FILE_OPEN = 1,         // the file cannot be opened
    IFL_ERROR_FILE_READ = 2,         // read or decode failure
    IFL_ERROR_FILE_CREATE = 3,       // the file cannot be created
    IFL_ERROR_FILE_WRITE = 4,        // write failure
    IFL_ERROR_NO_MEMORY = 5,         // out of memory
    IFL_ERROR_UNKNOWN_FORMAT = 6,    // the format is not one IFL knows
    IFL_ERROR_BAD_BITMAP = 7,        // the bitmap record is not usable for the call
    IFL_ERROR_BAD_FORMAT_INDEX = 10, // unknown format name or index
    IFL_ERROR_BAD_PARAMETERS = 50,   // bad arguments
};
