// SPDX-License-Identifier: Apache-2.0
#include "privileged/privileged-request.h"

#include <vector>

namespace fwplatform {
namespace {

constexpr std::size_t kLongestName = 255;

struct MountOption {
  std::string_view name;
  bool required;
};

// "loop" is among the required ones: only image files are ever mounted.
constexpr MountOption kMountOptions[] = {
    {"ro", true}, {"loop", true}, {"nodev", true}, {"nosuid", true}, {"noexec", false},
};

constexpr std::string_view kNodePrefix = "-m 0660 -Z * /dev/loop";

// Splits at every single separator, so that two in a row leave an empty word.
std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> words;
  for (;;) {
    const std::size_t end = text.find(separator);
    words.push_back(text.substr(0, end));
    if (end == std::string_view::npos) {
      return words;
    }
    text.remove_prefix(end + 1);
  }
}

bool hasOption(const std::vector<std::string_view>& options, std::string_view name) {
  for (const std::string_view option : options) {
    if (option == name) {
      return true;
    }
  }
  return false;
}

bool isKnownOption(std::string_view name) {
  for (const MountOption& known : kMountOptions) {
    if (known.name == name) {
      return true;
    }
  }
  return false;
}

// What is wrong with a list of mount options, "" when nothing is.
std::string optionsRefusal(const std::vector<std::string_view>& options) {
  for (std::size_t i = 0; i < options.size(); ++i) {
    if (!isKnownOption(options[i])) {
      return "the mount option \"" + std::string(options[i]) + "\" is not allowed";
    }
    if (hasOption({options.begin(), options.begin() + static_cast<std::ptrdiff_t>(i)}, options[i])) {
      return "the mount option \"" + std::string(options[i]) + "\" is given twice";
    }
  }
  for (const MountOption& known : kMountOptions) {
    if (known.required && !hasOption(options, known.name)) {
      return "the mount option \"" + std::string(known.name) + "\" is missing";
    }
  }
  return "";
}

// No leading dot: that leaves out "." and ".." with the hidden names.
bool isPlainName(std::string_view name) {
  constexpr std::string_view kAllowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  return !name.empty() && name.size() <= kLongestName && name.front() != '.' &&
         name.find_first_not_of(kAllowed) == std::string_view::npos;
}

// The name of what lies directly in a directory; false, with the reason, for any
// other path.
bool nameIn(std::string_view directory, std::string_view path, std::string& name, std::string& refusal) {
  const bool inside = path.size() > directory.size() && path.substr(0, directory.size()) == directory &&
                      path[directory.size()] == '/';
  if (!inside || !isPlainName(path.substr(directory.size() + 1))) {
    refusal = "\"" + std::string(path) + "\" is not a plain name directly in " + std::string(directory);
    return false;
  }
  name = path.substr(directory.size() + 1);
  return true;
}

std::optional<PrivilegedRequest> parseMount(std::string_view text, std::string& refusal) {
  const std::vector<std::string_view> words = split(text, ' ');
  if (words.size() != 4 || words[0] != "-o") {
    refusal = "the text is not of the form \"-o OPTIONS IMAGE DIRECTORY\"";
    return std::nullopt;
  }
  const std::vector<std::string_view> options = split(words[1], ',');
  refusal = optionsRefusal(options);
  MountRequest request;
  request.noExec = hasOption(options, "noexec");
  if (!refusal.empty() || !nameIn(kPackageDirectory, words[2], request.imageName, refusal) ||
      !nameIn(kMountParent, words[3], request.directoryName, refusal)) {
    return std::nullopt;
  }
  return request;
}

// A number from 0 to 249 as it is printed: digits only, no leading zero.
std::optional<unsigned> parseLoopNumber(std::string_view digits) {
  if (digits.empty() || digits.size() > 3 || (digits.size() > 1 && digits.front() == '0')) {
    return std::nullopt;
  }
  unsigned number = 0;
  for (const char digit : digits) {
    if (digit < '0' || digit > '9') {
      return std::nullopt;
    }
    number = number * 10 + static_cast<unsigned>(digit - '0');
  }
  return number <= kHighestLoopNumber ? std::optional<unsigned>(number) : std::nullopt;
}

std::optional<PrivilegedRequest> parseMknod(std::string_view text, std::string& refusal) {
  refusal = "the text is not of the form \"-m 0660 -Z * /dev/loopN  b 7 N\"";
  if (text.substr(0, kNodePrefix.size()) != kNodePrefix) {
    return std::nullopt;
  }
  const std::string_view rest = text.substr(kNodePrefix.size());
  const std::string_view digits = rest.substr(0, rest.find(' '));
  const std::optional<unsigned> number = parseLoopNumber(digits);
  if (!number) {
    refusal = "only the nodes /dev/loop0 to /dev/loop249 are made";
    return std::nullopt;
  }
  // The two blanks and the same number again: all that may follow.
  if (rest.substr(digits.size()) != "  b 7 " + std::string(digits)) {
    return std::nullopt;
  }
  refusal.clear();
  return MknodRequest{*number};
}

std::optional<PrivilegedRequest> parseUmount(std::string_view text, std::string& refusal) {
  UmountRequest request;
  if (!nameIn(kMountParent, text, request.directoryName, refusal)) {
    return std::nullopt;
  }
  return request;
}

struct OperationForm {
  PrivilegedOperation operation;
  const char* name;
  bool terminated;
  std::optional<PrivilegedRequest> (*parse)(std::string_view text, std::string& refusal);
};

constexpr OperationForm kOperations[] = {
    {PrivilegedOperation::Mount, "mount", true, parseMount},
    {PrivilegedOperation::Mknod, "mknod", true, parseMknod},
    {PrivilegedOperation::Umount, "umount", false, parseUmount},
};

const OperationForm* formOf(PrivilegedOperation operation) {
  for (const OperationForm& form : kOperations) {
    if (form.operation == operation) {
      return &form;
    }
  }
  return nullptr;
}

}  // namespace

const char* nameOf(PrivilegedOperation operation) {
  const OperationForm* form = formOf(operation);
  return form == nullptr ? "unknown operation" : form->name;
}

std::optional<PrivilegedRequest> parsePrivilegedRequest(PrivilegedOperation operation, std::string_view text,
                                                        std::string& refusal) {
  const OperationForm* form = formOf(operation);
  if (form == nullptr) {
    refusal = "unknown operation";
    return std::nullopt;
  }
  if (text.size() > kPrivilegedTextCapacity) {
    refusal = "the text is too long";
    return std::nullopt;
  }
  if (form->terminated) {
    if (text.empty() || text.back() != '\0') {
      refusal = "the text is not terminated";
      return std::nullopt;
    }
    text.remove_suffix(1);
  }
  return form->parse(text, refusal);
}

}  // namespace fwplatform
