#pragma once

/// Whether this build is slowed down by AddressSanitizer, which also keeps what is freed in quarantine.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool is_sanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool is_sanitized = true;
#else
inline constexpr bool is_sanitized = false;
#endif
#else
inline constexpr bool is_sanitized = false;
#endif
