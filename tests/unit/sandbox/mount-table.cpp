// Which path lies in which, and where something is mounted.
#include "mount-table.h"

#include <sys/mount.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "device-environment.h"

namespace fs = std::filesystem;

namespace {

class MountTable : public DeviceTest {};

TEST_F(MountTable, TellsWhatLiesBelowADirectory) {
  EXPECT_TRUE(sandbox::isBelow("/opt/media/USBDriveA", "/opt/media"));
  EXPECT_TRUE(sandbox::isBelow("/a/b", "/a"));
  EXPECT_TRUE(sandbox::isBelow("/a", "")) << "everything is below the root";
  for (const char* path :
       {"/opt/media", "/opt/media/", "/opt/mediaplayer", "/opt/medi", "/opt", "", "/srv/opt/media/x"}) {
    EXPECT_FALSE(sandbox::isBelow(path, "/opt/media")) << path;
  }
}

TEST_F(MountTable, TakesADirectoryForWithinItself) {
  EXPECT_TRUE(sandbox::isWithin("/opt/media", "/opt/media"));
  EXPECT_TRUE(sandbox::isWithin("/opt/media/x", "/opt/media"));
  EXPECT_FALSE(sandbox::isWithin("/opt/mediaplayer", "/opt/media"));
  EXPECT_FALSE(sandbox::isWithin("/opt", "/opt/media"));
}

TEST_F(MountTable, NamesPlacesAsTheyAre) {
  for (const std::string place : {"/tmp/plain", "/tmp/two words", "/tmp/back\\slash", "/tmp/\\0418",
                                  "/tmp/ends\\04", "/tmp/tab\tand\nline"}) {
    fs::create_directory(place);
    ASSERT_EQ(mount("tmpfs", place.c_str(), "tmpfs", 0, nullptr), 0) << place;

    const auto points = sandbox::mountPoints();

    EXPECT_EQ(points.back(), place);
    umount(place.c_str());
  }
}

}  // namespace
