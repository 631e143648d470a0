// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include <gmock/gmock.h>

#include "device-environment.h"

namespace {

class HistorySettings : public DeviceTest {
 protected:
  static history::SettingsRead of(const std::string& content) {
    writeFile("/etc/fw-update/history.conf", content);
    return history::readSettings();
  }
};

TEST_F(HistorySettings, AreTheDefaultsWithoutAFile) {
  const auto read = history::readSettings();

  EXPECT_EQ(read.problem, "");
  EXPECT_EQ(read.settings.mostEntries, 1000);
  EXPECT_EQ(read.settings.mostKib, 4096);
  EXPECT_EQ(read.settings.metrics, "");
  EXPECT_EQ(read.settings.directory, "/var/lib/fw-update");
}

TEST_F(HistorySettings, AreReadFromTheFile) {
  const auto read =
      of("# a comment\n\n max_entries = 50  # few\nmax_size_kib=300\r\nmetrics = /tmp/a b.prom\n");

  EXPECT_EQ(read.problem, "");
  EXPECT_EQ(read.settings.mostEntries, 50);
  EXPECT_EQ(read.settings.mostKib, 300);
  EXPECT_EQ(read.settings.metrics, "/tmp/a b.prom");
}

TEST_F(HistorySettings, NameAWrongLineAndTakeTheOthers) {
  const struct {
    const char* line;
    const char* problem;
  } wrong[] = {
      {"max_entries = 9", "max_entries must be a whole number from 10 to 1000000"},
      {"max_entries = 1000001", "max_entries must be a whole number from 10 to 1000000"},
      {"max_size_kib = 255", "max_size_kib must be a whole number from 256 to 1048576"},
      {"max_size_kib = 300x", "max_size_kib must be a whole number from 256 to 1048576"},
      {"metrics = a.prom", "metrics must be an absolute path that ends with .prom"},
      {"metrics = /a", "metrics must be an absolute path that ends with .prom"},
      {"metrics =", "metrics must be an absolute path that ends with .prom"},
      {"colour = red", "there is no setting colour"},
      {"max_entries", "it has no \"=\""},
  };
  for (const auto& one : wrong) {
    const auto read = of("\n" + std::string(one.line) + "\nmax_size_kib = 512\n");

    EXPECT_EQ(read.problem, "/etc/fw-update/history.conf, line 2: " + std::string(one.problem));
    EXPECT_EQ(read.settings.mostEntries, 1000);
    EXPECT_EQ(read.settings.mostKib, 512);
  }
}

TEST_F(HistorySettings, SayWhenTheFileCannotBeRead) {
  const auto read = of(std::string(70000, '#'));

  EXPECT_EQ(read.problem, "/etc/fw-update/history.conf cannot be read: File too large");
}

}  // namespace
