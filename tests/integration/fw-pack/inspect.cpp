// SPDX-License-Identifier: Apache-2.0
// What inspect says of each kind of file, to the letter.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "fw-pack-test.h"
#include "image-information.h"
#include "public-keys.h"

namespace {

using Line = std::pair<std::string, std::string>;

constexpr char kUnsigned[] = "the file does not end with a signature trailer";

std::string hex(const std::string& bytes) {
  return fwpackage::toHex(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string crcOf(const std::string& bytes) {
  const std::uint32_t crc = image::crcOf(bytes);
  char text[32];
  std::snprintf(text, sizeof text, "%u (0x%08x)", crc, crc);
  return text;
}

// A label and a value a line, in two columns.
std::string table(const std::vector<Line>& lines) {
  std::size_t width = 0;
  for (const Line& line : lines) {
    width = std::max(width, line.first.size() + 2);
  }
  std::string text;
  for (const auto& [label, value] : lines) {
    text += label + std::string(width - label.size(), ' ') + value + "\n";
  }
  return text;
}

class Inspected : public PackTest {
 protected:
  // With these words behind it. damage is what it says on standard error, with an exit code.
  static std::string inspect(const std::string& name, const std::vector<std::string>& words = {},
                             const std::string& damage = "") {
    std::vector<std::string> command = {"inspect", name};
    command.insert(command.end(), words.begin(), words.end());
    const ProgramResult result = run(command);
    EXPECT_EQ(result.error, damage.empty() ? "" : "fw-pack: " + damage + "\n" + kRemedy);
    EXPECT_EQ(result.exitCode, damage.empty() ? 0 : 4);
    return result.output;
  }

  static constexpr const char* kRemedy =
      "Copy all files of it again from where they were made, or make them again.\n";
};

TEST_F(Inspected, UsbPackageIsShownWithItsContent) {
  writeKeys();
  ASSERT_EQ(run(usbCommand()).exitCode, 0);
  const fwpackage::KeyId id = testSigningKey("ed25519").keyId();
  const std::string package = read("tunerfw.bin");
  const std::vector<Line> outside = {{"file", "tunerfw.bin"},
                                     {"kind", "USB package"},
                                     {"size", std::to_string(package.size())},
                                     {"size check", "as a package's"},
                                     {"signature", "the signature is valid for tunerfw 2.0.0 (ed25519, key " +
                                                       fwpackage::toHex(id.data(), id.size()) + ")"},
                                     {"IV", hex(package.substr(0, 16))},
                                     {"ciphertext", std::to_string(package.size() - 16 - 534)}};
  std::vector<Line> whole = outside;
  whole.insert(whole.end(), {{"key", "fits"},
                             {"version", "2.0.0"},
                             {"image size", std::to_string(image().size())},
                             {"image CRC", crcOf(image())}});

  EXPECT_EQ(inspect("tunerfw.bin", {"--public-key", "maker.pem", "--key-file", "package.key"}), table(whole));
  EXPECT_EQ(inspect("tunerfw.bin", {"--public-key", "maker.pem"}), table(outside));
}

TEST_F(Inspected, PackageIsShownWithTheModelAndTheMinimumVersionThatItStates) {
  writeKeys();
  std::vector<std::string> command = usbCommand();
  command.insert(command.end(), {"--model", "TV-7", "--minimum-version", "1.5.0"});
  ASSERT_EQ(run(command).exitCode, 0);

  EXPECT_THAT(inspect("tunerfw.bin", {"--public-key", "maker.pem"}),
              HasSubstr(" valid for tunerfw 2.0.0 on TV-7, from then on none below 1.5.0 ("));
}

TEST_F(Inspected, SignatureOfAKeyThatIsNotAtHandIsNotChecked) {
  writeKeys();
  ASSERT_EQ(run(usbCommand()).exitCode, 0);
  const fwpackage::KeyId id = testSigningKey("ed25519").keyId();

  EXPECT_THAT(
      inspect("tunerfw.bin"),
      HasSubstr("not checked: the signer's key is not at hand; give its public half with --public-key "
                "(ed25519, key " +
                fwpackage::toHex(id.data(), id.size()) + ")"));
}

TEST_F(Inspected, UsbPackageThatIsCutOffIsShownAsFarAsItGoes) {
  writeKeys();
  ASSERT_EQ(run(usbCommand()).exitCode, 0);
  write("cut.bin", read("tunerfw.bin").substr(0, 1001));

  EXPECT_EQ(inspect("cut.bin", {"--key-file", "package.key"},
                    "cut.bin has not the size of a USB package: it is cut off, or no package."),
            table({{"file", "cut.bin"},
                   {"kind", "USB package"},
                   {"size", "1001"},
                   {"size check", "NOT a package's"},
                   {"signature", kUnsigned}}));
}

TEST_F(Inspected, ExtensionPackageIsShownWithItsImage) {
  ASSERT_EQ(run({"emp", "image.bin", "--id", "tunerempfw", "--version", "2.0.0", "--expected-time", "30",
                 "--unsigned", "-o", "tunerempfw.img"})
                .exitCode,
            0);
  const std::string package = read("tunerempfw.img");

  EXPECT_EQ(inspect("tunerempfw.img"), table({{"file", "tunerempfw.img"},
                                              {"kind", "extension package image (squashfs)"},
                                              {"size", std::to_string(package.size())},
                                              {"signature", kUnsigned},
                                              {"CRC", crcOf(package)},
                                              {"info.json", "valid"},
                                              {"version", "2.0.0"},
                                              {"stated CRC", crcOf(image())},
                                              {"expected time", "30 s"},
                                              {"image", "tunerfw.bin"},
                                              {"image size", std::to_string(image().size())},
                                              {"image CRC", crcOf(image())},
                                              {"CRC check", "the image is what info.json states"}}));
}

TEST_F(Inspected, ExtensionPackageWithoutContentIsShownAsThat) {
  std::filesystem::create_directory(std::string(kWork) + "empty");
  ASSERT_EQ(
      runProgram({{"mksquashfs", "empty", "empty.img", "-quiet", "-no-progress"}, kWork, 0, {}}).exitCode, 0);
  const std::string package = read("empty.img");

  EXPECT_EQ(inspect("empty.img", {}, "empty.img holds no image (*.bin)."),
            table({{"file", "empty.img"},
                   {"kind", "extension package image (squashfs)"},
                   {"size", std::to_string(package.size())},
                   {"signature", kUnsigned},
                   {"CRC", crcOf(package)},
                   {"info.json", "MISSING or invalid"},
                   {"image", "MISSING"}}));
}

TEST_F(Inspected, FirmwareDirectoryIsShownAsItsImageAndWhatIsStatedOfIt) {
  ASSERT_EQ(run({"image", "image.bin", "--type", "sbox", "--name", "tunerfw", "--version", "2.0.0",
                 "--expected-time", "30", "--into", "out"})
                .exitCode,
            0);
  const std::vector<Line> stated = {
      {"version", "2.0.0"}, {"stated CRC", crcOf(image())}, {"expected time", "30 s"}};
  std::vector<Line> directory = {{"file", "out/tunerfw/tunerfw.bin"},
                                 {"kind", "firmware image, or anything else"},
                                 {"size", std::to_string(image().size())},
                                 {"CRC", crcOf(image())}};
  directory.insert(directory.end(), stated.begin(), stated.end());
  directory.emplace_back("CRC check", "the image is what info.json states");
  std::vector<Line> description = {{"file", "out/tunerfw/info.json"},
                                   {"kind", "description of an image (info.json)"},
                                   {"size", std::to_string(read("out/tunerfw/info.json").size())}};
  description.insert(description.end(), stated.begin(), stated.end());

  EXPECT_EQ(inspect("out/tunerfw"), table(directory));
  EXPECT_EQ(inspect("out/tunerfw/info.json"), table(description));
}

TEST_F(Inspected, DirectoryWithoutAnImageIsRefused) {
  write("out/notes.txt", "x");

  const ProgramResult result = run({"inspect", "out"});

  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_EQ(result.error, "fw-pack: out is a directory without an image (*.bin)\n");
}

TEST_F(Inspected, ImageAloneIsShownWithItsChecksum) {
  EXPECT_EQ(inspect("image.bin"), table({{"file", "image.bin"},
                                         {"kind", "firmware image, or anything else"},
                                         {"size", std::to_string(image().size())},
                                         {"CRC", crcOf(image())}}));
}

}  // namespace
