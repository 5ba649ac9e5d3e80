/* The main of every test program. */
#include <conference_testkit.h>
#include <gtest/gtest.h>

#include "child_process.h"

#ifdef CONF_SANITIZED

// How the sanitizers begin in every test program; their environment variables change it. Where a
// process may not trace itself, run with ASAN_OPTIONS=detect_leaks=0.
extern "C" {

__attribute__((visibility("default"))) const char *__asan_default_options() {
    return "detect_leaks=1:allocator_may_return_null=1:detect_stack_use_after_return=1:"
           "strict_string_checks=1";
}

__attribute__((visibility("default"))) const char *__ubsan_default_options() {
    return "print_stacktrace=1";
}

__attribute__((visibility("default"))) const char *__tsan_default_options() {
    return "halt_on_error=1:second_deadlock_stack=1:allocator_may_return_null=1";
}

}  // extern "C"

#endif

int main(int argc, char **argv) {
    const int childResult = support::runChildRole(argc, argv);
    if (childResult >= 0) {
        return childResult;
    }
    const testkit::ScratchRoot root;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
