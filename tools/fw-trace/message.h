// SPDX-License-Identifier: Apache-2.0
// A record in words: the values of its arguments and the message that they make
// with the format. Pure; any thread.
#ifndef FW_TRACE_MESSAGE_H
#define FW_TRACE_MESSAGE_H

#include <cstdint>
#include <string>
#include <vector>

#include "trace-reader.h"

namespace tracetool {

// How much the messages of a command may take up together. A place's text comes back in
// each of its messages, so that a small file could fill any memory.
struct MessageRoom {
  std::size_t messages = 1000000;
  std::size_t bytes = std::size_t{256} << 20;
};

struct Value {
  enum class Kind { Number, Text, Null, Bytes };
  Kind kind = Kind::Bytes;
  std::uint32_t number = 0;
  std::string text;  // of a text; of bytes that nothing describes
};

// The arguments of a record. whole turns false when the payload does not fit the
// description; what could be read is there all the same.
std::vector<Value> decode(const Location& location, const std::string& payload, bool& whole);

// The message as the log shows it. Line feeds and the like stay as they are. An
// error text (%m) is made from the number before it, where the format has one.
std::string render(const std::string& format, const std::vector<Value>& values);

struct Message {
  std::int64_t time = 0;
  std::uint32_t threadId = 0;
  std::string file;  // base name
  std::string function;
  int line = 0;
  std::string format;
  std::vector<Value> values;
  std::string text;
};

// The others tell of threads.
bool isOfMessage(const Record& record);

// One record in words; whole as in decode.
Message messageOf(const Record& record, const Trace& trace, bool& whole);
// What the user is told about messages for which whole turned false.
std::string damagedMessages(std::size_t count);

// Takes the message's room away; false when there is none left.
bool makeRoom(MessageRoom& room, const Message& message);
// What the user is told about messages that found no room.
std::string leftOutMessages(std::size_t count);

// The messages of a trace, in time order. Adds to trace.skipped what makes none.
std::vector<Message> messagesOf(Trace& trace);
// The same, but no more than there is room for, which becomes less by them.
std::vector<Message> messagesOf(Trace& trace, MessageRoom& room);

// The last name that each thread had.
std::map<std::uint32_t, std::string> threadNames(const Trace& trace);

}  // namespace tracetool

#endif
