// Reading of the runtime's environment variables.
//
// Every variable is read through a buffer of fixed size, as the numerical code
// always has: a value that does not fit counts as absent, so a runaway value
// can never be half-read and mistaken for a shorter valid one.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace nrt::detail {

// Buffer sizes of the three families of variables, terminating zero included.
inline constexpr std::size_t kThreadVariableBuffer = 256;
inline constexpr std::size_t kCpuVariableBuffer = 32;
inline constexpr std::size_t kMemoryVariableBuffer = 16;

// The value of name, or nothing when the variable is unset or its value does
// not fit into bufferSize characters including the terminating zero. An empty
// value is returned as an empty string: the variable exists.
std::optional<std::string> readEnvironment(const char* name, std::size_t bufferSize);

// True when text is non-empty and holds only the ten digits.
bool allDigits(std::string_view text) noexcept;

// Decimal value of an all-digit text, saturated at INT_MAX.
int digitsValue(std::string_view text) noexcept;

} // namespace nrt::detail
