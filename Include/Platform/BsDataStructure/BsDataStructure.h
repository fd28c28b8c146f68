// BsDataStructure: reference-counted lists that cross library boundaries.
//
// Each factory returns a new, empty list carrying one reference owned by the
// caller. A list is not synchronised: one thread fills it, then hands it on.
#pragma once

#include <cstdint>

#include "DataModel/IDmBaseObj.h"
#include "ZorPlatformExport.h"

namespace ZOR {

// queryInterface answers "IZORLonglongList" and "IDmBaseObj".
class IZORLonglongList : public IDmBaseObj {
public:
    virtual int32_t count() = 0;
    // The value at index, or 0 when index is outside [0, count).
    virtual int64_t get(int32_t index) = 0;
    // Appends value; returns the new count.
    virtual int32_t append(int64_t value) = 0;

protected:
    ~IZORLonglongList() = default;
};

// Picture buffers, not owned: the list keeps the pointers only.
// queryInterface answers "IZORPByteList" and "IDmBaseObj".
class IZORPByteList : public IDmBaseObj {
public:
    virtual int32_t count() = 0;
    // The pointer at index, or null when index is outside [0, count).
    virtual unsigned char* get(int32_t index) = 0;
    virtual int32_t append(unsigned char* value) = 0;

protected:
    ~IZORPByteList() = default;
};

// queryInterface answers "IZORIntList" and "IDmBaseObj".
class IZORIntList : public IDmBaseObj {
public:
    virtual int32_t count() = 0;
    // The value at index, or 0 when index is outside [0, count).
    virtual int32_t get(int32_t index) = 0;
    virtual int32_t append(int32_t value) = 0;

protected:
    ~IZORIntList() = default;
};

}  // namespace ZOR

extern "C" {
ZOR_PLATFORM_API ZOR::IZORLonglongList* createZORLonglongList();
ZOR_PLATFORM_API ZOR::IZORPByteList* createZORPByteList();
ZOR_PLATFORM_API ZOR::IZORIntList* createZORIntList();
}
