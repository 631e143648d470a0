// SPDX-License-Identifier: Apache-2.0
#include "trace-builder.h"

#include <cstring>

using namespace fwplatform::trace;

namespace {

template <typename Value>
std::string bytesOf(const Value& value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

std::string textOf(const std::string& text) {
  return bytesOf(static_cast<std::uint16_t>(text.size())) + text;
}

std::string encode(const Argument& argument) {
  if (const auto* number = std::get_if<std::int32_t>(&argument)) {
    return bytesOf(*number);
  }
  const auto* text = std::get_if<std::string>(&argument);
  if (text == nullptr) {
    return "\xFF\x7F";
  }
  std::string prefix;
  std::size_t length = text->size();
  for (; length >= 0x80; length >>= 7) {
    prefix += static_cast<char>((length & 0x7F) | 0x80);
  }
  return prefix + static_cast<char>(length) + *text;
}

std::string chunk(std::uint32_t kind, const std::string& data) {
  ChunkHeader header = {};
  header.magic = kChunkMagic;
  header.kind = kind;
  header.size = (sizeof header + data.size() + 7) / 8 * 8;
  header.head = data.size();
  std::string bytes = bytesOf(header) + data;
  bytes.resize(static_cast<std::size_t>(header.size));
  return bytes;
}

}  // namespace

TraceBuilder::TraceBuilder() : header() {
  std::memcpy(header.magic, kMagic, sizeof kMagic);
  header.version = kVersion;
  header.byteOrder = kByteOrderMark;
  header.headerSize = sizeof header;
  header.processId = 77;
  header.parentId = 1;
  header.realTime = 1800000000000000000;
  std::strcpy(header.processName, "service");
  std::strcpy(header.commandLine, "service --run");
}

std::uint32_t TraceBuilder::place(const std::string& function, const std::string& format,
                                  const std::string& types) {
  LocationHeader entry = {0, ++lastPlace_, 42, static_cast<std::uint32_t>(types.size())};
  std::string rest = textOf("/src/a/service.cpp") + textOf(function) + textOf(format);
  for (const char type : types) {
    rest += '\1';
    rest += bytesOf(static_cast<std::uint16_t>(type == 'd' ? 4 : 0x3FFF));
    rest += textOf(type == 'd' ? "int" : "char const*");
  }
  rest.resize((rest.size() + 3) / 4 * 4);
  entry.size = static_cast<std::uint32_t>(sizeof entry + rest.size());
  places_ += bytesOf(entry) + rest;
  return lastPlace_;
}

TraceBuilder& TraceBuilder::record(std::uint32_t place, std::uint32_t thread, std::int64_t time,
                                   const std::vector<Argument>& arguments) {
  std::string payload;
  for (const Argument& argument : arguments) {
    payload += encode(argument);
  }
  return rawRecord(place, thread, time, Call, payload);
}

TraceBuilder& TraceBuilder::rawRecord(std::uint32_t place, std::uint32_t thread, std::int64_t time,
                                      std::uint8_t kind, const std::string& payload) {
  const auto unpadded = static_cast<std::uint32_t>(sizeof(RecordHeader) + payload.size());
  const std::uint32_t size = (unpadded + 7) / 8 * 8;
  const RecordHeader record = {size | (size - unpadded), kindAndStamp(kind, records_.size()), place, thread,
                               time};
  records_ += bytesOf(record) + payload;
  records_.resize((records_.size() + 7) / 8 * 8);
  return *this;
}

std::size_t TraceBuilder::placesOffset() const {
  return sizeof header;
}

std::size_t TraceBuilder::ringOffset() const {
  return sizeof header + chunk(LocationsChunk, places_).size();
}

std::string TraceBuilder::bytes() const {
  return bytesOf(header) + chunk(LocationsChunk, places_) + chunk(RingChunk, records_);
}
