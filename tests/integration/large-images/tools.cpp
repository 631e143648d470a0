// SPDX-License-Identifier: Apache-2.0
// What makers do with large images.
#include <gtest/gtest.h>

#include "device-environment.h"
#include "files.h"
#include "sparse-image.h"

namespace {

class LargeInput : public DeviceTest {};

TEST_F(LargeInput, IsReadBeyondFourGibibytes) {
  markedImage(4 * kGibibyte + 100).write("/tmp/image");

  const fwpack::InputFile image("/tmp/image");

  EXPECT_EQ(image.size(), 4 * kGibibyte + 100);
  EXPECT_EQ(image.text(4 * kGibibyte + 97, 100), "end");
  EXPECT_EQ(image.text(2 * kGibibyte - 3, 14), "edge2147483648");
}

}  // namespace
