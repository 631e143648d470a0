// SPDX-License-Identifier: Apache-2.0
#include "trace/trace-directory.h"

#include <sys/stat.h>

#include <cerrno>

#include "device-environment.h"

namespace {

using fwplatform::trace::openTraceDirectory;

class TraceDirectory : public DeviceTest {};

TEST_F(TraceDirectory, IsMadeOrTakenAsItIs) {
  EXPECT_TRUE(openTraceDirectory("/tmp/traces"));
  EXPECT_TRUE(openTraceDirectory("/tmp/traces"));
}

TEST_F(TraceDirectory, HasTheReasonWhyItCannotBeMade) {
  ASSERT_EQ(mkdir("/tmp/closed", 0755), 0);
  ASSERT_EQ(chmod("/tmp/closed", 0555), 0);
  const WithoutFileOverride modesBind;

  EXPECT_FALSE(openTraceDirectory("/tmp/closed/traces"));

  EXPECT_EQ(errno, EACCES);
}

}  // namespace
