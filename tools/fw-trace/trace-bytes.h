// SPDX-License-Identifier: Apache-2.0
// The bytes of a trace, wherever they lie, a piece at a time: a trace may be larger than
// what a command wants to keep of it.
#ifndef FW_TRACE_TRACE_BYTES_H
#define FW_TRACE_TRACE_BYTES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace tracetool {

class TraceBytes {
 public:
  TraceBytes() = default;
  TraceBytes(const TraceBytes&) = delete;
  TraceBytes& operator=(const TraceBytes&) = delete;
  virtual ~TraceBytes() = default;

  virtual std::uint64_t size() const = 0;

  // As many of the bytes as there are; their number.
  virtual std::size_t readAt(std::uint64_t offset, char* to, std::size_t size) const = 0;

  std::string textAt(std::uint64_t offset, std::size_t size) const {
    std::string text(size, '\0');
    text.resize(readAt(offset, text.data(), size));
    return text;
  }

  // A number or a structure; nothing where the bytes end.
  template <typename Value>
  std::optional<Value> valueAt(std::uint64_t offset) const {
    static_assert(std::is_trivially_copyable_v<Value>);
    Value value = {};
    if (readAt(offset, reinterpret_cast<char*>(&value), sizeof value) != sizeof value) {
      return std::nullopt;
    }
    return value;
  }
};

// Bytes in memory, which must outlive it.
class BytesInMemory : public TraceBytes {
 public:
  explicit BytesInMemory(std::string_view bytes) : bytes_(bytes) {}

  std::uint64_t size() const override { return bytes_.size(); }
  std::size_t readAt(std::uint64_t offset, char* to, std::size_t size) const override {
    return offset < bytes_.size() ? bytes_.copy(to, size, static_cast<std::size_t>(offset)) : 0;
  }

 private:
  std::string_view bytes_;
};

}  // namespace tracetool

#endif
