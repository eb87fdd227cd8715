#include "ZImage/ThreadCount.h"

int threadCount = 1;
