// SPDX-License-Identifier: Apache-2.0
#include "ring-reader.h"

#include <algorithm>
#include <cstring>

#include "trace/trace-format.h"

namespace tracetool {
namespace {

using namespace fwplatform::trace;

constexpr std::size_t kMaximumNotes = 20;
constexpr std::int64_t kLatestTime = INT64_MAX / 2;  // the year 2116
// Many rings are read side by side.
constexpr std::uint64_t kWindow = std::uint64_t{16} * 1024;

template <typename Value>
Value valueIn(std::string_view bytes) {
  Value value = {};
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

}  // namespace

void note(std::vector<std::string>& skipped, const std::string& sentence) {
  if (skipped.size() < kMaximumNotes) {
    skipped.push_back(sentence);
  } else if (skipped.size() == kMaximumNotes) {
    skipped.emplace_back("and more");
  }
}

std::string atByte(std::uint64_t offset) {
  return " at byte " + std::to_string(offset);
}

std::uint64_t Ring::offset() const {
  return chunk + sizeof(ChunkHeader);
}

bool Ring::isSound() const {
  return tail <= head && head - tail <= capacity && tail % kRecordAlignment == 0 &&
         head % kRecordAlignment == 0;
}

RingReader::RingReader(const Ring& ring, std::int64_t timeOffset)
    : ring_(ring), timeOffset_(timeOffset), position_(ring.tail) {}

void RingReader::goOnTo(std::uint64_t head) {
  if (head % kRecordAlignment == 0) {
    ring_.head = head;
  }
}

// A ring may be overwritten while it is read: what counts is the beginning from after it.
// False when that moved the position on.
bool RingReader::load(const TraceBytes& bytes) {
  const std::uint64_t offset = position_ % ring_.capacity;
  const std::uint64_t left = std::min(ring_.head - position_, ring_.there - std::min(offset, ring_.there));
  const std::uint64_t size = std::min(std::max(kWindow, needed_), left);
  window_ = bytes.textAt(ring_.offset() + offset, static_cast<std::size_t>(size));
  windowBegins_ = position_;
  if (const auto chunk = bytes.valueAt<ChunkHeader>(ring_.chunk); chunk && chunk->tail > position_) {
    position_ = std::min(chunk->tail, ring_.head);
    return false;
  }
  return true;
}

bool RingReader::hasLoaded(std::uint64_t size) const {
  const std::uint64_t end = windowBegins_ + window_.size();
  return position_ >= windowBegins_ && position_ <= end && end - position_ >= size;
}

// Of what stands at the position; nothing when that is no record.
std::optional<RingReader::Frame> RingReader::frame() const {
  const std::uint64_t offset = position_ % ring_.capacity;
  const std::string_view bytes =
      std::string_view(window_).substr(static_cast<std::size_t>(position_ - windowBegins_));
  const auto sizeAndSlack = valueIn<std::uint32_t>(bytes);
  const auto kindAndStamp = valueIn<std::uint32_t>(bytes.substr(4));
  const Frame frame{sizeAndSlack & ~(kRecordAlignment - 1), sizeAndSlack & (kRecordAlignment - 1),
                    static_cast<std::uint8_t>(kindAndStamp & 0xFF)};
  const bool padding = frame.kind == Padding;
  const std::uint32_t smallest =
      padding ? kPaddingHeaderSize : static_cast<std::uint32_t>(sizeof(RecordHeader)) + frame.slack;
  const bool fits = frame.size >= smallest && frame.size <= ring_.capacity - offset &&
                    frame.size <= ring_.head - position_ && offset + frame.size <= ring_.there;
  const bool belongsHere = kindAndStamp >> 8 == stampOf(position_);
  const bool reachesEnd = !padding || offset + frame.size == ring_.capacity;
  if (!fits || !belongsHere || !reachesEnd) {
    return std::nullopt;
  }
  return frame;
}

std::optional<Record> RingReader::record(const Frame& frame, std::vector<std::string>& skipped) const {
  if (frame.kind == Padding) {
    return std::nullopt;
  }
  const std::string_view bytes =
      std::string_view(window_).substr(static_cast<std::size_t>(position_ - windowBegins_), frame.size);
  const auto header = valueIn<RecordHeader>(bytes);
  Record record;
  // Unsigned, since a damaged time may be anything.
  record.time = static_cast<std::int64_t>(static_cast<std::uint64_t>(header.time) +
                                          static_cast<std::uint64_t>(timeOffset_));
  // No clock shows this; and differences of times must not overflow.
  if (record.time < 0 || record.time > kLatestTime) {
    note(skipped, "A record with a damaged time" + atByte(ring_.offset() + position_ % ring_.capacity) +
                      " is left out.");
    return std::nullopt;
  }
  record.threadId = header.threadId;
  record.locationId = header.locationId;
  record.kind = frame.kind;
  record.payload = bytes.substr(sizeof header, frame.size - sizeof header - frame.slack);
  return record;
}

// Where no record stands: to the next place where one may, or past all of the ring that the
// file does not have.
void RingReader::stepOver() {
  const std::uint64_t offset = position_ % ring_.capacity;
  const std::uint64_t step =
      offset + kRecordAlignment > ring_.there ? ring_.capacity - offset : kRecordAlignment;
  const std::uint64_t taken = std::min(step, ring_.head - position_);
  lost_ += taken;
  position_ += taken;
}

// All records that lie in the window whole. False when there is none.
bool RingReader::takeWindow(std::vector<Record>& records, std::vector<std::string>& skipped) {
  const std::uint64_t before = position_;
  needed_ = 0;
  while (position_ < ring_.head && hasLoaded(kRecordAlignment)) {
    const auto frame = this->frame();
    if (frame && !hasLoaded(frame->size)) {
      needed_ = frame->size;
      break;
    }
    if (!frame) {
      stepOver();
      continue;
    }
    if (auto record = this->record(*frame, skipped)) {
      records.push_back(std::move(*record));
    }
    position_ += frame->size;
  }
  return position_ != before;
}

std::vector<Record> RingReader::next(const TraceBytes& bytes, std::vector<std::string>& skipped) {
  std::vector<Record> records;
  while (records.empty() && position_ < ring_.head) {
    const std::uint64_t asked = std::max(kWindow, needed_);
    if (load(bytes) && !takeWindow(records, skipped) && needed_ <= asked) {
      stepOver();  // the file ends here
    }
  }
  if (records.empty() && lost_ != 0) {
    note(skipped, std::to_string(lost_) + " bytes of a thread's records" + atByte(ring_.offset()) +
                      " are damaged or missing and left out.");
    lost_ = 0;
  }
  // A signal's handler may write in between.
  std::stable_sort(records.begin(), records.end(),
                   [](const Record& a, const Record& b) { return a.time < b.time; });
  return records;
}

}  // namespace tracetool
