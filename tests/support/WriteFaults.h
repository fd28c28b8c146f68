// The write faults every injected-fault test runs with, and the names their
// cases carry: EachFault/<Suite>.<Test>/DiskFull, IoError, PermissionDenied.
//
//     INSTANTIATE_TEST_SUITE_P(EachFault, MyFaultTest, eachWriteFault(), writeFaultName);
#pragma once

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

namespace ZOR::test {

inline auto eachWriteFault() { return ::testing::Values(ENOSPC, EIO, EACCES); }

inline std::string writeFaultName(const ::testing::TestParamInfo<int>& param) {
    return param.param == ENOSPC ? std::string("DiskFull")
           : param.param == EIO  ? std::string("IoError")
                                 : std::string("PermissionDenied");
}

}  // namespace ZOR::test
