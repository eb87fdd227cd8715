#include "imagefile/IflBitmap.h"
#include "imagefile/internal/IflMetadata.h"

#include <cstdlib>

void iflFreeBitmap(IflBitmap* bitmap) {
    if (!bitmap) return;
    std::free(bitmap->data);
    std::free(bitmap->palette);
    std::free(bitmap->text);
    ifl::freeMetadata(bitmap);
    std::free(bitmap);
}

void* iflAlloc(std::size_t bytes, const char* /*location*/) {
    return std::malloc(bytes == 0 ? 1 : bytes);
}

void* iflAllocZeroed(std::size_t bytes, const char* /*location*/) {
    return std::calloc(1, bytes == 0 ? 1 : bytes);
}
