// A new reference-counted object, held from the start by a ZorRef.
#pragma once

#include <utility>

#include "Common/ZorInternalComUtility.h"

namespace ZOR::test {

// Constructs T from arguments; the result holds the object's first reference.
template <class T, class... Arguments>
ZorRef<T> makeRef(Arguments&&... arguments) {
    return ZorRef<T>::share(new T(std::forward<Arguments>(arguments)...));
}

}  // namespace ZOR::test
