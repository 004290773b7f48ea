// Whether this build runs under AddressSanitizer, whose quarantine keeps freed blocks resident,
// so that tests measuring resident memory can leave that to its leak checker.
#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer) // clang's spelling of GCC's __SANITIZE_ADDRESS__
#define VELKO_UNDER_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(VELKO_UNDER_ASAN)
#define VELKO_UNDER_ASAN 1
#endif

namespace velko::testing {
#ifdef VELKO_UNDER_ASAN
inline constexpr bool kUnderAddressSanitizer = true;
#else
inline constexpr bool kUnderAddressSanitizer = false;
#endif
} // namespace velko::testing
