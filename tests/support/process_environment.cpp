// Attaches the main thread of a GoogleTest program to the runtime before any test runs. Test code.
#include <gtest/gtest.h>

#include "tests/support/process.h"

namespace {

class ProcessEnvironment : public ::testing::Environment {
public:
    void SetUp() override { orlix::test::attach_thread(); }
};

[[maybe_unused]] auto* const environment = ::testing::AddGlobalTestEnvironment(new ProcessEnvironment);

} // namespace
