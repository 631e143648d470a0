// SPDX-License-Identifier: Apache-2.0
// What is read from a module's file, from small files that are put together here.
#include "module-file.h"

#include <elf.h>
#include <gmock/gmock.h>
#include <link.h>

#include <cstring>

namespace {

using fwmodule::Export;
using fwmodule::ModuleFile;
using fwmodule::readModuleFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

#if defined(__x86_64__)
constexpr ElfW(Half) kMachine = EM_X86_64;
#elif defined(__i386__)
constexpr ElfW(Half) kMachine = EM_386;
#elif defined(__aarch64__)
constexpr ElfW(Half) kMachine = EM_AARCH64;
#elif defined(__arm__)
constexpr ElfW(Half) kMachine = EM_ARM;
#endif

struct Symbol {
  const char* name;
  unsigned int binding = STB_GLOBAL;
  unsigned int type = STT_FUNC;
  unsigned int visibility = STV_DEFAULT;
  unsigned int section = 1;
};

// A header, and at its end the sections: the texts, the symbols and the libraries needed.
class ElfFile {
 public:
  ElfFile& symbol(const Symbol& symbol) {
    ElfW(Sym) entry = {};
    entry.st_name = text(symbol.name);
    entry.st_info = static_cast<unsigned char>(symbol.binding << 4 | symbol.type);
    entry.st_other = static_cast<unsigned char>(symbol.visibility);
    entry.st_shndx = static_cast<ElfW(Half)>(symbol.section);
    append(symbols_, entry);
    return *this;
  }
  ElfFile& dynamic(ElfW(Sxword) tag, const char* value) {
    ElfW(Dyn) entry = {};
    entry.d_tag = static_cast<decltype(entry.d_tag)>(tag);
    entry.d_un.d_val = text(value);
    append(libraries_, entry);
    return *this;
  }

  ElfW(Ehdr) header = validHeader();

  std::string bytes() const {
    ElfW(Ehdr) written = header;
    const std::size_t texts = sizeof written;
    const std::size_t symbols = texts + texts_.size();
    const std::size_t libraries = symbols + symbols_.size();
    written.e_shoff = libraries + libraries_.size();
    std::string file;
    append(file, written);
    file += texts_ + symbols_ + libraries_;
    append(file, section(SHT_STRTAB, texts, texts_.size()));
    append(file, section(SHT_DYNSYM, symbols, symbols_.size()));
    append(file, section(SHT_DYNAMIC, libraries, libraries_.size()));
    return file;
  }

 private:
  static ElfW(Ehdr) validHeader() {
    ElfW(Ehdr) valid = {};
    std::memcpy(valid.e_ident, ELFMAG, SELFMAG);
    valid.e_ident[EI_CLASS] = sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32;
    valid.e_type = ET_DYN;
    valid.e_machine = kMachine;
    valid.e_shentsize = sizeof(ElfW(Shdr));
    valid.e_shnum = 3;
    return valid;
  }
  static ElfW(Shdr) section(unsigned int type, std::size_t offset, std::size_t size) {
    ElfW(Shdr) made = {};
    made.sh_type = type;
    made.sh_offset = offset;
    made.sh_size = size;
    return made;  // its texts are those of section 0
  }
  template <typename Value>
  static void append(std::string& to, const Value& value) {
    to.append(reinterpret_cast<const char*>(&value), sizeof value);
  }
  ElfW(Word) text(const char* value) {
    const auto at = static_cast<ElfW(Word)>(texts_.size());
    texts_.append(value).push_back('\0');
    return at;
  }

  std::string texts_;
  std::string symbols_;
  std::string libraries_;
};

std::vector<std::string> namesIn(const ModuleFile& file) {
  std::vector<std::string> names;
  for (const Export& symbol : file.exports) {
    names.push_back(symbol.name + (symbol.function ? "()" : ""));
  }
  return names;
}

TEST(ModuleFile, TellsExportedFunctionsAndData) {
  const ModuleFile file = readModuleFile(ElfFile()
                                             .symbol({"first"})
                                             .symbol({"weak", STB_WEAK, STT_GNU_IFUNC, STV_PROTECTED})
                                             .symbol({"data", STB_GLOBAL, STT_OBJECT})
                                             .bytes());

  EXPECT_EQ(file.problem, "");
  EXPECT_THAT(namesIn(file), ElementsAre("first()", "weak()", "data"));
  EXPECT_THAT(file.needed, IsEmpty());
}

TEST(ModuleFile, LeavesOutWhatOthersCannotSee) {
  const ModuleFile file =
      readModuleFile(ElfFile()
                         .symbol({"used", STB_GLOBAL, STT_FUNC, STV_DEFAULT, SHN_UNDEF})
                         .symbol({"version", STB_GLOBAL, STT_OBJECT, STV_DEFAULT, SHN_ABS})
                         .symbol({"local", STB_LOCAL})
                         .symbol({"hidden", STB_GLOBAL, STT_FUNC, STV_HIDDEN})
                         .symbol({"internal", STB_GLOBAL, STT_FUNC, STV_INTERNAL})
                         .symbol({"seen"})
                         .bytes());

  EXPECT_THAT(namesIn(file), ElementsAre("seen()"));
}

TEST(ModuleFile, TellsTheLibrariesThatItNeeds) {
  const ModuleFile file = readModuleFile(ElfFile()
                                             .dynamic(DT_SONAME, "libdoor.so")
                                             .dynamic(DT_NEEDED, "libc.so.6")
                                             .dynamic(DT_NEEDED, "libm.so.6")
                                             .bytes());

  EXPECT_THAT(file.needed, ElementsAre("libc.so.6", "libm.so.6"));
}

TEST(ModuleFile, IsForThisProcessorAlone) {
  ElfFile otherProcessor;
  otherProcessor.header.e_machine = EM_S390;
  ElfFile otherSize;
  otherSize.header.e_ident[EI_CLASS] = sizeof(void*) == 8 ? ELFCLASS32 : ELFCLASS64;
  ElfFile program;
  program.header.e_type = ET_EXEC;

  EXPECT_THAT(readModuleFile(otherProcessor.bytes()).problem, HasSubstr("built for another processor"));
  EXPECT_THAT(readModuleFile(otherSize.bytes()).problem, HasSubstr("built for another processor"));
  EXPECT_THAT(readModuleFile(program.bytes()).problem, HasSubstr("no shared library"));
  EXPECT_EQ(readModuleFile("#!/bin/sh\n").problem, "It is no ELF file.");
  EXPECT_EQ(readModuleFile("").problem, "It is no ELF file.");
}

// Wherever it is cut off, it is said; nothing is read beyond the end.
TEST(ModuleFile, SaysOfEveryFileThatIsCutOffThatItIs) {
  const std::string whole =
      ElfFile().symbol({"first"}).symbol({"last"}).dynamic(DT_NEEDED, "libc.so.6").bytes();

  for (std::size_t length = SELFMAG; length < whole.size(); ++length) {
    ASSERT_EQ(readModuleFile(whole.substr(0, length)).problem, "The file is cut off or damaged.") << length;
  }
  EXPECT_EQ(readModuleFile(whole).problem, "");
}

TEST(ModuleFile, RefusesTextsThatLieOutsideOrHaveNoEnd) {
  ElfFile outside;
  outside.symbol({"first"});
  std::string bytes = outside.bytes();
  const std::size_t symbol = sizeof(ElfW(Ehdr)) + sizeof "first";
  const auto beyond = static_cast<ElfW(Word)>(bytes.size() - sizeof(ElfW(Ehdr)));
  std::memcpy(&bytes[symbol], &beyond, sizeof beyond);

  EXPECT_EQ(readModuleFile(bytes).problem, "The file is cut off or damaged.");

  const auto last = static_cast<ElfW(Word)>(beyond - 1);
  std::memcpy(&bytes[symbol], &last, sizeof last);
  bytes.back() = 'x';
  EXPECT_EQ(readModuleFile(bytes).problem, "The file is cut off or damaged.");
}

TEST(ModuleFile, HasNoExportsWithoutSections) {
  ElfFile file;
  file.symbol({"first"});
  file.header.e_shnum = 0;

  const ModuleFile read = readModuleFile(file.bytes());

  EXPECT_EQ(read.problem, "");
  EXPECT_THAT(read.exports, IsEmpty());
}

}  // namespace
