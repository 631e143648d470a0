// SPDX-License-Identifier: Apache-2.0
#include "temporary-folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

TEST(TemporaryFolder, IsGoneWithWhatIsInIt) {
  std::string path;
  {
    const base::TemporaryFolder folder(fs::temp_directory_path() / "test");
    path = folder.path();
    std::ofstream(path + "/file") << "x";
    EXPECT_TRUE(fs::is_directory(path));
  }

  EXPECT_FALSE(fs::exists(path));
}

TEST(TemporaryFolder, SaysWhereItCannotBeMade) {
  try {
    const base::TemporaryFolder folder("/no-such-folder/test");
    FAIL() << "made " << folder.path();
  } catch (const std::system_error& refused) {
    EXPECT_NE(std::string(refused.what()).find("no temporary directory can be made at /no-such-folder/test"),
              std::string::npos);
  }
}

}  // namespace
