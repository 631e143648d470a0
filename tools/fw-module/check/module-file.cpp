// SPDX-License-Identifier: Apache-2.0
#include "module-file.h"

#include <elf.h>
#include <link.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace fwmodule {
namespace {

// The processors that this program may run on.
#if defined(__x86_64__)
constexpr unsigned int kMachine = EM_X86_64;
constexpr char kProcessor[] = "64-bit x86";
#elif defined(__i386__)
constexpr unsigned int kMachine = EM_386;
constexpr char kProcessor[] = "32-bit x86";
#elif defined(__aarch64__)
constexpr unsigned int kMachine = EM_AARCH64;
constexpr char kProcessor[] = "64-bit ARM";
#elif defined(__arm__)
constexpr unsigned int kMachine = EM_ARM;
constexpr char kProcessor[] = "32-bit ARM";
#else
#error "which ELF machine is this?"
#endif

constexpr unsigned char kClass = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;

class Damaged : public std::runtime_error {
 public:
  Damaged() : runtime_error("The file is cut off or damaged.") {}
};

// Reads within the file or throws Damaged.
class Reader {
 public:
  explicit Reader(const std::string& bytes) : bytes_(bytes) {}

  template <typename Value>
  Value at(std::uint64_t offset) const {
    Value value = {};
    if (offset > bytes_.size() || bytes_.size() - offset < sizeof value) {
      throw Damaged();
    }
    std::memcpy(&value, bytes_.data() + static_cast<std::size_t>(offset), sizeof value);
    return value;
  }

  std::string text(std::uint64_t offset) const {
    if (offset >= bytes_.size()) {
      throw Damaged();
    }
    const auto begin = static_cast<std::size_t>(offset);
    const std::size_t end = bytes_.find('\0', begin);
    if (end == std::string::npos) {
      throw Damaged();
    }
    return bytes_.substr(begin, end - begin);
  }

 private:
  const std::string& bytes_;
};

std::string problemOf(const Reader& file) {
  const auto header = file.at<ElfW(Ehdr)>(0);
  if (header.e_ident[EI_CLASS] != kClass || header.e_machine != kMachine) {
    return std::string("It is built for another processor; this fw-module is for ") + kProcessor + ".";
  }
  if (header.e_type != ET_DYN) {
    return "It is an ELF file, but no shared library.";
  }
  return "";
}

std::optional<ElfW(Shdr)> findSection(const Reader& file, unsigned int type) {
  const auto header = file.at<ElfW(Ehdr)>(0);
  for (unsigned int i = 0; i < header.e_shnum; ++i) {
    const auto section = file.at<ElfW(Shdr)>(header.e_shoff + std::uint64_t{i} * header.e_shentsize);
    if (section.sh_type == type) {
      return section;
    }
  }
  return std::nullopt;
}

// Calls take(entry, offset of the texts that it points into) for each entry of a section.
template <typename Entry, typename Take>
void forEachEntry(const Reader& file, unsigned int type, Take take) {
  const auto section = findSection(file, type);
  if (!section) {
    return;
  }
  const auto header = file.at<ElfW(Ehdr)>(0);
  const std::uint64_t texts =
      file.at<ElfW(Shdr)>(header.e_shoff + std::uint64_t{section->sh_link} * header.e_shentsize).sh_offset;
  for (std::uint64_t at = 0; at + sizeof(Entry) <= section->sh_size; at += sizeof(Entry)) {
    take(file.at<Entry>(section->sh_offset + at), texts);
  }
}

bool isExported(const ElfW(Sym) & symbol) {
  const unsigned int binding = symbol.st_info >> 4;
  const unsigned int visibility = symbol.st_other & 3U;
  return symbol.st_shndx != SHN_UNDEF && symbol.st_shndx != SHN_ABS && binding != STB_LOCAL &&
         (visibility == STV_DEFAULT || visibility == STV_PROTECTED);
}

std::vector<Export> readExports(const Reader& file) {
  std::vector<Export> exports;
  forEachEntry<ElfW(Sym)>(file, SHT_DYNSYM, [&](const ElfW(Sym) & symbol, std::uint64_t texts) {
    const unsigned int type = symbol.st_info & 0xfU;
    if (isExported(symbol)) {
      exports.push_back({file.text(texts + symbol.st_name), type == STT_FUNC || type == STT_GNU_IFUNC});
    }
  });
  return exports;
}

std::vector<std::string> readNeeded(const Reader& file) {
  std::vector<std::string> needed;
  forEachEntry<ElfW(Dyn)>(file, SHT_DYNAMIC, [&](const ElfW(Dyn) & entry, std::uint64_t texts) {
    if (entry.d_tag == DT_NEEDED) {
      needed.push_back(file.text(texts + entry.d_un.d_val));
    }
  });
  return needed;
}

}  // namespace

ModuleFile readModuleFile(const std::string& bytes) {
  ModuleFile result;
  if (bytes.compare(0, SELFMAG, ELFMAG) != 0) {
    result.problem = "It is no ELF file.";
    return result;
  }
  try {
    const Reader file(bytes);
    result.problem = problemOf(file);
    if (!result.problem.empty()) {
      return result;
    }
    result.exports = readExports(file);
    result.needed = readNeeded(file);
  } catch (const Damaged& damaged) {
    result.problem = damaged.what();
  }
  return result;
}

}  // namespace fwmodule
