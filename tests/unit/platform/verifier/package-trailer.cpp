// SPDX-License-Identifier: Apache-2.0
#include "package-trailer.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using fwpackage::Algorithm;
using fwpackage::KeyId;
using fwpackage::Kind;
using fwpackage::makeSignedPart;
using fwpackage::parseTrailer;
using fwpackage::Statements;
using fwpackage::Trailer;
using fwpackage::TrailerBytes;
using State = fwpackage::Trailer::State;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

constexpr KeyId kKey = {0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe};
const Algorithm& kRsa4096 = fwpackage::kAlgorithms[0];
const Algorithm& kEd25519 = fwpackage::kAlgorithms[1];
const Algorithm& kRsa3072 = fwpackage::kAlgorithms[2];

Statements statements() {
  Statements stated;
  stated.name = "tunerfw";
  stated.model = "set-7";
  stated.version = "2.10.0";
  stated.minimumVersion = "2.9.1";
  return stated;
}

TrailerBytes withSignature(const std::vector<unsigned char>& part, std::size_t signatureSize) {
  TrailerBytes bytes{};
  std::copy(part.begin(), part.end(), bytes.begin());
  std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(part.size()), signatureSize, 0x5A);
  return bytes;
}

TrailerBytes trailerOf(const Statements& stated, const Algorithm& algorithm = kEd25519) {
  return withSignature(makeSignedPart(2, algorithm, kKey, stated), algorithm.signatureSize);
}

TrailerBytes oldTrailer(const Algorithm& algorithm = kEd25519) {
  return withSignature(makeSignedPart(1, algorithm, kKey, {}), algorithm.signatureSize);
}

State stateWith(TrailerBytes bytes, std::size_t at, int value) {
  bytes.at(at) = static_cast<unsigned char>(value);
  return parseTrailer(bytes).state;
}

TEST(PackageTrailer, IsLaidOutAsTheFormatSays) {
  const TrailerBytes bytes = trailerOf(statements());

  const std::string text(bytes.begin(), bytes.end());
  EXPECT_EQ(text.substr(0, 8), "FWSIGNED");
  EXPECT_EQ(text.substr(8, 2), "\x02\x02");
  EXPECT_EQ(text.substr(10, 8), "\x10\x32\x54\x76\x98\xba\xdc\xfe");
  EXPECT_EQ(text.substr(18, 4), std::string("\x40\x00\x01\x00", 4));
  EXPECT_EQ(text.substr(22, 27),
            "\x07tunerfw\x05set-7\x06"
            "2.10.0\x05"
            "2.9.1");
  EXPECT_EQ(text.substr(49, 421), std::string(421, '\0'));
  EXPECT_EQ(text.substr(470), std::string(64, 'Z'));
}

TEST(PackageTrailer, IsLaidOutAsTheOldFormatSays) {
  const TrailerBytes bytes = oldTrailer();

  const std::string text(bytes.begin(), bytes.end());
  EXPECT_EQ(text.substr(0, 10), "FWSIGNED\x01\x02");
  EXPECT_EQ(text.substr(18, 4), std::string("\x40\x00\x00\x00", 4));
  EXPECT_EQ(text.substr(22, 64), std::string(64, 'Z'));
  EXPECT_EQ(text.substr(86), std::string(448, '\0'));
}

TEST(PackageTrailer, IsReadAsItWasWritten) {
  for (const Algorithm* algorithm : {&kEd25519, &kRsa3072}) {
    for (const Kind kind : {Kind::UsbPackage, Kind::ExtensionPackage, Kind::Image, Kind::ReleaseList}) {
      Statements stated = statements();
      stated.kind = kind;

      const Trailer trailer = parseTrailer(trailerOf(stated, *algorithm));

      EXPECT_EQ(trailer.state, State::Good);
      EXPECT_EQ(trailer.format, 2);
      EXPECT_EQ(trailer.algorithm, algorithm);
      EXPECT_EQ(trailer.keyId, kKey);
      EXPECT_EQ(trailer.statements.kind, kind);
      EXPECT_EQ(trailer.statements.name, "tunerfw");
      EXPECT_EQ(trailer.statements.model, "set-7");
      EXPECT_EQ(trailer.statements.version, "2.10.0");
      EXPECT_EQ(trailer.statements.minimumVersion, "2.9.1");
      EXPECT_EQ(trailer.signedSize(), 534 - algorithm->signatureSize);
      EXPECT_EQ(*trailer.signature(), 0x5A);
      EXPECT_EQ(trailer.signature() + algorithm->signatureSize, trailer.bytes.data() + 534);
    }
  }
}

TEST(PackageTrailer, OfTheOldFormatStatesNothing) {
  for (const Algorithm* algorithm : {&kRsa4096, &kEd25519}) {
    const Trailer trailer = parseTrailer(oldTrailer(*algorithm));

    EXPECT_EQ(trailer.state, State::Good);
    EXPECT_EQ(trailer.format, 1);
    EXPECT_EQ(trailer.algorithm, algorithm);
    EXPECT_EQ(trailer.statements.name, "");
    EXPECT_EQ(trailer.signedSize(), 22U);
  }
}

TEST(PackageTrailer, MayLeaveAllButTheNameEmpty) {
  Statements stated;
  stated.name = "x";

  const Trailer trailer = parseTrailer(trailerOf(stated));

  EXPECT_EQ(trailer.state, State::Good);
  EXPECT_EQ(trailer.statements.name, "x");
  EXPECT_EQ(trailer.statements.model, "");
}

TEST(PackageTrailer, IsMissingWithoutItsMagic) {
  for (std::size_t at = 0; at < 8; ++at) {
    EXPECT_EQ(stateWith(trailerOf(statements()), at, 'x'), State::Missing) << at;
  }
}

TEST(PackageTrailer, HasOneOfTwoFormats) {
  EXPECT_EQ(stateWith(trailerOf(statements()), 8, 0), State::UnknownFormat);
  EXPECT_EQ(stateWith(trailerOf(statements()), 8, 3), State::UnknownFormat);
  EXPECT_EQ(stateWith(trailerOf(statements()), 8, 255), State::UnknownFormat);
}

TEST(PackageTrailer, HasTheAlgorithmsOfItsFormat) {
  for (const int algorithm : {0, 1, 4, 255}) {
    EXPECT_EQ(stateWith(trailerOf(statements()), 9, algorithm), State::UnknownAlgorithm) << algorithm;
  }
  for (const int algorithm : {0, 3, 4, 255}) {
    EXPECT_EQ(stateWith(oldTrailer(), 9, algorithm), State::UnknownAlgorithm) << algorithm;
  }
}

TEST(PackageTrailer, IsMalformedWhenAnythingIsNotAsItHasToBe) {
  const TrailerBytes good = trailerOf(statements());
  EXPECT_EQ(stateWith(good, 18, 65), State::Malformed);  // the signature's size
  EXPECT_EQ(stateWith(good, 19, 1), State::Malformed);
  EXPECT_EQ(stateWith(good, 20, 0), State::Malformed);  // kind
  EXPECT_EQ(stateWith(good, 20, 5), State::Malformed);
  EXPECT_EQ(stateWith(good, 21, 1), State::Malformed);    // reserved
  EXPECT_EQ(stateWith(good, 22, 0), State::Malformed);    // no name
  EXPECT_EQ(stateWith(good, 22, 255), State::Malformed);  // reaches over the signature's begin
  EXPECT_EQ(stateWith(good, 23, '/'), State::Malformed);  // no letter
  EXPECT_EQ(stateWith(good, 31, '\n'), State::Malformed);
  EXPECT_EQ(stateWith(good, 31, 0x7F), State::Malformed);
  EXPECT_EQ(stateWith(good, 49, 1), State::Malformed);  // behind the texts
  EXPECT_EQ(stateWith(good, 469, 1), State::Malformed);
  EXPECT_EQ(stateWith(good, 470, 1), State::Good);  // the signature's first byte

  EXPECT_EQ(stateWith(oldTrailer(), 20, 1), State::Malformed);
  EXPECT_EQ(stateWith(oldTrailer(), 21, 1), State::Malformed);
  EXPECT_EQ(stateWith(oldTrailer(), 86, 1), State::Malformed);
  EXPECT_EQ(stateWith(oldTrailer(), 533, 1), State::Malformed);
}

TEST(PackageTrailer, TellsNoStatementsWhenItIsMalformed) {
  TrailerBytes bytes = trailerOf(statements());
  bytes[469] = 1;

  EXPECT_EQ(parseTrailer(bytes).statements.name, "");
}

// The texts fill all that there is, to the last byte, and no more.
TEST(PackageTrailer, HasRoomForAsManyCharactersAsTheFormatSays) {
  for (const Algorithm* algorithm : {&kEd25519, &kRsa3072}) {
    const std::size_t room = 534 - 22 - 4 - algorithm->signatureSize;
    Statements stated = statements();
    stated.name = std::string(std::min<std::size_t>(room / 2, 255), 'n');
    stated.model = std::string(room - stated.name.size(), 'm');
    stated.version = stated.minimumVersion = "";
    EXPECT_EQ(parseTrailer(trailerOf(stated, *algorithm)).statements.model, stated.model);

    stated.version = "1";
    EXPECT_THAT([&] { trailerOf(stated, *algorithm); },
                ThrowsMessage<std::invalid_argument>(
                    HasSubstr("together they may have " + std::to_string(room) + " characters")));
  }
}

TEST(PackageTrailer, WhoseLastTextHasNoLengthIsMalformed) {
  Statements stated;
  stated.name = std::string(124, 'n');
  TrailerBytes bytes = trailerOf(stated, kRsa3072);
  ASSERT_EQ(parseTrailer(bytes).state, State::Good);

  // Each text takes one byte more than is left for the last one's length.
  bytes[22 + 125] = 2;
  EXPECT_EQ(parseTrailer(bytes).state, State::Malformed);
  bytes[22 + 125] = 3;
  EXPECT_EQ(parseTrailer(bytes).state, State::Malformed);
}

// Nothing is read behind the trailer's end, wherever its lengths lead.
TEST(PackageTrailer, WhoseTextsLeadBehindItsEndIsMalformed) {
  for (const Algorithm* algorithm : {&kEd25519, &kRsa3072}) {
    TrailerBytes bytes = trailerOf(statements(), *algorithm);
    std::fill(bytes.begin() + 22, bytes.end(), 0xFF);

    EXPECT_EQ(parseTrailer(bytes).state, State::Malformed);
  }
}

TEST(PackageTrailer, IsNotMadeOfWhatCannotBeStated) {
  for (const std::string& name : {std::string(), std::string("tuner fw"), std::string("../tunerfw"),
                                  std::string("tuner\xc3\xbc"), std::string(256, 'n')}) {
    Statements stated = statements();
    stated.name = name;
    EXPECT_THROW(trailerOf(stated), std::invalid_argument) << name;
  }
  for (std::string Statements::*text :
       {&Statements::model, &Statements::version, &Statements::minimumVersion}) {
    for (const std::string& value : {std::string("\x1f"), std::string("\x7f"), std::string(256, 'v')}) {
      Statements stated = statements();
      stated.*text = value;
      EXPECT_THROW(trailerOf(stated), std::invalid_argument) << value;
    }
    Statements stated = statements();
    stated.*text = " ~";
    EXPECT_EQ(parseTrailer(trailerOf(stated)).state, State::Good);
  }
  Statements stated = statements();
  stated.kind = static_cast<Kind>(5);
  EXPECT_THROW(trailerOf(stated), std::invalid_argument);
}

TEST(PackageTrailer, IsNotMadeInAFormatWithoutTheAlgorithm) {
  EXPECT_THROW(makeSignedPart(2, kRsa4096, kKey, statements()), std::invalid_argument);
  EXPECT_THROW(makeSignedPart(1, kRsa3072, kKey, {}), std::invalid_argument);
  EXPECT_THROW(makeSignedPart(3, kEd25519, kKey, statements()), std::invalid_argument);
  EXPECT_THROW(makeSignedPart(0, kEd25519, kKey, statements()), std::invalid_argument);
}

TEST(PackageTrailer, ShowsBytesInHexadecimal) {
  const unsigned char bytes[] = {0x00, 0x09, 0xA0, 0xFF};

  EXPECT_EQ(fwpackage::toHex(bytes, sizeof bytes), "0009a0ff");
}

}  // namespace
