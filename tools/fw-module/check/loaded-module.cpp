// SPDX-License-Identifier: Apache-2.0
#include "loaded-module.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <exception>

#include "fw-update-module.h"
#include "lent-memory.h"
#include "module-log.h"

namespace fwmodule {
namespace {

constexpr std::size_t kTextSize = 128;

std::string sentence(EntryPoint entryPoint, const std::string& rest) {
  return infoOf(entryPoint).name + (" " + rest);
}

TextAnswer answerIn(const LentMemory& place, int result) {
  const char* const begin = place.data();
  const char* const end = begin + kTextSize;
  const auto unwritten = [](char c) { return static_cast<unsigned char>(c) == kUnwritten; };
  const char* const nul = std::find(begin, end, '\0');
  TextAnswer answer;
  answer.result = result;
  answer.written = !std::all_of(begin, end, unwritten);
  answer.ended = nul != end;
  answer.text.assign(begin, answer.ended ? nul : std::find_if(begin, end, unwritten));
  return answer;
}

}  // namespace

LoadedModule::LoadedModule(Transcript& transcript, const std::string& path, const std::string& libraryName,
                           EntryPointSet broken)
    : transcript_(transcript), libraryName_(libraryName) {
  transcript_.enter(EntryPoint::Loading, "as the update library loads it");
  library_ = dlopen(path.c_str(), RTLD_NOW);
  const char* const error = library_ == nullptr ? dlerror() : nullptr;
  transcript_.leave(EntryPoint::Loading);
  if (library_ == nullptr) {
    transcript_.finding(Check::Loads, EntryPoint::Loading,
                        std::string("The library does not load: ") + error + ".");
    return;
  }
  transcript_.passed(Check::Loads);
  for (const EntryPointInfo& entry : kEntryPoints) {
    if (entry.exported && !contains(broken, entry.entryPoint)) {
      addresses_[static_cast<std::size_t>(entry.entryPoint)] = dlsym(library_, entry.name);
    }
  }
}

void LoadedModule::unload() {
  std::fill(std::begin(addresses_), std::end(addresses_), nullptr);
  transcript_.enter(EntryPoint::Unloading, "after queries");
  dlclose(library_);
  transcript_.leave(EntryPoint::Unloading);
  library_ = nullptr;
}

template <typename Function>
Function* LoadedModule::function(EntryPoint entryPoint) const {
  return reinterpret_cast<Function*>(addresses_[static_cast<std::size_t>(entryPoint)]);
}

template <typename Body>
int LoadedModule::call(EntryPoint entryPoint, const char* situation, Body body) {
  transcript_.enter(entryPoint, situation);
  int result = kThrew;
  std::string thrown;
  try {
    result = body();
  } catch (const std::exception& exception) {
    thrown = exception.what();
  } catch (...) {
    thrown = "an exception that is no std::exception";
  }
  transcript_.leave(entryPoint);
  if (result == kThrew && !thrown.empty()) {
    transcript_.finding(
        Check::Exception, entryPoint,
        sentence(entryPoint, "let an exception out, " + std::string(situation) + ": " + thrown));
  }
  return result;
}

template <typename Body>
TextAnswer LoadedModule::textFrom(EntryPoint entryPoint, const char* what, const char* situation, Body body) {
  const LentMemory place(what, kTextSize);
  const int result = call(entryPoint, situation, [&] { return body(place.data()); });
  if (!place.untouchedBefore()) {
    transcript_.finding(Check::Overrun, entryPoint,
                        sentence(entryPoint, std::string("wrote before the beginning of ") + what + "."));
  }
  const TextAnswer answer = answerIn(place, result);
  if (answer.written) {
    transcript_.judge(answer.ended, Check::TextEnd, entryPoint,
                      sentence(entryPoint, "wrote \"" + answer.text + "\" without a NUL behind it."));
  }
  return answer;
}

template <typename Number, typename Body>
NumberAnswer<Number> LoadedModule::numberFrom(EntryPoint entryPoint, const char* what, const char* situation,
                                              Body body) {
  const LentMemory place(what, sizeof(Number));
  NumberAnswer<Number> answer;
  Number preset;
  std::memcpy(&preset, place.data(), sizeof preset);
  auto* const number = reinterpret_cast<Number*>(place.data());
  answer.result = call(entryPoint, situation, [&] { return body(number); });
  if (!place.untouchedBefore()) {
    transcript_.finding(Check::Overrun, entryPoint,
                        sentence(entryPoint, std::string("wrote before the beginning of ") + what + "."));
  }
  answer.written = *number != preset;
  answer.value = answer.written ? *number : 0;
  return answer;
}

int LoadedModule::setContext(CallerTypes caller, const std::string& data, const char* situation) {
  const LentMemory name("the library name that setContext was given", libraryName_,
                        LentMemory::Content::Text);
  const LentMemory text("the request data that setContext was given", data,
                        LentMemory::Content::WritableText);
  return call(EntryPoint::SetContext, situation, [&] {
    return function<decltype(::setContext)>(EntryPoint::SetContext)(name.data(), caller, text.data());
  });
}

TextAnswer LoadedModule::getEmpId(const char* situation) {
  return textFrom(EntryPoint::GetEmpId, "the 128 bytes for the identifier of getEMPID", situation,
                  [&](char* out) { return function<decltype(::getEMPID)>(EntryPoint::GetEmpId)(out); });
}

TextAnswer LoadedModule::getActiveVersion(const char* situation) {
  return textFrom(
      EntryPoint::GetActiveVersion, "the 128 bytes for the version of getActiveVersion", situation,
      [&](char* out) { return function<decltype(::getActiveVersion)>(EntryPoint::GetActiveVersion)(out); });
}

NumberAnswer<int> LoadedModule::checkVersion(const std::string& version, const char* situation) {
  const LentMemory text("the version that checkVersion was given", version, LentMemory::Content::Text);
  return numberFrom<int>(
      EntryPoint::CheckVersion, "the int for the answer of checkVersion", situation, [&](int* need) {
        return function<decltype(::checkVersion)>(EntryPoint::CheckVersion)(text.data(), need);
      });
}

int LoadedModule::doUpdate(const std::string& path, unsigned long crc, const char* situation) {
  const LentMemory text("the path that doUpdate was given", path, LentMemory::Content::Text);
  forgetReasons();
  return call(EntryPoint::DoUpdate, situation,
              [&] { return function<decltype(::doUpdate)>(EntryPoint::DoUpdate)(text.data(), crc); });
}

int LoadedModule::doUpdateDecryption(const std::string& image, const char* situation) {
  const LentMemory data("the data that doUpdate_decryption was given", image, LentMemory::Content::Bytes);
  forgetReasons();
  return call(EntryPoint::DoUpdateDecryption, situation, [&] {
    return function<decltype(::doUpdate_decryption)>(EntryPoint::DoUpdateDecryption)(
        reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(image.size()));
  });
}

int LoadedModule::allUpdateDone(const char* situation) {
  return call(EntryPoint::AllUpdateDone, situation,
              [&] { return function<decltype(::allUpdateDone)>(EntryPoint::AllUpdateDone)(); });
}

NumberAnswer<int> LoadedModule::getExpectedTime(const char* situation) {
  return numberFrom<int>(EntryPoint::GetExpectedTime, "the int for the seconds of getExpectedTime", situation,
                         [&](int* seconds) {
                           return function<decltype(::getExpectedTime)>(EntryPoint::GetExpectedTime)(seconds);
                         });
}

NumberAnswer<unsigned int> LoadedModule::getUpdateProgress(const char* situation) {
  return numberFrom<unsigned int>(
      EntryPoint::GetUpdateProgress, "the int for the percentage of getUpdateProgress", situation,
      [&](unsigned int* progress) {
        return function<decltype(::getUpdateProgress)>(EntryPoint::GetUpdateProgress)(progress);
      });
}

}  // namespace fwmodule
