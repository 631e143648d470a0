// SPDX-License-Identifier: Apache-2.0
#include "tool-test.h"

#include <filesystem>
#include <memory>
#include <sstream>

#include "image-information.h"

namespace {

// Several of the modules' blocks, so that an update has steps.
constexpr std::size_t kImageSize = 1024 * 1024;

std::string makeImage() {
  std::string image(kImageSize, '\0');
  for (std::size_t i = 0; i < image.size(); ++i) {
    image[i] = static_cast<char>(i * 7 + i / 251);
  }
  return image;
}

Json::Value parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors) || !value.isObject()) {
    ADD_FAILURE() << "no JSON object: " << errors << "\n" << text;
  }
  return value;
}

// Whatever a command may say, its "explain" knows; but for what stands on the command line itself, and
// a percentage.
void expectExplained(const Json::Value& document) {
  const std::string said = document["message"].asString();
  const std::string outcome = document["outcome"].asString();
  if (said.empty() || outcome == "usage" || document["command"].asString() == "progress") {
    return;
  }
  RunningTool explain({"explain", "--", said}, {});
  EXPECT_EQ(explain.finish(), 0) << said << "\n" << explain.err();
}

}  // namespace

void ToolTest::installModule(const std::string& name) {
  std::filesystem::copy_file(FW_MODULES_DIRECTORY "/" + name + ".so", kControls + name + ".so");
}

void ToolTest::installOddModule(const std::string& variant) {
  std::filesystem::copy_file(ODD_MODULES_DIRECTORY "/odd-module-" + variant + ".so",
                             std::string(kControls) + "libodd.so");
}

void ToolTest::installImage(const std::string& firmwareName, const std::string& version,
                            unsigned int expectedTime, const std::string& directory) {
  static const std::string kImage = makeImage();
  static const unsigned int kCrc = image::crcOf(kImage);
  const std::string place = directory + firmwareName + "/";
  writeFile(place + firmwareName + ".bin", kImage);
  writeFile(place + "info.json", image::toText({version, kCrc, expectedTime}));
}

void ToolTest::describeComponent(const std::string& firmwareName, const std::string& lines) {
  writeFile("/var/lib/fw-components/" + firmwareName + ".component", lines + "\n");
}

Ended ToolTest::run(const std::vector<std::string>& arguments, const Launch& launch) {
  Launch quiet = launch;
  quiet.environment.emplace_back("FW_UPDATE_LOG=none");
  RunningTool tool(arguments, quiet);
  const int exitCode = tool.finish();
  return {exitCode, tool.out(), tool.err()};
}

Json::Value ToolTest::document(std::vector<std::string> arguments, const Launch& launch) {
  arguments.emplace_back("--json");
  const Ended ended = run(arguments, launch);
  Json::Value value = parse(ended.out);
  EXPECT_EQ(value["exitCode"].asInt(), ended.exitCode);
  EXPECT_EQ(value["ok"].asBool(), ended.exitCode == 0);
  EXPECT_EQ(ended.err, "");
  expectExplained(value);
  return value;
}

std::vector<Json::Value> ToolTest::lines(const std::string& text) {
  std::vector<Json::Value> values;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    values.push_back(parse(line));
  }
  return values;
}
