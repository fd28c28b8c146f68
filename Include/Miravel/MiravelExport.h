// Visibility of Miravel's exported entry points: the four factories and
// ClipThumbnailKey::enableCalcDucking are all the library exports.
#pragma once

#if defined(_WIN32)
#if defined(MIRAVEL_BUILDING)
#define MIRAVEL_API __declspec(dllexport)
#else
#define MIRAVEL_API __declspec(dllimport)
#endif
#else
#define MIRAVEL_API __attribute__((visibility("default")))
#endif
