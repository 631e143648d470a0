// SPDX-License-Identifier: Apache-2.0
// Which path lies in which, and where something is mounted.
#include "mount-table.h"

#include <sys/mount.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "device-environment.h"

namespace fs = std::filesystem;

namespace {

class MountedPlaces : public DeviceTest {};

TEST_F(MountedPlaces, TellsWhatLiesBelowADirectory) {
  EXPECT_TRUE(base::isBelow("/opt/media/USBDriveA", "/opt/media"));
  EXPECT_TRUE(base::isBelow("/a/b", "/a"));
  EXPECT_TRUE(base::isBelow("/a", "")) << "everything is below the root";
  for (const char* path :
       {"/opt/media", "/opt/media/", "/opt/mediaplayer", "/opt/medi", "/opt", "", "/srv/opt/media/x"}) {
    EXPECT_FALSE(base::isBelow(path, "/opt/media")) << path;
  }
}

TEST_F(MountedPlaces, TakesADirectoryForWithinItself) {
  EXPECT_TRUE(base::isWithin("/opt/media", "/opt/media"));
  EXPECT_TRUE(base::isWithin("/opt/media/x", "/opt/media"));
  EXPECT_FALSE(base::isWithin("/opt/mediaplayer", "/opt/media"));
  EXPECT_FALSE(base::isWithin("/opt", "/opt/media"));
}

TEST_F(MountedPlaces, NamesPlacesAsTheyAre) {
  for (const std::string place : {"/tmp/plain", "/tmp/two words", "/tmp/back\\slash", "/tmp/\\0418",
                                  "/tmp/ends\\04", "/tmp/tab\tand\nline"}) {
    fs::create_directory(place);
    ASSERT_EQ(mount("tmpfs", place.c_str(), "tmpfs", 0, nullptr), 0) << place;

    const auto points = base::mountPoints();

    EXPECT_EQ(points.back(), place);
    umount(place.c_str());
  }
}

}  // namespace
