// Visibility of the platform libraries' entry points.
//
// The Miravel library is compiled with hidden visibility and a version script, so
// nothing it includes from here is re-exported by it; the platform libraries
// themselves export what is marked with ZOR_PLATFORM_API.
#pragma once

#if defined(_WIN32)
#define ZOR_PLATFORM_API
#else
#define ZOR_PLATFORM_API __attribute__((visibility("default")))
#endif
