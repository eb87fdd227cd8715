// Child of the confinement tests: prints the thread count this process is
// granted, the count nrt_explain_threads gives, and its reason.
#include "runtime/nrt.h"

#include <cstdio>

int main() {
    char reason[256];
    const int explained = nrt_explain_threads(0, reason, sizeof reason);
    std::printf("%d %d %s\n", nrt_get_max_threads(), explained, reason);
    return 0;
}
