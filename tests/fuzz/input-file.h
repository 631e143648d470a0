// SPDX-License-Identifier: Apache-2.0
// A file whose content is the input, for what is tested by its path. Rewritten for
// each input; one thread.
#ifndef FUZZ_INPUT_FILE_H
#define FUZZ_INPUT_FILE_H

#include <string>
#include <string_view>

namespace fuzz {

class InputFile {
 public:
  // In memory, without a place in any directory.
  InputFile();
  // At a path of the device; made with its directories.
  explicit InputFile(std::string path);
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;
  ~InputFile();

  void fill(std::string_view content);
  const std::string& path() const { return path_; }

 private:
  int descriptor_;
  std::string path_;
};

}  // namespace fuzz

#endif
