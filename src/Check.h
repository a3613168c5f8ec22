// Always-on index checks for the library's containers. Unlike assert() they stay
// active in release builds: a failed check prints its fixed text with the source
// file and line on standard error and aborts the process.
#pragma once

namespace hemiray {

[[noreturn]] void checkFailed(const char* text, const char* file, int line) noexcept;

}  // namespace hemiray

// The text is given separately from the condition so that it stays fixed whatever
// the condition's spelling (casts for signed/unsigned comparisons, renamed locals).
#define HEMIRAY_CHECK(condition, text)                        \
    do {                                                      \
        if (!(condition)) [[unlikely]]                        \
            ::hemiray::checkFailed(text, __FILE__, __LINE__); \
    } while (false)
