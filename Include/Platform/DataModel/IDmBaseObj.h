// IDmBaseObj: the reference-counted base of every object that crosses the
// editor's library boundaries.
#pragma once

#include <cstdint>

namespace ZOR {

// The result codes of every operation of Miravel and of the libraries it
// imports: 0 is success and 1001 the single failure (a null or rejected
// argument, a missing interface, no data). Operations that tell more say so
// where they are declared.
inline constexpr int32_t kResultOk = 0;
inline constexpr int32_t kResultFailure = 1001;

// Told, through its first operation, that the object it is installed on is
// about to be destroyed (called before anything is torn down).
class IDmReleaseNotifier {
public:
    virtual void onObjectReleasing() = 0;

protected:
    ~IDmReleaseNotifier() = default;
};

// Six operations, in this order; no virtual destructor: objects are destroyed
// by their last Release().
class IDmBaseObj {
public:
    // The new strong count; 0 when the object is already dead.
    virtual int32_t AddRef() = 0;
    // The new strong count; 0 when this call destroyed the object.
    virtual int32_t Release() = 0;
    // The current strong count; 0 when the object has no counter block.
    virtual int32_t refCount() = 0;
    virtual IDmReleaseNotifier* releaseNotifier() = 0;
    // Stores the notifier with one atomic exchange; returns the previous one.
    virtual IDmReleaseNotifier* setReleaseNotifier(IDmReleaseNotifier* notifier) = 0;
    // Another interface of the same object by its name, or null. The count is
    // not touched.
    virtual void* queryInterface(const char* name) = 0;

protected:
    ~IDmBaseObj() = default;
};

}  // namespace ZOR
