// SPDX-License-Identifier: Apache-2.0
#include "package-signature.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <string>

#include "file-descriptor.h"
#include "key-lists.h"
#include "public-keys.h"
#include "read-calls.h"
#include "signed-package.h"
#include "temporary-place.h"
#include "whole-file.h"

namespace {

using fwpackage::Expectation;
using fwpackage::Kind;
using fwpackage::Listed;
using fwpackage::MinimumVersion;
using fwpackage::PackageCheck;
using fwpackage::Statements;
using fwpackage::TrailerBytes;
using fwpackage::Trust;
using fwpackage::Verdict;

namespace fs = std::filesystem;

constexpr char kContent[] = "what is signed";
constexpr std::size_t kTrailer = 534;

const fwpack::SigningKey& maker() {
  return testSigningKey("ed25519");
}

fwpackage::Key publicHalf(const fwpack::SigningKey& key) {
  const base::TemporaryFolder directory(fs::temp_directory_path() / "fw-package");
  const std::string path = directory.path() + "/key.pem";
  fwpack::OutputFile file(path, fwpack::kPublicMode);
  key.writePublicPem(file);
  file.commit();
  return fwpackage::readPublicKey(path);
}

// A set that trusts the maker's key for both formats, and takes tunerfw of any version.
struct Set {
  const fwpack::SigningKey* key = &maker();
  Listed revoked = Listed::No;
  Listed old = Listed::Yes;
  std::map<std::string, MinimumVersion> minima;
  Expectation wanted;

  Set() {
    wanted.name = "tunerfw";
    wanted.model = "set-7";
  }
  Trust trust() const {
    return {[this](const fwpackage::KeyId& id) {
              return id == key->keyId() ? publicHalf(*key) : fwpackage::Key();
            },
            [this](const fwpackage::KeyId&) { return revoked; },
            [this](const fwpackage::KeyId&) { return old; },
            [this](const std::string& name) {
              const auto minimum = minima.find(name);
              return minimum == minima.end() ? MinimumVersion() : minimum->second;
            }};
  }
  void require(const std::string& name, const std::string& version) {
    minima[name] = {MinimumVersion::State::Known, version};
  }
};

class Signature : public TemporaryPlace {
 protected:
  fwpackage::SignatureReport report(const std::string& package, const Set& set) const {
    write("package.bin", package);
    return fwpackage::checkSignature(path("package.bin"), set.trust(), set.wanted);
  }
  Verdict verdict(const std::string& package, const Set& set = {}) const {
    return report(package, set).verdict;
  }
};

Statements stating(const std::string& version) {
  Statements statements = statementsFor("tunerfw");
  statements.version = version;
  return statements;
}

TEST_F(Signature, IsValidForWhatItStates) {
  Statements statements = stating("2.1.0");
  statements.model = "set-7";
  statements.minimumVersion = "1.5.0";

  const auto found = report(signedFile(kContent, maker(), statements), {});

  EXPECT_EQ(found.verdict, Verdict::Valid);
  EXPECT_EQ(found.trailer.statements.name, "tunerfw");
  EXPECT_EQ(found.trailer.statements.minimumVersion, "1.5.0");
  EXPECT_EQ(found.trailer.keyId, maker().keyId());
}

TEST_F(Signature, IsCheckedOnAnOpenFileWithoutMovingIt) {
  write("package.bin", signedFile(kContent, maker()));
  const base::FileDescriptor file(open(path("package.bin").c_str(), O_RDONLY | O_CLOEXEC));
  lseek(file.get(), 3, SEEK_SET);
  const Set set;

  EXPECT_EQ(fwpackage::checkSignature(file.get(), set.trust(), set.wanted).verdict, Verdict::Valid);

  EXPECT_EQ(lseek(file.get(), 0, SEEK_CUR), 3);
}

TEST_F(Signature, IsOfAFile) {
  const Set set;

  EXPECT_EQ(fwpackage::checkSignature(place(), set.trust(), set.wanted).verdict, Verdict::NoFile);
  EXPECT_EQ(fwpackage::checkSignature("/dev/zero", set.trust(), set.wanted).verdict, Verdict::NoFile);
  EXPECT_EQ(fwpackage::checkSignature(path("absent"), set.trust(), set.wanted).verdict, Verdict::Unreadable);
  EXPECT_EQ(fwpackage::checkSignature(-1, set.trust(), set.wanted).verdict, Verdict::Unreadable);
}

TEST_F(Signature, IsUnreadableWhenTheTrailerOrTheContentIs) {
  const std::string package = signedFile(kContent, maker());
  for (const std::size_t place : {std::size_t{0}, package.size() - kTrailer}) {
    readcalls::before = [place](std::size_t at) { return at == place ? EIO : 0; };

    const Verdict found = verdict(package);
    readcalls::reset();

    EXPECT_EQ(found, Verdict::Unreadable) << place;
  }
}

// What was to be read is not there, and errno still has what an earlier call left.
TEST_F(Signature, IsNotWaitedForInAFileThatBecameShorter) {
  int reads = 0;
  readcalls::largest = 0;
  readcalls::before = [&reads](std::size_t) {
    if (++reads > 100) {
      std::abort();
    }
    errno = EINTR;
    return 0;
  };

  const Verdict found = verdict(signedFile(kContent, maker()));
  readcalls::reset();

  EXPECT_EQ(found, Verdict::Unreadable);
}

TEST_F(Signature, NeedsContent) {
  EXPECT_EQ(verdict(""), Verdict::TooShort);
  EXPECT_EQ(verdict(std::string(kTrailer, 'x')), Verdict::TooShort);
  EXPECT_EQ(verdict(std::string(kTrailer + 1, 'x')), Verdict::NoTrailer);
  EXPECT_EQ(verdict(signedFile("", maker())), Verdict::TooShort);
  EXPECT_EQ(verdict(signedFile("x", maker())), Verdict::Valid);
}

TEST_F(Signature, HasAVerdictForEachDamageOfItsTrailer) {
  const struct {
    std::size_t at;
    char value;
    Verdict verdict;
  } damages[] = {
      {0, 'f', Verdict::NoTrailer},        {8, 3, Verdict::UnknownFormat},
      {9, 1, Verdict::UnknownAlgorithm},   {10, 1, Verdict::UnknownKey},
      {18, 1, Verdict::MalformedTrailer},  {21, 1, Verdict::MalformedTrailer},
      {23, 'x', Verdict::WrongSignature},  {20, 2, Verdict::WrongSignature},
      {469, 1, Verdict::MalformedTrailer},
  };
  const std::string package = signedFile(kContent, maker());
  for (const auto& damage : damages) {
    std::string damaged = package;
    damaged[damaged.size() - kTrailer + damage.at] = damage.value;
    EXPECT_EQ(verdict(damaged), damage.verdict) << damage.at;
  }
}

TEST_F(Signature, IsWrongWhenContentOrSignatureChanged) {
  const std::string package = signedFile(kContent, maker());
  for (const std::size_t at :
       {std::size_t{0}, sizeof kContent - 2, package.size() - 1, package.size() - 64}) {
    std::string changed = package;
    changed[at] = static_cast<char>(changed[at] ^ 1);
    EXPECT_EQ(verdict(changed), Verdict::WrongSignature) << at;
  }
}

TEST_F(Signature, IsRefusedWhenItsKeyIsOfAnotherKind) {
  Set set;
  std::string package = signedFile(kContent, testSigningKey("rsa-3072"));
  ASSERT_EQ(verdict(package), Verdict::UnknownKey);
  // The identifier of a key that is known, and of another kind.
  const fwpackage::KeyId id = maker().keyId();
  package.replace(package.size() - kTrailer + 10, id.size(), std::string(id.begin(), id.end()));

  EXPECT_EQ(verdict(package), Verdict::WrongKindOfKey);
}

TEST_F(Signature, IsRefusedFromARevokedKey) {
  Set set;
  set.revoked = Listed::Yes;
  EXPECT_EQ(verdict(signedFile(kContent, maker()), set), Verdict::RevokedKey);
  EXPECT_EQ(verdict(oldSignedFile(kContent, maker()), set), Verdict::RevokedKey);

  set.revoked = Listed::Unusable;
  EXPECT_EQ(verdict(signedFile(kContent, maker()), set), Verdict::UnusableList);
  EXPECT_EQ(verdict(oldSignedFile(kContent, maker()), set), Verdict::UnusableList);
}

TEST_F(Signature, OfTheOldFormatIsValidFromKeysThatMayMakeIt) {
  Set set;
  EXPECT_EQ(verdict(oldSignedFile(kContent, maker()), set), Verdict::Valid);

  set.old = Listed::No;
  EXPECT_EQ(verdict(oldSignedFile(kContent, maker()), set), Verdict::OldFormat);
  EXPECT_EQ(verdict(signedFile(kContent, maker()), set), Verdict::Valid);

  set.old = Listed::Unusable;
  EXPECT_EQ(verdict(oldSignedFile(kContent, maker()), set), Verdict::UnusableList);
  EXPECT_EQ(verdict(signedFile(kContent, maker()), set), Verdict::Valid);
}

TEST_F(Signature, IsForOneKindOfPackage) {
  Statements statements = statementsFor("tunerfw");
  statements.kind = Kind::ExtensionPackage;
  const std::string extension = signedFile(kContent, maker(), statements);
  const std::string usb = signedFile(kContent, maker());
  Set set;
  EXPECT_EQ(verdict(extension, set), Verdict::OtherKind);

  set.wanted.kind = Kind::ExtensionPackage;
  EXPECT_EQ(verdict(extension, set), Verdict::Valid);
  EXPECT_EQ(verdict(usb, set), Verdict::OtherKind);
  EXPECT_EQ(verdict(oldSignedFile(kContent, maker()), set), Verdict::OtherKind);
}

TEST_F(Signature, IsForOneName) {
  const std::string package = signedFile(kContent, maker());
  Set set;
  for (const char* name : {"wififw", "tunerf", "tunerfw2", "TUNERFW", ""}) {
    set.wanted.name = name;
    EXPECT_EQ(verdict(package, set), Verdict::OtherName) << name;
  }

  set.wanted.name.reset();
  EXPECT_EQ(verdict(package, set), Verdict::Valid);
}

TEST_F(Signature, IsForOneModelOrForAll) {
  Statements statements = statementsFor("tunerfw");
  statements.model = "set-7";
  const std::string bound = signedFile(kContent, maker(), statements);
  const std::string free = signedFile(kContent, maker());
  Set set;
  EXPECT_EQ(verdict(bound, set), Verdict::Valid);

  for (const std::optional<std::string>& model :
       {std::optional<std::string>("set-8"), std::optional<std::string>(""), std::optional<std::string>()}) {
    set.wanted.model = model;
    EXPECT_EQ(verdict(bound, set), Verdict::OtherModel) << model.value_or("unknown");
    EXPECT_EQ(verdict(free, set), Verdict::Valid) << model.value_or("unknown");
  }

  set.wanted.anyModel = true;
  EXPECT_EQ(verdict(bound, set), Verdict::Valid);
}

TEST_F(Signature, IsRefusedForAVersionBelowTheMinimum) {
  Set set;
  set.require("tunerfw", "2.9");
  set.require("wififw", "100");

  EXPECT_EQ(verdict(signedFile(kContent, maker(), stating("2.8.9")), set), Verdict::TooOld);
  EXPECT_EQ(verdict(signedFile(kContent, maker(), stating("2.9")), set), Verdict::Valid);
  EXPECT_EQ(verdict(signedFile(kContent, maker(), stating("2.10")), set), Verdict::Valid);
  EXPECT_EQ(verdict(signedFile(kContent, maker(), stating("")), set), Verdict::TooOld);
}

TEST_F(Signature, OfTheOldFormatIsBelowEveryMinimum) {
  Set set;
  set.require("wififw", "1");
  EXPECT_EQ(verdict(oldSignedFile(kContent, maker()), set), Verdict::Valid);

  set.require("tunerfw", "");
  EXPECT_EQ(verdict(oldSignedFile(kContent, maker()), set), Verdict::TooOld);
}

TEST_F(Signature, IsRefusedWhenTheMinimumCannotBeRead) {
  Set set;
  set.minima["tunerfw"] = {MinimumVersion::State::Unusable, ""};

  EXPECT_EQ(verdict(signedFile(kContent, maker()), set), Verdict::UnusableMinimum);
  EXPECT_EQ(verdict(oldSignedFile(kContent, maker()), set), Verdict::UnusableMinimum);
}

TEST_F(Signature, PassesBelowTheMinimumWhenThatIsAllowed) {
  Set set;
  set.require("tunerfw", "2.9");
  set.wanted.rollbackAllowed = true;
  EXPECT_EQ(verdict(signedFile(kContent, maker(), stating("1")), set), Verdict::Valid);
  EXPECT_EQ(verdict(oldSignedFile(kContent, maker()), set), Verdict::Valid);

  set.minima["tunerfw"] = {MinimumVersion::State::Unusable, ""};
  EXPECT_EQ(verdict(signedFile(kContent, maker(), stating("1")), set), Verdict::Valid);
  // It allows nothing else.
  set.wanted.name = "wififw";
  EXPECT_EQ(verdict(signedFile(kContent, maker(), stating("1")), set), Verdict::OtherName);
}

// ---- bytes from outside -------------------------------------------------------

TrailerBytes trailerOf(const std::string& package) {
  TrailerBytes bytes;
  std::copy(package.end() - kTrailer, package.end(), bytes.begin());
  return bytes;
}

const unsigned char* bytesOf(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

TEST(PackageCheck, TakesTheContentInPieces) {
  const Set set;
  const Trust trust = set.trust();
  PackageCheck check(trust, set.wanted);

  ASSERT_TRUE(check.begin(trailerOf(signedFile("two pieces", maker()))));
  check.add(bytesOf("two "), 4);
  check.add(bytesOf(""), 0);
  check.add(bytesOf("pieces"), 6);

  EXPECT_EQ(check.finish().verdict, Verdict::Valid);
}

TEST(PackageCheck, RefusesPiecesInAnotherOrder) {
  const Set set;
  const Trust trust = set.trust();
  PackageCheck check(trust, set.wanted);

  ASSERT_TRUE(check.begin(trailerOf(signedFile("two pieces", maker()))));
  check.add(bytesOf("pieces"), 6);
  check.add(bytesOf("two "), 4);

  EXPECT_EQ(check.finish().verdict, Verdict::WrongSignature);
}

TEST(PackageCheck, NeedsNoContentToRefuseATrailer) {
  const Set set;
  const Trust trust = set.trust();
  PackageCheck check(trust, set.wanted);

  EXPECT_FALSE(check.begin(TrailerBytes{}));
  check.add(bytesOf("anything"), 8);

  EXPECT_EQ(check.finish().verdict, Verdict::NoTrailer);
}

TEST(PackageCheck, RefusesWhenItWasNotBegun) {
  const Set set;
  const Trust trust = set.trust();
  PackageCheck check(trust, set.wanted);

  EXPECT_EQ(check.finish().verdict, Verdict::Unreadable);
}

TEST(PackageCheck, SaysItsVerdictOnceMore) {
  const Set set;
  const Trust trust = set.trust();
  PackageCheck check(trust, set.wanted);
  check.begin(trailerOf(signedFile("x", maker())));
  check.add(bytesOf("x"), 1);
  check.finish();

  EXPECT_EQ(check.finish().verdict, Verdict::Valid);
}

TEST(Verdicts, HaveEachANameAndASentenceOfTheirOwn) {
  std::set<std::string> ids;
  std::set<std::string> sentences;
  for (int verdict = 0; verdict <= static_cast<int>(Verdict::TooOld); ++verdict) {
    ids.insert(fwpackage::infoOf(static_cast<Verdict>(verdict)).id);
    sentences.insert(fwpackage::infoOf(static_cast<Verdict>(verdict)).sentence);
  }

  EXPECT_EQ(ids.size(), static_cast<std::size_t>(Verdict::TooOld) + 1);
  EXPECT_EQ(sentences.size(), ids.size());
  EXPECT_STREQ(fwpackage::infoOf(Verdict::OtherName).id, "other-name");
  EXPECT_STREQ(fwpackage::infoOf(Verdict::Valid).id, "valid");
  EXPECT_THROW(fwpackage::infoOf(static_cast<Verdict>(99)), std::logic_error);
}

TEST(PackageName, IsThatOfTheFileWithoutItsEnding) {
  EXPECT_EQ(fwpackage::nameFromPath("/opt/media/USBDriveA/tunerfw.bin"), "tunerfw");
  EXPECT_EQ(fwpackage::nameFromPath("tunerempfw.img"), "tunerempfw");
  EXPECT_EQ(fwpackage::nameFromPath("a.b.bin"), "a.b");
  EXPECT_EQ(fwpackage::nameFromPath("/directory/"), "");
}

// ---- keys -----------------------------------------------------------------------

class KeyDirectory : public TemporaryPlace {
 protected:
  bool finds(const fwpack::SigningKey& key) const {
    const fwpackage::Key found = fwpackage::findPublicKey(place(), key.keyId());
    return found && fwpackage::keyIdOf(found.get()) == key.keyId();
  }
};

// Wherever it lies among the others, in whatever order the directory gives them.
TEST_F(KeyDirectory, GivesTheKeyOfTheIdentifierAmongRealOnes) {
  const fwpackage::Algorithm& algorithm = maker().algorithm();
  for (const char* name : {"a.pem", "b.pem", "c.pem", "d.pem", "e.pem", "y.pem", "z.pem"}) {
    write(name, publicPem(fwpack::SigningKey(algorithm)));
  }
  EXPECT_FALSE(fwpackage::findPublicKey(place(), maker().keyId()));

  for (const char* name : {"0.pem", "m.pem", "zz.pem"}) {
    write(name, publicPem(maker()));
    EXPECT_TRUE(finds(maker())) << name;
    fs::remove(path(name));
  }
}

TEST_F(KeyDirectory, GivesKeysOfNamesThatEndAsPemAlone) {
  for (const char* name : {"key", "key.pem.old", ".pem", "pem", "key.PEM", "keypem"}) {
    write(name, publicPem(maker()));
    EXPECT_FALSE(finds(maker())) << name;
    fs::remove(path(name));
  }
  write("x.pem", publicPem(maker()));
  EXPECT_TRUE(finds(maker()));
}

TEST_F(KeyDirectory, GivesTrustInItsKeysAndLists) {
  const fwpackage::KeyId id = maker().keyId();
  const Trust trust = fwpackage::trustIn(place());
  EXPECT_FALSE(trust.findKey(id));
  EXPECT_EQ(trust.isRevoked(id), Listed::No);
  EXPECT_EQ(trust.maySignOldFormat(id), Listed::No);

  write("maker.pem", publicPem(maker()));
  EXPECT_TRUE(trust.findKey(id));
  write("revoked", fwpackage::toHex(id.data(), id.size()));
  EXPECT_EQ(trust.isRevoked(id), Listed::Yes);
  EXPECT_EQ(trust.maySignOldFormat(id), Listed::No);
  write("format-1", fwpackage::toHex(id.data(), id.size()));
  EXPECT_EQ(trust.maySignOldFormat(id), Listed::Yes);
  EXPECT_EQ(trust.minimumVersion("tunerfw").state, MinimumVersion::State::None);
}

TEST_F(KeyDirectory, GivesNoKeyFromAFileThatIsTooLarge) {
  write("maker.pem", publicPem(maker()) + std::string(60000, '\n'));
  EXPECT_TRUE(finds(maker()));

  write("maker.pem", publicPem(maker()) + std::string(70000, '\n'));
  EXPECT_FALSE(finds(maker()));
}

TEST_F(KeyDirectory, HoldsNoPrivateKeysAndAsksForNoPassPhrase) {
  fwpack::OutputFile file(path("secret.pem"), fwpack::kSecretMode);
  maker().writePrivatePem(file);
  file.commit();

  EXPECT_FALSE(fwpackage::readPublicKey(path("secret.pem")));
  EXPECT_FALSE(fwpackage::readPublicKey(path("absent.pem")));
}

TEST_F(KeyDirectory, GivesAFilesOwnTextAlone) {
  write("maker.pem", "PEM");
  std::string content = "of another file";

  EXPECT_EQ(base::readFile(path("maker.pem"), fwpackage::kLargestKeyFile, content), 0);
  EXPECT_EQ(content, "PEM");
}

// One that is encrypted, even with an empty pass phrase, is no public key.
TEST_F(KeyDirectory, HoldsNoEncryptedKeys) {
  const fwpackage::Bio bio(BIO_new(BIO_s_mem()));
  unsigned char noPassPhrase[] = "";
  ASSERT_EQ(
      PEM_ASN1_write_bio(reinterpret_cast<i2d_of_void*>(i2d_PUBKEY), PEM_STRING_PUBLIC, bio.get(),
                         publicHalf(maker()).get(), EVP_aes_128_cbc(), noPassPhrase, 0, nullptr, nullptr),
      1);
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  write("maker.pem", std::string(text, static_cast<std::size_t>(size)));

  EXPECT_FALSE(finds(maker()));
}

TEST(PublicKey, HasTheAlgorithmOfItsTypeAndSize) {
  for (const char* name : {"ed25519", "rsa-3072", "rsa-4096"}) {
    const fwpackage::Algorithm* const algorithm =
        fwpackage::algorithmOf(publicHalf(testSigningKey(name)).get());
    ASSERT_NE(algorithm, nullptr) << name;
    EXPECT_STREQ(algorithm->name, name);
  }
  const fwpackage::Key small(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t{2048}));
  const fwpackage::Key exchange(EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519"));
  EXPECT_EQ(fwpackage::algorithmOf(small.get()), nullptr);
  EXPECT_EQ(fwpackage::algorithmOf(exchange.get()), nullptr);
}

}  // namespace
