// SPDX-License-Identifier: Apache-2.0
#include "metrics.h"

#include <gmock/gmock.h>

#include "device-environment.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

history::Total total(const std::string& module, const std::string& outcome, std::int64_t count,
                     std::int64_t last, const std::string& version) {
  return {module, outcome, count, 1.5, last, version};
}

TEST(HistoryMetrics, AreWhatPrometheusReads) {
  const std::string text = history::metricsOf(
      {total("libtuner", "module-failed", 1, 5000, "1.0"), total("libtuner", "updated", 3, 4500, "2.0")},
      true);

  EXPECT_EQ(text,
            "# HELP fw_update_attempts_total Attempts to update.\n"
            "# TYPE fw_update_attempts_total counter\n"
            "fw_update_attempts_total{module=\"libtuner\",outcome=\"module-failed\"} 1\n"
            "fw_update_attempts_total{module=\"libtuner\",outcome=\"updated\"} 3\n"
            "# HELP fw_update_seconds_total How long they took.\n"
            "# TYPE fw_update_seconds_total counter\n"
            "fw_update_seconds_total{module=\"libtuner\",outcome=\"module-failed\"} 1.500\n"
            "fw_update_seconds_total{module=\"libtuner\",outcome=\"updated\"} 1.500\n"
            "# HELP fw_update_last_attempt_timestamp_seconds When the last of them ended.\n"
            "# TYPE fw_update_last_attempt_timestamp_seconds gauge\n"
            "fw_update_last_attempt_timestamp_seconds{module=\"libtuner\",outcome=\"module-failed\"} 5.000\n"
            "fw_update_last_attempt_timestamp_seconds{module=\"libtuner\",outcome=\"updated\"} 4.500\n"
            "# HELP fw_update_last_success_timestamp_seconds When the module was last updated.\n"
            "# TYPE fw_update_last_success_timestamp_seconds gauge\n"
            "fw_update_last_success_timestamp_seconds{module=\"libtuner\"} 4.500\n"
            "# HELP fw_update_version_info The version that the module had after its last attempt.\n"
            "# TYPE fw_update_version_info gauge\n"
            "fw_update_version_info{module=\"libtuner\",version=\"1.0\"} 1\n"
            "# HELP fw_update_lock_taken 1 when the update lock was taken after the last attempt.\n"
            "# TYPE fw_update_lock_taken gauge\n"
            "fw_update_lock_taken 1\n");
}

TEST(HistoryMetrics, HaveNoSuccessOfARunOverSeveralModules) {
  const std::string text = history::metricsOf({total("", "updated", 1, 1, "")}, std::nullopt);

  EXPECT_THAT(text, HasSubstr("fw_update_attempts_total{module=\"\",outcome=\"updated\"} 1\n"));
  EXPECT_THAT(text, Not(HasSubstr("last_success_timestamp_seconds{")));
}

TEST(HistoryMetrics, HaveTheVersionOfASetWhoseClockBeginsIn1970) {
  const std::string text = history::metricsOf({total("libtuner", "updated", 1, 0, "2.0")}, std::nullopt);

  EXPECT_THAT(text, HasSubstr("fw_update_version_info{module=\"libtuner\",version=\"2.0\"} 1\n"));
}

TEST(HistoryMetrics, EscapeWhatWouldEndALabel) {
  const std::string text = history::metricsOf({total("a\"b\\c\nd", "updated", 1, 1, "")}, std::nullopt);

  EXPECT_THAT(text, HasSubstr("{module=\"a\\\"b\\\\c\\nd\",outcome=\"updated\"} 1\n"));
  EXPECT_THAT(text, Not(HasSubstr("version=")));
  EXPECT_THAT(text, Not(HasSubstr("fw_update_lock_taken")));
}

class MetricsFile : public DeviceTest {};

TEST_F(MetricsFile, IsReplacedAsAWhole) {
  writeFile("/tmp/metrics/fw_update.prom", "old");

  EXPECT_EQ(history::writeMetrics("/tmp/metrics/fw_update.prom", "new\n"), "");

  EXPECT_EQ(readFile("/tmp/metrics/fw_update.prom"), "new\n");
  EXPECT_FALSE(exists("/tmp/metrics/fw_update.prom.new"));
}

TEST_F(MetricsFile, ThatCannotBeWrittenIsNamed) {
  EXPECT_EQ(history::writeMetrics("/tmp/nowhere/a.prom", "x"),
            "The metrics /tmp/nowhere/a.prom cannot be written: No such file or directory.");
}

}  // namespace
