#include "firmware-image.h"

#include <json/json.h>

#include <boost/crc.hpp>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <system_error>

namespace sandbox {
namespace fs = std::filesystem;
namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// A reader sees the old file or the new one, never a part.
void replaceFile(const std::string& path, const std::string& content) {
  const auto unfinished = path + ".new";
  std::ofstream file(unfinished, std::ios::binary | std::ios::trunc);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  file.close();
  if (!file) {
    fail("cannot write " + unfinished);
  }
  fs::rename(unfinished, path);
}

}  // namespace

unsigned int imageCrc(const std::string& bytes) {
  boost::crc_optimal<32, 0x01B23CA3, 0, 0, false, false> crc;
  crc.process_bytes(bytes.data(), bytes.size());
  return crc.checksum();
}

std::string imageContent(const std::string& firmwareName, const std::string& version, std::size_t bytes) {
  const auto text = firmwareName + " " + version;
  std::seed_seq seed(text.begin(), text.end());
  std::mt19937 random(seed);
  std::string content;
  content.reserve(bytes + sizeof(std::uint32_t));
  while (content.size() < bytes) {
    const auto word = random();
    for (unsigned int shift = 0; shift < 32; shift += 8) {
      content += static_cast<char>((word >> shift) & 0xFFU);
    }
  }
  content.resize(bytes);
  return content;
}

void writeFirmware(const std::string& directory, const std::string& firmwareName, const std::string& version,
                   std::size_t bytes, unsigned int expectedTimeSeconds) {
  const auto folder = directory + "/" + firmwareName;
  fs::create_directories(folder);
  const auto content = imageContent(firmwareName, version, bytes);
  Json::Value information;
  information["version"] = version;
  information["crc"] = imageCrc(content);
  information["expected_time"] = expectedTimeSeconds;
  replaceFile(folder + "/" + firmwareName + ".bin", content);
  replaceFile(folder + "/info.json", Json::writeString(Json::StreamWriterBuilder(), information) + "\n");
}

void corruptFirmware(const std::string& directory, const std::string& firmwareName) {
  const auto path = directory + "/" + firmwareName + "/" + firmwareName + ".bin";
  const auto middle = static_cast<std::streamoff>(fs::file_size(path) / 2);
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  const auto byte = file.seekg(middle).get();
  file.seekp(middle).put(static_cast<char>(byte ^ 0xFF));
  if (!file.flush()) {
    fail("cannot change " + path);
  }
}

}  // namespace sandbox
