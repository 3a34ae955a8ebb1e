// SPDX-License-Identifier: Apache-2.0
//
// What a piece of a test writes to the process's standard output.
#ifndef TESTS_SUPPORT_OUTPUT_H
#define TESTS_SUPPORT_OUTPUT_H

#include <gtest/gtest.h>
#include <stdio.h>

#include <string>

namespace zovtest {

template <typename Call>
std::string outputOf(Call call) {
  testing::internal::CaptureStdout();
  call();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

}  // namespace zovtest

#endif
