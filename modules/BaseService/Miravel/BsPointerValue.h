// Pointers as integers: the keys of maps by object, and the numbers that log
// lines print for an object.
#pragma once

#include <cstdint>

namespace ZOR {

// A pointer as a map key.
inline uint64_t pointerKey(const void* pointer) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(pointer)); }
// A pointer as the log lines print it with "%llx".
inline unsigned long long pointerHex(const void* pointer) {
    return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer));
}
// A pointer as the log lines print it with "%lld".
inline long long pointerValue(const void* pointer) {
    return static_cast<long long>(reinterpret_cast<uintptr_t>(pointer));
}

}  // namespace ZOR
