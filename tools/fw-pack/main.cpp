// SPDX-License-Identifier: Apache-2.0
// fw-pack: makes firmware packages and says what they are.
#include <algorithm>
#include <string>

#include "commands.h"
#include "exit-code.h"
#include "frame/program.h"
#include "interruption.h"
#include "module-names.h"
#include "options.h"
#include "release-list.h"

namespace {

using fwpack::ExitCode;
using fwpack::Options;
using Option = frame::Option<Options>;

// What a module's 128-byte buffers hold; a USB package's version block holds less.
constexpr std::size_t kLongestVersion = 127;
constexpr std::size_t kLongestPackageVersion = 63;

bool isPrintable(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

template <std::size_t Longest>
std::string versionProblem(const std::string& version) {
  if (version.empty() || version.size() > Longest) {
    return "a version has 1 to " + std::to_string(Longest) + " characters";
  }
  return isPrintable(version) ? "" : "a version is printable ASCII text";
}

std::string nameProblem(const std::string& name) {
  return fwnames::isPackageName(name)
             ? ""
             : "a firmware name and a package identifier have ASCII letters and digits only";
}

std::string modelProblem(const std::string& model) {
  return isPrintable(model) ? "" : "a model is printable ASCII text";
}

constexpr Option kImage[] = {
    Option("IMAGE", &Options::input, "The firmware image").required(),
};

constexpr Option kVersion[] = {
    Option("--version TEXT", &Options::version, "The firmware's version")
        .required()
        .checked(versionProblem<kLongestVersion>),
    Option("--expected-time N", &Options::expectedTime, "How many seconds the update takes").required(),
    Option("--class CLASS", &Options::updateClass, "Of the update: ")
        .checked(fwpack::updateClassProblem)
        .of(fwpack::updateClasses),
};

constexpr Option kInfo[] = {
    {"-o,--output FILE", &Options::output, "Default: info.json beside the image"},
};

constexpr Option kType[] = {
    Option("--type TYPE", &Options::type, "For which images: ")
        .required()
        .checked(fwpack::imageTypeProblem)
        .of(fwpack::imageTypes),
    Option("--name NAME", &Options::name, "Firmware name, such as tunerfw").required().checked(nameProblem),
};

constexpr Option kInto[] = {
    Option("--into DIR", &Options::output, "The directory to lay it out in").required(),
    {"--signing-key FILE", &Options::signingKeyFile, "Sign it, in a file beside it; a private key: PEM"},
};

constexpr Option kIdentifier[] = {
    Option("--id NAME", &Options::name, "Package identifier, such as tunerempfw")
        .required()
        .checked(nameProblem),
};

constexpr Option kSigning[] = {
    {"--signing-key FILE", &Options::signingKeyFile, "The private key to sign with: PEM"},
    Option("--unsigned", &Options::isUnsigned, "Do not sign it; sets refuse it unless told")
        .excluding("--signing-key"),
};

constexpr Option kExtensionPackage[] = {
    {"-o,--output FILE", &Options::output, "Default: identifier and .img, in this directory"},
};

// What the signature states beside name and version; an old package states nothing.
constexpr Option kStatements[] = {
    Option("--model TEXT", &Options::model, "Only for sets of this model; default: for any")
        .checked(modelProblem),
    Option("--minimum-version TEXT", &Options::minimumVersion, "Once applied, older packages are refused")
        .checked(versionProblem<kLongestPackageVersion>),
};

constexpr Option kEncrypted[] = {
    Option("--version TEXT", &Options::version, "The firmware's version")
        .required()
        .checked(versionProblem<kLongestPackageVersion>),
    Option("--key-file FILE", &Options::keyFile, "The key to encrypt with: 32 raw bytes").required(),
    Option("--signing-key FILE", &Options::signingKeyFile, "The private key to sign with: PEM").required(),
    Option("--name NAME", &Options::name, "Firmware name; default: from the output's name")
        .checked(nameProblem),
};

constexpr Option kUsbPackage[] = {
    Option("--format NUMBER", &Options::format, "The signature's; 1 is for old sets")
        .within(fwpackage::kOldFormat, fwpackage::kNewestFormat)
        .withDefault(),
    Option("-o,--output FILE", &Options::output, "The package: firmware name and .bin").required(),
};

constexpr Option kKey[] = {
    Option("KIND", &Options::type, "").required().checked(fwpack::keyKindProblem).of(fwpack::keyKinds),
    Option("FILE", &Options::output, "The new secret key; never overwritten").required(),
    {"--public FILE", &Options::publicKeyFile, "Its public key; default: FILE.pem"},
};

std::string timeProblem(const std::string& text) {
  return image::parseTime(text) ? "" : "a time is written 2026-12-31T23:59:59Z";
}

constexpr Option kRelease[] = {
    Option("DIR", &Options::input, "Holds packages, and what fw-pack image made").required(),
    Option("--number N", &Options::number, "Greater than that of every list before it")
        .required()
        .within(1, image::kLargestReleaseNumber),
    Option("--expires TIME", &Options::expires, "Its end, in UTC, such as 2027-01-31T00:00:00Z")
        .required()
        .checked(timeProblem),
    Option("--issued TIME", &Options::issued, "When it was made; default: now").checked(timeProblem),
    Option("--signing-key FILE", &Options::signingKeyFile, "The private key to sign with: PEM").required(),
    {"--public-key FILE", &Options::publicKeyFile, "Of what is in DIR, when it is another key's: PEM"},
    Option("--into DIR", &Options::output, "The directory to lay it out in").required(),
};

constexpr Option kPackage[] = {
    Option("PACKAGE", &Options::input, "A package, an image's signature, or a release list").required(),
};

constexpr Option kFile[] = {
    Option("FILE", &Options::input, "Image, info.json, folder of both, package, or list").required(),
    {"--key-file FILE", &Options::keyFile, "Look into a USB package with this key"},
};

constexpr Option kExpected[] = {
    {"--public-key FILE", &Options::publicKeyFile, "Check against this PEM alone"},
    Option("--keys DIR", &Options::keyDirectory, "Check against this directory's *.pem")
        .withDefault()
        .excluding("--public-key"),
    Option("--name NAME", &Options::name, "The name it must be for; default: the file's")
        .checked(nameProblem),
    Option("--model TEXT", &Options::model, "The model it must be for; default: any").checked(modelProblem),
};

constexpr frame::Command<Options> kCommands[] = {
    {{"info", "Write the info.json of an image", "fw-pack info tuner.bin --version 2.0.0 --expected-time 30"},
     {kImage, kVersion, kInfo},
     fwpack::runInfo},
    {{"image", "Lay out an image with its info.json for updates",
      "fw-pack image tuner.bin --type sbox --name tunerfw --version 2.0.0 \\\n"
      "           --expected-time 30 --into sbox"},
     {kImage, kType, kVersion, kInto, kStatements},
     fwpack::runImage},
    {{"emp", "Make an extension package image, reproducibly",
      "fw-pack emp tuner.bin --id tunerempfw --version 2.0.0 \\\n"
      "           --expected-time 30 --signing-key maker.key"},
     {kImage, kIdentifier, kVersion, kSigning, kStatements, kExtensionPackage},
     fwpack::runEmp},
    {{"usb", "Make an encrypted, signed USB package",
      "fw-pack usb tuner.bin --version 2.0.0 --key-file package.key \\\n"
      "           --signing-key maker.key -o tunerfw.bin"},
     {kImage, kEncrypted, kStatements, kUsbPackage},
     fwpack::runUsb},
    {{"release", "Make the signed list of a release",
      "fw-pack release artifacts --number 7 --expires 2027-01-31T00:00:00Z \\\n"
      "           --signing-key maker.key --into upload"},
     {kRelease},
     fwpack::runRelease},
    {{"keygen", "Make a key", "fw-pack keygen ed25519 maker.key"}, {kKey}, fwpack::runKeygen},
    {{"verify", "Check the signature of a package", "fw-pack verify tunerfw.bin --public-key maker.key.pem"},
     {kPackage, kExpected},
     fwpack::runVerify},
    {{"inspect", "Show what a file is", "fw-pack inspect tunerfw.bin --key-file package.key --json"},
     {kFile, kExpected},
     fwpack::runInspect},
};

constexpr frame::Program<Options> kProgram = {
    {"fw-pack", "Makes firmware packages and says what they are.",
     "Each command explains itself: fw-pack usb --help", fwpack::kExitCodes, ExitCode::Usage,
     ExitCode::Failed},
    {},
    kCommands,
};

}  // namespace

int main(int argc, char** argv) {
  fwpack::catchInterruptions();
  return frame::perform(kProgram, argc, argv);
}
