/* The test kit under the names of this suite's older tests. */
#pragma once
#include <conference_testkit_gtest.h>

namespace platform {

using namespace testkit;

template <typename Operation, typename Replacement>
void override(Operation *operation, Replacement replacement) {
    testkit::replace(operation, std::move(replacement));
}

template <typename Function>
Function *next(Function *operation) {
    return testkit::real(operation);
}

}  // namespace platform
