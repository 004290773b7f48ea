// Whether this build runs under AddressSanitizer, whose quarantine keeps freed blocks resident,
// so that tests measuring resident memory can leave that to its leak checker.
#pragma once

namespace velko::testing {
#if defined(__SANITIZE_ADDRESS__) // GCC's spelling; clang answers the feature test below
inline constexpr bool kUnderAddressSanitizer = true;
#elif defined(__has_feature)
inline constexpr bool kUnderAddressSanitizer = __has_feature(address_sanitizer);
#else
inline constexpr bool kUnderAddressSanitizer = false;
#endif
} // namespace velko::testing
