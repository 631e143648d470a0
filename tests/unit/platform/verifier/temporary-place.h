// SPDX-License-Identifier: Apache-2.0
// A directory of the test's own, removed with it.
#ifndef TESTS_UNIT_VERIFIER_TEMPORARY_PLACE_H
#define TESTS_UNIT_VERIFIER_TEMPORARY_PLACE_H

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "temporary-folder.h"

class TemporaryPlace : public ::testing::Test {
 protected:
  std::string path(const std::string& name) const { return directory_.path() + "/" + name; }
  std::string place() const { return directory_.path(); }
  void write(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
    std::ofstream(path(name), std::ios::binary | std::ios::trunc) << content;
  }
  std::string read(const std::string& name) const {
    std::ifstream file(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

 private:
  const base::TemporaryFolder directory_{std::filesystem::temp_directory_path() / "fw-test"};
};

#endif
