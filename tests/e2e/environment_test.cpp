// The test programs' environment as CTest hands it over.
#include <gtest/gtest.h>

#include <cstdlib>

namespace {

// The test helper gives every variable it names, not only the first.
TEST(TestEnvironment, CtestPassesEveryVariableOfTheTestHelper) {
  if (!std::getenv("QUILLBOX_BUILD_BIN")) GTEST_SKIP() << "not run by CTest";
  EXPECT_NE(std::getenv("QUILLBOX_SOURCE_DIR"), nullptr);
}

}  // namespace
