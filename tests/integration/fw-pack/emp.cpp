// emp.
#include <filesystem>

#include "firmware-image.h"
#include "fw-pack-test.h"

namespace fs = std::filesystem;

namespace {

using ::testing::ElementsAre;

class ExtensionPackage : public PackTest {
 protected:
  static ProgramResult make(const std::string& output, const std::string& id = "tunerempfw") {
    return run({"emp", "image.bin", "--id", id, "--version", "2.0.0", "--expected-time", "30", "-o", output});
  }
};

TEST_F(ExtensionPackage, HoldsImageAndDescription) {
  ASSERT_EQ(make("tunerempfw.img").exitCode, 0);

  const Json::Value package = document({"inspect", "tunerempfw.img"});
  EXPECT_EQ(package["kind"].asString(), "emp-image");
  EXPECT_EQ(package["image"].asString(), "tunerfw.bin");
  EXPECT_EQ(package["version"].asString(), "2.0.0");
  EXPECT_EQ(package["imageCrc"].asUInt(), sandbox::imageCrc(image()));
  EXPECT_EQ(package["imageSize"].asUInt(), image().size());
  EXPECT_TRUE(package["crcMatches"].asBool());
}

TEST_F(ExtensionPackage, HasTheSameBytesForTheSameInput) {
  ASSERT_EQ(make("one.img").exitCode, 0);
  fs::last_write_time(std::string(kWork) + "image.bin", fs::file_time_type());
  fs::permissions(std::string(kWork) + "image.bin", fs::perms(0600));
  const std::string again = "umask 077; SOURCE_DATE_EPOCH=5 TZ=Asia/Tokyo " FW_PACK_PROGRAM
                            " emp image.bin --id tunerempfw --version 2.0.0 --expected-time 30 -o two.img";
  ASSERT_EQ(runProgram({{"sh", "-c", again}, kWork, 0, {}}).exitCode, 0);

  EXPECT_EQ(read("one.img"), read("two.img"));
}

TEST_F(ExtensionPackage, HasOtherBytesForAnotherImage) {
  ASSERT_EQ(make("one.img").exitCode, 0);
  write("image.bin", "another image");
  ASSERT_EQ(make("two.img").exitCode, 0);

  EXPECT_NE(read("one.img"), read("two.img"));
}

TEST_F(ExtensionPackage, NeedsAnIdentifierThatTheLibraryTakes) {
  EXPECT_EQ(make("x.img", "tunerfw").exitCode, 2);
  EXPECT_EQ(make("x.img", "emp").exitCode, 2);
  EXPECT_EQ(make("x.img", "tuner-empfw").exitCode, 2);
  EXPECT_THAT(filesInWork(), ElementsAre("image.bin"));
}

TEST_F(ExtensionPackage, IsNamedAfterItsIdentifier) {
  ASSERT_EQ(
      run({"emp", "image.bin", "--id", "tunerempfw", "--version", "1", "--expected-time", "1"}).exitCode, 0);

  EXPECT_THAT(filesInWork(), ElementsAre("image.bin", "tunerempfw.img"));
}

}  // namespace
