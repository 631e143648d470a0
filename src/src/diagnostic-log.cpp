// SPDX-License-Identifier: Apache-2.0
#include "diagnostic-log.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace diagnostics {
namespace {

constexpr unsigned char kRecordKind = 1;
constexpr std::uint8_t kArgumentFlag = 1;
constexpr std::uint16_t kVariableSize = 0x3FFF;
constexpr unsigned char kNullText[] = {0xFF, 0x7F};

struct FreeText {
  void operator()(char* text) const { std::free(text); }
};

std::string readableTypeName(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, FreeText> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status));
  return name ? name.get() : type.name();
}

std::size_t varintSize(std::size_t value) {
  std::size_t size = 1;
  for (; value >= 0x80; value >>= 7) {
    ++size;
  }
  return size;
}

std::size_t reservedSize(const TraceArgument& argument) {
  if (!argument.isText) {
    return sizeof(argument.number);
  }
  if (argument.text == nullptr) {
    return sizeof(kNullText);
  }
  return argument.length + varintSize(argument.length);
}

unsigned char* storeText(unsigned char* out, const TraceArgument& argument) {
  if (argument.text == nullptr) {
    std::memcpy(out, kNullText, sizeof(kNullText));
    return out + sizeof(kNullText);
  }
  // The length prefix is one or two bytes, whatever the length: a text of 16383
  // bytes or more is not representable, which is accepted. It still fills no more
  // than what was reserved for it.
  const std::size_t reserved = reservedSize(argument);
  unsigned char* at = out;
  if (reserved <= 128) {
    *at++ = static_cast<unsigned char>(argument.length);
  } else {
    *at++ = static_cast<unsigned char>((argument.length & 0x7F) | 0x80);
    *at++ = static_cast<unsigned char>((argument.length >> 7) & 0x7F);
  }
  std::memcpy(at, argument.text, argument.length);
  at += argument.length;
  std::memset(at, 0, static_cast<std::size_t>(out + reserved - at));
  return out + reserved;
}

unsigned char* store(unsigned char* out, const TraceArgument& argument) {
  if (argument.isText) {
    return storeText(out, argument);
  }
  std::memcpy(out, &argument.number, sizeof(argument.number));
  return out + sizeof(argument.number);
}

// Two threads that come here at once both register the site; the storage then
// knows it under two ids, of which either serves.
std::uint32_t registerSite(CallSite& site, const TraceArgument* arguments, std::size_t count) {
  TraceStorage::Manager& manager = TraceStorage::Manager::Instance();
  TraceStorage::CallLocation location{site.sourcePath,   site.line,     manager.NewLocationId(),
                                      site.functionName, site.format(), {}};
  location.arguments.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint16_t size = arguments[i].isText ? kVariableSize : sizeof(arguments[i].number);
    location.arguments.push_back({readableTypeName(*arguments[i].type), kArgumentFlag, size});
  }
  manager.GetStorage().SaveLocation(location);
  site.locationId.store(location.id, std::memory_order_relaxed);
  return location.id;
}

}  // namespace

void writeTraceRecord(CallSite& site, const TraceArgument* arguments, std::size_t count) {
  std::uint32_t id = site.locationId.load(std::memory_order_relaxed);
  if (id == 0) {
    id = registerSite(site, arguments, count);
  }

  TraceStorage::Storage& storage = TraceStorage::Manager::Instance().GetStorage();
  TraceStorage::Thread* const thread = storage.ThreadHandle();
  std::size_t size = 0;
  for (std::size_t i = 0; i < count; ++i) {
    size += reservedSize(arguments[i]);
  }
  unsigned char* out = storage.PrepareCallBuffer(thread, static_cast<unsigned int>(size), kRecordKind, id);
  if (out == nullptr) {
    return;
  }

  for (std::size_t i = 0; i < count; ++i) {
    out = store(out, arguments[i]);
  }
  storage.Commit(thread);
}

}  // namespace diagnostics
