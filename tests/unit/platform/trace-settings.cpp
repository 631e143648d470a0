// SPDX-License-Identifier: Apache-2.0
// What an integrator chooses about traces by the environment, and who may not.
#include "trace/trace-settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "device-environment.h"

namespace {

namespace fs = std::filesystem;
using fwplatform::trace::Settings;
using fwplatform::trace::settingsFromEnvironment;

struct Number {
  const char* variable;
  std::uint32_t Settings::*field;
  std::uint32_t usual;
  std::uint32_t lowest;
  std::uint32_t highest;
};

// As docs/platform.md has them.
constexpr Number kNumbers[] = {
    {"FW_UPDATE_TRACE_THREAD_KIB", &Settings::threadKib, 256, 64, 16384},
    {"FW_UPDATE_TRACE_THREADS", &Settings::threads, 16, 1, 1024},
    {"FW_UPDATE_TRACE_TOTAL_MIB", &Settings::totalMib, 32, 1, 65536},
    {"FW_UPDATE_TRACE_DAYS", &Settings::days, 7, 1, 3650},
};

class TraceSettings : public DeviceTest {
 protected:
  void TearDown() override {
    unsetenv("FW_UPDATE_TRACE");
    for (const Number& number : kNumbers) {
      unsetenv(number.variable);
    }
  }

  static std::uint32_t with(const Number& number, const std::string& text) {
    setenv(number.variable, text.c_str(), 1);
    return settingsFromEnvironment().*number.field;
  }

  // What the program that prints its settings has, when it is told others.
  static std::string shownBy(const std::string& program) {
    const std::string command =
        "FW_UPDATE_TRACE=/tmp/elsewhere FW_UPDATE_TRACE_THREADS=3 " + program + " >/tmp/shown";
    EXPECT_EQ(std::system(command.c_str()), 0);
    return readFile("/tmp/shown");
  }
};

TEST_F(TraceSettings, HaveTheDocumentedValuesWithoutAnEnvironment) {
  const Settings settings = settingsFromEnvironment();

  EXPECT_EQ(settings.directory, "/run/fw-trace");
  for (const Number& number : kNumbers) {
    EXPECT_EQ(settings.*number.field, number.usual) << number.variable;
  }
}

TEST_F(TraceSettings, TakeNumbersFromTheirLowestToTheirHighest) {
  for (const Number& number : kNumbers) {
    for (const std::uint32_t value : {number.lowest, number.highest}) {
      EXPECT_EQ(with(number, std::to_string(value)), value) << number.variable;
    }
    for (const std::uint32_t value : {number.lowest - 1, number.highest + 1}) {
      EXPECT_EQ(with(number, std::to_string(value)), number.usual) << number.variable << " " << value;
    }
  }
}

TEST_F(TraceSettings, TakeNoOtherTextForANumber) {
  for (const Number& number : kNumbers) {
    const std::string good = std::to_string(number.highest);
    for (const std::string& text : {std::string(), good + "x", " " + good, "-" + good, "+" + good,
                                    good + ".0", std::string("99999999999"), std::string("x")}) {
      EXPECT_EQ(with(number, text), number.usual) << number.variable << " " << text;
    }
  }
}

TEST_F(TraceSettings, NameADirectoryOrNone) {
  setenv("FW_UPDATE_TRACE", "/tmp/elsewhere", 1);
  EXPECT_EQ(settingsFromEnvironment().directory, "/tmp/elsewhere");
  setenv("FW_UPDATE_TRACE", "none", 1);
  EXPECT_EQ(settingsFromEnvironment().directory, "");
  setenv("FW_UPDATE_TRACE", "", 1);
  EXPECT_EQ(settingsFromEnvironment().directory, "/run/fw-trace");
}

// Its caller could have it write anywhere.
TEST_F(TraceSettings, AreNotTheCallersInAProgramWithRaisedPrivileges) {
  constexpr char kProgram[] = "/tmp/program";
  constexpr gid_t kOtherGroup = 65534;
  fs::copy_file(SHOWN_TRACE_SETTINGS, kProgram);
  ASSERT_EQ(shownBy(kProgram), "/tmp/elsewhere 3\n");
  if (chown(kProgram, static_cast<uid_t>(-1), kOtherGroup) != 0) {
    GTEST_SKIP() << "a user namespace has only one group";
  }
  ASSERT_EQ(chmod(kProgram, 02755), 0);

  EXPECT_EQ(shownBy(kProgram), "/run/fw-trace 16\n");
}

}  // namespace
