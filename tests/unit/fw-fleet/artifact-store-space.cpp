// SPDX-License-Identifier: Apache-2.0
// On a disk of a known size.
#include <gmock/gmock.h>

#include "artifact-store.h"
#include "device-environment.h"
#include "temporary-mount.h"

namespace {

constexpr std::int64_t kMiB = std::int64_t{1} << 20;

class FleetStoreSpace : public DeviceTest {};

TEST_F(FleetStoreSpace, LeavesATwentiethOfTheDiskToOthers) {
  const TemporaryMount disk = TemporaryMount::memory("/tmp", "size=100m");
  const fleet::ArtifactStore store("/tmp/store");

  EXPECT_NO_THROW(store.requireSpace(94 * kMiB));
  try {
    store.requireSpace(95 * kMiB + 1);
    ADD_FAILURE() << "there is room";
  } catch (const fleet::StoreFailure& failure) {
    EXPECT_EQ(failure.trouble(), fleet::StoreTrouble::NoSpace);
    EXPECT_THAT(failure.what(),
                ::testing::MatchesRegex("There is no room for the update: it needs 99614721 bytes, and "
                                        "99[0-9]+ are free for it\\."));
  }
}

}  // namespace
