// SPDX-License-Identifier: Apache-2.0
#include "package-cipher.h"

#include <gmock/gmock.h>

#include <string>

#include "exit-code.h"
#include "facts.h"

namespace {

using fwpack::PackageCipher;
using Direction = fwpack::PackageCipher::Direction;

secret::Secret key(char sign = 'K', std::size_t size = 32) {
  secret::Secret secret(size);
  for (std::size_t i = 0; i < size; ++i) {
    secret.data()[i] = static_cast<unsigned char>(sign);
  }
  return secret;
}

struct Crypted {
  std::string bytes;
  bool padded = false;
};

Crypted crypt(const std::string& input, Direction direction, const secret::Secret& with, std::size_t piece) {
  Crypted out;
  const fwpack::Block keep = [&](const unsigned char* bytes, std::size_t size) {
    out.bytes.append(reinterpret_cast<const char*>(bytes), size);
  };
  PackageCipher cipher(with, fwpack::Iv{}, direction);
  for (std::size_t at = 0; at < input.size(); at += piece) {
    cipher.add(reinterpret_cast<const unsigned char*>(input.data()) + at, std::min(piece, input.size() - at),
               keep);
  }
  out.padded = cipher.finish(keep);
  return out;
}

TEST(PackageCipher, GivesBackWhatWentInWhateverThePieces) {
  for (const std::size_t size : {0U, 1U, 15U, 16U, 17U, 1000U}) {
    const std::string text(size, 't');
    const Crypted hidden = crypt(text, Direction::Encrypt, key(), 7);
    EXPECT_EQ(hidden.bytes.size(), (size / 16 + 1) * 16);

    const Crypted shown = crypt(hidden.bytes, Direction::Decrypt, key(), 33);

    EXPECT_EQ(shown.bytes, text);
    EXPECT_TRUE(shown.padded);
  }
}

TEST(PackageCipher, SaysWhenThePaddingIsWrong) {
  std::string hidden = crypt(std::string(20, 't'), Direction::Encrypt, key(), 100).bytes;
  hidden.resize(31);

  EXPECT_FALSE(crypt(hidden, Direction::Decrypt, key(), 100).padded);
}

TEST(PackageCipher, NeedsAKeyOf32Bytes) {
  EXPECT_THROW(PackageCipher(key('K', 31), fwpack::Iv{}, Direction::Encrypt), fwpack::Failure);
  EXPECT_THROW(PackageCipher(key('K', 33), fwpack::Iv{}, Direction::Encrypt), fwpack::Failure);
}

TEST(PackageSize, CountsAWholeBlockOfPaddingAtLeast) {
  EXPECT_EQ(fwpack::packageSize(1), 16U + 80 + 534);
  EXPECT_EQ(fwpack::packageSize(15), 16U + 80 + 534);
  EXPECT_EQ(fwpack::packageSize(16), 16U + 96 + 534);
}

TEST(Facts, AreMembersForProgramsAndLinesForPeople) {
  fwpack::Facts facts;
  facts.add("one", "first", 1);
  facts.add("text", "a label", "value", "words");

  EXPECT_EQ(facts.toText(), "first    1\na label  words\n");
  EXPECT_EQ(facts.toJson()["one"].asInt(), 1);
  EXPECT_EQ(facts.toJson()["text"].asString(), "value");
}

TEST(Facts, BringNoControlCharactersToATerminal) {
  fwpack::Facts facts;
  facts.add("name", "name", "a\x1b[2Jb\x7f\n");

  EXPECT_EQ(facts.toText(), "name  a\\x1B[2Jb\\x7F\\x0A\n");
}

}  // namespace
