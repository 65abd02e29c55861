// Every row of the exit-code table, reproduced by running the program.
#include <gtest/gtest.h>

#include "app/run_process.h"
#include "support/test_home.h"

namespace {

using namespace std::chrono_literals;

constexpr const char* kTitle = "Quillbox - Error: ";

qbtest::RunResult Quillbox(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {qbtest::QuillboxPath().string()};
  argv.insert(argv.end(), args.begin(), args.end());
  return qbtest::RunProgram(argv, 20s);
}

struct Row {
  std::vector<std::string> args;
  int exitCode;
  const char* message;  // null: nothing on standard error
};

class ExitCodeTable : public ::testing::TestWithParam<Row> {
 protected:
  qbtest::ScopedHome home_;
};

TEST_P(ExitCodeTable, EndsWithItsCodeAndMessage) {
  const Row& row = GetParam();
  auto r = Quillbox(row.args);
  ASSERT_TRUE(r.finished) << r.err;
  EXPECT_EQ(r.code, row.exitCode) << r.err;
  if (row.message)
    EXPECT_NE(r.err.find(std::string(kTitle) + row.message), std::string::npos) << r.err;
  else
    EXPECT_EQ(r.err, "");
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ExitCodeTable,
    ::testing::Values(
        Row{{"/mx", "foo", "W:"}, -103, "Invalid /m option."},
        Row{{"/ma", "NoSuchAlias", "W:"}, -104, "Device with alias specified in the /ma option not found."},
        Row{{"W:"}, -105, "Missing /m command-line option."},
        Row{{"W:", "X:"}, -105, "Missing /m command-line option."},
        Row{{"/sx", "card", "W:"}, -107, "Invalid /s option."},
        Row{{"/u", "C:"}, -112, "Invalid drive letter."},
        Row{{"/u", "w:"}, -112, "Invalid drive letter."},
        Row{{"/mn", "NoSuchDevice", "W:"}, -113, "Device with name specified in the /mn option not found."},
        Row{{"/ms", "NoSuchSerial", "W:"}, -114,
            "Device with serial number specified in the /ms option not found."},
        Row{{"/a", "5", "W:"}, -11, nullptr},
        Row{{"/a", "0", "W:"}, -11, nullptr},
        Row{{"/b", "USB\\VID_1"}, -3, nullptr},
        Row{{"/u", "w:", "/q"}, -112, nullptr},
        Row{{"/q", "/mn", "NoSuchDevice", "W:"}, -113, nullptr},
        Row{{"/l", "W"}, 0, nullptr},
        Row{{"/StiDevice:sim-none", "/StiEvent:{A28BBADE-64B6-11D2-A231-00C04FA31809}"}, 0, nullptr},
        Row{{"/StiDevice:sim-none", "/StiEvent:{00000000-0000-0000-0000-000000000000}"}, 0, nullptr},
        Row{{"/startup"}, 0, nullptr}));

// Codes that end with the usage text and -100.
class UsageCodes : public ::testing::TestWithParam<std::vector<std::string>> {
 protected:
  qbtest::ScopedHome home_;
};

TEST_P(UsageCodes, ShowTheUsageAndEndWithMinus100) {
  auto r = Quillbox(GetParam());
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, -100);
  EXPECT_NE(r.err.find("Quillbox: Command-line usage:"), std::string::npos) << r.err;
}

INSTANTIATE_TEST_SUITE_P(Rows, UsageCodes,
                         ::testing::Values(std::vector<std::string>{"bogus"},          // -10
                                           std::vector<std::string>{"W:x"},            // -10
                                           std::vector<std::string>{"/x"},             // -13
                                           std::vector<std::string>{"/z", "W:"},       // -32
                                           std::vector<std::string>{"W:", "/mn"},      // -32
                                           std::vector<std::string>{"/u", "w:", "/x"}  // -32
                                           ));

TEST(UsageSwitch, PrintsTheUsageOnStandardErrorAndEndsWithZero) {
  qbtest::ScopedHome home;
  auto r = Quillbox({"/?"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.err.find("Quillbox: Command-line usage:\n\nMounting a device to a drive letter:\n"), std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("  quillbox /U W:"), std::string::npos);
}

TEST(UsageSwitch, QuietUsageShowsNothing) {
  qbtest::ScopedHome home;
  auto r = Quillbox({"/q", "/?"});
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.err, "");
}

}  // namespace
