// The process-wide thread count of the image code. It starts at 1 and is set
// once by the plug-in's Library from the host's two factors; every parallel
// pixel loop of the haze code and of the image model takes its team size from
// it, splitting rows statically, so results never depend on it.
#pragma once

extern int threadCount;
