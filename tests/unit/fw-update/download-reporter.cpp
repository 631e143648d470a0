// SPDX-License-Identifier: Apache-2.0
#include "progress/download-reporter.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pty.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <iostream>

#include "clean-output.h"
#include "file-descriptor.h"

namespace {

using appbinaryManager::DownloadProgress;
using ::testing::HasSubstr;
using tool::DownloadReporter;
using tool::Options;

DownloadProgress received(std::int64_t bytes, std::int64_t total) {
  DownloadProgress progress;
  progress.received = bytes;
  progress.total = total;
  return progress;
}

// What a reporter prints of packages that have come so far, one after the other.
class Telling {
 public:
  explicit Telling(const Options& options) : reporter_(tool::makeDownloadReporter(options)) {}

  std::string start() {
    return printed([this] { reporter_->start("wififw"); });
  }
  std::string tick(std::int64_t bytes, std::int64_t total) {
    return printed([&] { reporter_->tick("wififw", received(bytes, total)); });
  }
  std::string finish() {
    return printed([this] { reporter_->finish(); });
  }

 private:
  template <typename Action>
  static std::string printed(const Action& action) {
    ::testing::internal::CaptureStdout();
    action();
    return ::testing::internal::GetCapturedStdout();
  }

  std::unique_ptr<DownloadReporter> reporter_;
};

// As it goes to a terminal.
std::string lineOf(const std::string& text) {
  return base::terminalOrder(base::Order::LineStart) + text + base::terminalOrder(base::Order::EraseToEnd);
}

Options events() {
  Options options;
  options.ndjson = true;
  return options;
}

TEST(DownloadPercent, IsNotKnownWithoutASize) {
  EXPECT_EQ(tool::percentOf(received(5, -1)), std::nullopt);
  EXPECT_EQ(tool::percentOf(received(0, 0)), std::nullopt);
}

TEST(DownloadPercent, IsRoundedDownAndAtMostAll) {
  EXPECT_EQ(tool::percentOf(received(0, 1)), 0u);
  EXPECT_EQ(tool::percentOf(received(299, 1000)), 29u);
  EXPECT_EQ(tool::percentOf(received(1000, 1000)), 100u);
  EXPECT_EQ(tool::percentOf(received(2000, 1000)), 100u);
}

TEST(DownloadReporter, PrintsALineForEveryTenPercent) {
  Telling lines{Options()};

  EXPECT_EQ(lines.start(), "");
  EXPECT_EQ(lines.tick(0, 1000), "wififw: 0 %, 0 of 1000 bytes\n");
  EXPECT_EQ(lines.tick(99, 1000), "");
  EXPECT_EQ(lines.tick(100, 1000), "wififw: 10 %, 100 of 1000 bytes\n");
  EXPECT_EQ(lines.tick(1000, 1000), "wififw: 100 %, 1000 of 1000 bytes\n");
}

TEST(DownloadReporter, PrintsNoLineWithoutASize) {
  Telling lines{Options()};

  EXPECT_EQ(lines.tick(99, -1), "");
}

TEST(DownloadReporter, BeginsAnewForTheNextPackage) {
  Telling lines{Options()};
  lines.tick(1000, 1000);

  EXPECT_EQ(lines.finish(), "");

  EXPECT_EQ(lines.tick(1000, 1000), "wififw: 100 %, 1000 of 1000 bytes\n");
}

TEST(DownloadReporter, HasAnEventForWhatIsNew) {
  Telling telling{events()};

  EXPECT_EQ(telling.start(), "{\"event\":\"start\",\"package\":\"wififw\"}\n");
  EXPECT_EQ(telling.tick(0, -1), "") << "the server has not answered yet";
  EXPECT_THAT(telling.tick(0, 1000), HasSubstr("\"percent\":0,\"received\":0,\"total\":1000}\n"));
  EXPECT_EQ(telling.tick(0, 1000), "");
  EXPECT_EQ(telling.tick(500, 1000),
            "{\"event\":\"progress\",\"package\":\"wififw\",\"percent\":50,"
            "\"received\":500,\"total\":1000}\n");
  EXPECT_EQ(telling.finish(), "");
  EXPECT_NE(telling.tick(500, 1000), "") << "of the next package";
}

TEST(DownloadReporter, NamesNoSizeThatIsNotKnown) {
  Telling telling{events()};

  EXPECT_EQ(telling.tick(7, -1), "{\"event\":\"progress\",\"package\":\"wififw\",\"received\":7}\n");
  EXPECT_EQ(telling.tick(8, 0),
            "{\"event\":\"progress\",\"package\":\"wififw\",\"received\":8,\"total\":0}\n");
}

TEST(DownloadReporter, SaysNothingBeforeADocument) {
  Options document;
  document.json = true;
  Telling telling{document};

  EXPECT_EQ(telling.start() + telling.tick(500, 1000) + telling.finish(), "");
}

TEST(DownloadReporter, RedrawsOneLineOnATerminal) {
  int controlling = -1;
  int shown = -1;
  ASSERT_EQ(openpty(&controlling, &shown, nullptr, nullptr, nullptr), 0);
  const base::FileDescriptor screen(controlling);
  const base::FileDescriptor output(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3));
  setenv("TERM", "xterm", 1);
  std::cout.flush();
  dup2(shown, STDOUT_FILENO);
  close(shown);

  const auto reporter = tool::makeDownloadReporter({});
  reporter->start("wififw");
  reporter->tick("wififw", received(70, -1));
  reporter->tick("wififw", received(500, 1000));
  reporter->finish();
  std::cout << "over" << std::flush;
  dup2(output.get(), STDOUT_FILENO);

  std::string text;
  std::array<char, 1000> piece{};
  while (text.find("over") == std::string::npos) {
    const ssize_t size = read(screen.get(), piece.data(), piece.size());
    ASSERT_GT(size, 0) << text;
    text.append(piece.data(), static_cast<std::size_t>(size));
  }
  EXPECT_EQ(text, lineOf("wififw: 70 bytes") + lineOf("wififw: 50 %, 500 of 1000 bytes") + base::emptyLine() +
                      "over");
}

}  // namespace
