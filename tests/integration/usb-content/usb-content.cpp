// SPDX-License-Identifier: Apache-2.0
// A second process changes a byte of the package at every point between its verification
// and its use.
#include <sys/stat.h>

#include <functional>

#include "changing-process.h"
#include "content-test.h"
#include "thoroughness.h"

namespace {

constexpr int kRepetitions = 20;

// Called at each point that the verifier and the module reach.
std::function<void()>& reached() {
  static auto& instance = *new std::function<void()>;
  return instance;
}

void reachedPoint() {
  if (reached()) {
    reached()();
  }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void verifierReached() {
  reachedPoint();
}

namespace {

struct Way {
  const char* name;
  void (ChangingProcess::*change)(off_t offset);
};

constexpr Way kWays[] = {{"ByWrite", &ChangingProcess::changeByWrite},
                         {"InASharedMapping", &ChangingProcess::changeInMapping}};

void PrintTo(const Way& way, std::ostream* out) {
  *out << way.name;
}

class ByteChangedBySomebody : public ContentTest, public ::testing::WithParamInterface<Way> {
 protected:
  using Step = int (ByteChangedBySomebody::*)();

  void SetUp() override {
    ContentTest::SetUp();
    process_ = std::make_unique<ChangingProcess>(kPackage);
    installVerifier(HOOKED_VERIFIER);
    scripted::module("libabc").setContext = [](const char*, int, char*) {
      reachedPoint();
      return 0;
    };
  }
  void TearDown() override { reached() = nullptr; }

  int listing() { return list(); }
  int updating() { return update(); }

  int pointsOf(Step step) {
    layPackage();
    int points = 0;
    reached() = [&points] { ++points; };
    const int expected = step == &ByteChangedBySomebody::listing ? 1 : 0;
    EXPECT_EQ((this->*step)(), expected) << "without a change";
    reached() = nullptr;
    forget();
    return points;
  }

  // Runs the step, with a change at this point; the step's result.
  int changedAt(Step step, int point, off_t offset) {
    layPackage();
    reached() = [this, left = point, offset]() mutable {
      if (left-- == 0) {
        (*process_.*GetParam().change)(offset);
      }
    };
    const int result = (this->*step)();
    reached() = nullptr;
    return result;
  }

  // The first points come before anything is read into memory.
  void sweep(Step step, int expected) {
    const int points = pointsOf(step);
    EXPECT_GT(points, 10);
    int refused = 0;
    for (int point = 0; point < points; point += thoroughness::kEveryNth) {
      for (int repetition = 0; repetition < kRepetitions; ++repetition) {
        const auto offset = static_cast<off_t>(package.size() - 1) * repetition / (kRepetitions - 1);

        const int result = changedAt(step, point, offset);

        ASSERT_TRUE(result == -1 || result == expected) << result;
        ASSERT_FALSE(gotOtherBytes()) << "point " << point << ", byte " << offset;
        ASSERT_EQ(images.empty(), result != 0) << "the module gets what is not refused";
        if (point < kPointsBeforeReading) {
          ASSERT_EQ(result, -1) << "point " << point << ", byte " << offset;
        }
        refused += result == -1 ? 1 : 0;
        forget();
      }
    }
    RecordProperty("points", points);
    RecordProperty("refused", refused);
  }

  void sweepListing() { sweep(&ByteChangedBySomebody::listing, 1); }
  void sweepUpdate() { sweep(&ByteChangedBySomebody::updating, 0); }

  static constexpr int kPointsBeforeReading = 5;  // around verifyFile, setContext, around the beginning

 private:
  void layPackage() {
    writeFile(kPackage, package);
    process_->prepare();
  }

  std::unique_ptr<ChangingProcess> process_;
};

}  // namespace

TEST_P(ByteChangedBySomebody, NeverReachesTheModuleWhenItIsListed) {
  sweepListing();
}

TEST_P(ByteChangedBySomebody, NeverReachesTheModuleWhenItIsUpdated) {
  sweepUpdate();
}

TEST_P(ByteChangedBySomebody, IsSeenInTheFile) {
  writeFile(kPackage, package);
  ChangingProcess other(kPackage);
  other.prepare();
  struct stat before = {};
  ASSERT_EQ(stat(kPackage, &before), 0);

  (other.*GetParam().change)(100);

  std::string changed = package;
  changed[100] = static_cast<char>(changed[100] ^ 1);
  EXPECT_EQ(readFile(kPackage), changed);
}

INSTANTIATE_TEST_SUITE_P(UsbContent, ByteChangedBySomebody, ::testing::ValuesIn(kWays),
                         [](const auto& row) { return std::string(row.param.name); });
