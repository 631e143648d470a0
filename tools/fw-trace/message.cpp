// SPDX-License-Identifier: Apache-2.0
#include "message.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "trace/trace-format.h"

namespace tracetool {
namespace {

constexpr std::uint16_t kVariableSize = 0x3FFF;
constexpr std::size_t kMaximumDirective = 16;

// Takes a text off the front of the payload: its length as a varint, then its bytes.
Value takeText(std::string_view& payload, bool& whole) {
  constexpr std::string_view kNullText("\xFF\x7F", 2);
  if (payload.substr(0, 2) == kNullText) {
    payload.remove_prefix(2);
    return {Value::Kind::Null, 0, ""};
  }
  std::uint32_t length = 0;
  int shift = 0;
  bool more = true;
  while (more && !payload.empty() && shift < 28) {
    const auto byte = static_cast<std::uint8_t>(payload.front());
    payload.remove_prefix(1);
    length |= static_cast<std::uint32_t>(byte & 0x7F) << shift;
    shift += 7;
    more = (byte & 0x80) != 0;
  }
  whole = whole && !more && length <= payload.size();
  Value value{Value::Kind::Text, 0, std::string(payload.substr(0, length))};
  payload.remove_prefix(value.text.size());
  return value;
}

Value takeFixed(std::string_view& payload, std::size_t size, bool& whole) {
  Value value;
  whole = whole && size <= payload.size();
  value.text = payload.substr(0, size);
  payload.remove_prefix(value.text.size());
  if (value.text.size() == sizeof value.number) {
    value.kind = Value::Kind::Number;
    std::memcpy(&value.number, value.text.data(), sizeof value.number);
    value.text.clear();
  }
  return value;
}

std::string hexadecimal(const std::string& bytes) {
  std::string text = "<";
  char digits[4];
  for (const char c : bytes) {
    std::snprintf(digits, sizeof digits, "%02X", static_cast<unsigned char>(c));
    text += digits;
  }
  return text + ">";
}

std::string asText(const Value& value) {
  switch (value.kind) {
    case Value::Kind::Number:
      return std::to_string(static_cast<std::int32_t>(value.number));
    case Value::Kind::Text:
      return value.text;
    case Value::Kind::Null:
      return "(null)";
    case Value::Kind::Bytes:
      break;
  }
  return hexadecimal(value.text);
}

// Width and flags come from the file: they are held down to what a message needs.
bool isModest(std::string_view directive) {
  std::size_t digits = 0;
  for (const char c : directive) {
    digits = c >= '0' && c <= '9' ? digits + 1 : digits;
  }
  return directive.size() < kMaximumDirective && digits <= 3 &&
         directive.find_first_not_of("-+ #0123456789.hl") == std::string_view::npos;
}

std::string withoutLength(std::string_view directive) {
  std::string kept;
  for (const char c : directive) {
    if (c != 'h' && c != 'l') {
      kept += c;
    }
  }
  return kept;
}

std::string printNumber(const std::string& directive, char conversion, std::uint32_t number) {
  char text[1100];
  const std::string format = "%" + directive + conversion;
  std::snprintf(text, sizeof text, format.c_str(), number);
  return text;
}

std::string printText(const std::string& directive, const std::string& value) {
  if (directive.empty()) {
    return value;
  }
  const std::string format = "%" + directive + "s";
  std::string text(value.size() + 1100, '\0');
  const int length = std::snprintf(text.data(), text.size(), format.c_str(), value.c_str());
  text.resize(length > 0 ? std::min(text.size() - 1, static_cast<std::size_t>(length)) : 0);
  return text;
}

// One conversion without its '%'; directive is what stands before the letter.
std::string print(std::string_view directive, char conversion, const Value& value) {
  if (!isModest(directive)) {
    return asText(value);
  }
  const std::string plain = withoutLength(directive);
  const bool number = std::strchr("diuxXoc", conversion) != nullptr;
  if (number && value.kind == Value::Kind::Number) {
    return printNumber(plain, conversion, value.number);
  }
  if (conversion == 's' && value.kind == Value::Kind::Text) {
    return printText(plain, value.text);
  }
  return asText(value);
}

// The library writes the error number in front of its text; the text itself is in
// no record.
std::string errorText(std::string_view before, const std::vector<Value>& values, std::size_t used) {
  constexpr std::string_view kNumber = "%d:";
  const bool stands =
      before.size() >= kNumber.size() && before.substr(before.size() - kNumber.size()) == kNumber;
  if (stands && used > 0 && used <= values.size() && values[used - 1].kind == Value::Kind::Number) {
    return std::strerror(static_cast<int>(values[used - 1].number));
  }
  return "<error text not kept>";
}

// What of it grows with the file's contents.
std::size_t bytesOf(const Message& message) {
  std::size_t bytes = message.text.size() + message.format.size() + message.function.size() +
                      message.file.size() + message.values.size() * sizeof(Value);
  for (const Value& value : message.values) {
    bytes += value.text.size();
  }
  return bytes;
}

}  // namespace

std::vector<Value> decode(const Location& location, const std::string& payload, bool& whole) {
  std::string_view rest = payload;
  std::vector<Value> values;
  for (const ArgumentType& type : location.arguments) {
    values.push_back(type.size == kVariableSize ? takeText(rest, whole) : takeFixed(rest, type.size, whole));
    if (!whole) {
      break;
    }
  }
  whole = whole && rest.empty();
  return values;
}

std::string render(const std::string& format, const std::vector<Value>& values) {
  const std::string_view all = format;
  std::string text;
  std::size_t used = 0;
  std::size_t at = 0;
  for (std::size_t percent = all.find('%'); percent != std::string_view::npos; percent = all.find('%', at)) {
    text += all.substr(at, percent - at);
    const std::size_t letter = all.find_first_not_of("-+ #0123456789.hl", percent + 1);
    if (letter == std::string_view::npos) {
      return text.append(all.substr(percent));
    }
    if (all[letter] == '%') {
      text += '%';
    } else if (all[letter] == 'm') {
      text += errorText(all.substr(0, percent), values, used);
    } else if (used < values.size()) {
      text += print(all.substr(percent + 1, letter - percent - 1), all[letter], values[used++]);
    } else {
      text += "<missing>";
    }
    at = letter + 1;
  }
  return text.append(all.substr(at));
}

bool isOfMessage(const Record& record) {
  return record.kind != fwplatform::trace::ThreadBegins && record.kind != fwplatform::trace::ThreadEnds;
}

Message messageOf(const Record& record, const Trace& trace, bool& whole) {
  Message message;
  message.time = record.time;
  message.threadId = record.threadId;
  const auto location = trace.locations.find(record.locationId);
  if (location == trace.locations.end()) {
    message.text = "(a message of an unknown place) " + hexadecimal(record.payload);
    return message;
  }
  message.values = decode(location->second, record.payload, whole);
  const std::string& path = location->second.sourcePath;
  message.file = path.substr(path.rfind('/') + 1);
  message.function = location->second.function;
  message.line = location->second.line;
  message.format = location->second.format;
  message.text = render(message.format, message.values);
  return message;
}

bool makeRoom(MessageRoom& room, const Message& message) {
  if (room.messages == 0 || room.bytes == 0) {
    return false;
  }
  --room.messages;
  room.bytes -= std::min(room.bytes, bytesOf(message));
  return true;
}

std::string leftOutMessages(std::size_t count) {
  return std::to_string(count) +
         " messages are more than fit into memory and are left out; name fewer traces.";
}

std::string damagedMessages(std::size_t count) {
  return std::to_string(count) + " messages have arguments that do not fit their place.";
}

std::vector<Message> messagesOf(Trace& trace) {
  MessageRoom room;
  return messagesOf(trace, room);
}

std::vector<Message> messagesOf(Trace& trace, MessageRoom& room) {
  std::vector<Message> messages;
  std::size_t damaged = 0;
  std::size_t leftOut = 0;
  for (const Record& record : trace.records) {
    if (!isOfMessage(record)) {
      continue;
    }
    if (room.messages == 0 || room.bytes == 0) {
      ++leftOut;
      continue;
    }
    bool whole = true;
    messages.push_back(messageOf(record, trace, whole));
    damaged += whole ? 0 : 1;
    makeRoom(room, messages.back());
  }
  if (damaged != 0) {
    trace.skipped.push_back(damagedMessages(damaged));
  }
  if (leftOut != 0) {
    trace.skipped.push_back(leftOutMessages(leftOut));
  }
  return messages;
}

std::map<std::uint32_t, std::string> threadNames(const Trace& trace) {
  std::map<std::uint32_t, std::string> names;
  for (const Record& record : trace.records) {
    if (!isOfMessage(record)) {
      names[record.threadId] = record.payload;
    }
  }
  return names;
}

}  // namespace tracetool
