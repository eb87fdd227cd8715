#include "runtime/internal/Environment.h"
#include "runtime/internal/SpinLock.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace nrt::detail {

SpinLock& runtimeLock() noexcept {
    // A function-local static of a constexpr-constructible type is constant
    // initialised: no guard, usable from any static initialiser.
    static SpinLock lock;
    return lock;
}

std::optional<std::string> readEnvironment(const char* name, std::size_t bufferSize) {
    const char* value = std::getenv(name);
    if (value == nullptr) return std::nullopt;
    const std::size_t length = std::strlen(value);
    if (length + 1 > bufferSize) return std::nullopt;
    return std::string(value, length);
}

bool allDigits(std::string_view text) noexcept {
    if (text.empty()) return false;
    for (char c : text)
        if (c < '0' || c > '9') return false;
    return true;
}

int digitsValue(std::string_view text) noexcept {
    long long value = 0;
    for (char c : text) {
        value = value * 10 + (c - '0');
        if (value > INT_MAX) return INT_MAX;
    }
    return static_cast<int>(value);
}

} // namespace nrt::detail
