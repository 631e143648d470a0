#include "trace-reader.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <type_traits>

#include "trace/trace-format.h"

namespace tracetool {
namespace {

using namespace fwplatform::trace;

constexpr std::size_t kMaximumNotes = 20;
// No place of the library has nearly as many. Each takes five bytes of a file and many
// more of memory, here and in each message.
constexpr std::uint32_t kMaximumArguments = 64;
constexpr std::uint64_t kMaximumPlaces = std::uint64_t{16} * kUnit;  // in bytes; a process writes no more
constexpr std::int64_t kLatestTime = INT64_MAX / 2;                  // the year 2116

// A number or a structure at an offset; nothing where the bytes end.
template <typename Value>
std::optional<Value> valueAt(std::string_view bytes, std::uint64_t offset) {
  static_assert(std::is_trivially_copyable_v<Value>);
  if (offset > bytes.size() || bytes.size() - offset < sizeof(Value)) {
    return std::nullopt;
  }
  Value value = {};
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

void note(Trace& trace, const std::string& text) {
  if (trace.skipped.size() < kMaximumNotes) {
    trace.skipped.push_back(text);
  } else if (trace.skipped.size() == kMaximumNotes) {
    trace.skipped.emplace_back("and more");
  }
}

std::string atByte(std::uint64_t offset) {
  return " at byte " + std::to_string(offset);
}

template <std::size_t Size>
std::string fixedText(const char (&text)[Size]) {
  return std::string(text, strnlen(text, Size));
}

// ---- Locations ----------------------------------------------------------------

// Takes one value after the other off the front of an entry.
class EntryReader {
 public:
  explicit EntryReader(std::string_view entry) : rest_(entry) {}

  template <typename Number>
  Number number() {
    const auto value = valueAt<Number>(rest_, 0);
    rest_.remove_prefix(value ? sizeof(Number) : rest_.size());
    whole_ = whole_ && value;
    return value.value_or(0);
  }
  std::string text() {
    const std::size_t length = number<std::uint16_t>();
    whole_ = whole_ && length <= rest_.size();
    std::string result(rest_.substr(0, length));
    rest_.remove_prefix(std::min(length, rest_.size()));
    return result;
  }
  bool isWhole() const { return whole_; }

 private:
  std::string_view rest_;
  bool whole_ = true;
};

std::optional<Location> readLocation(std::string_view entry, const LocationHeader& header) {
  EntryReader reader(entry.substr(sizeof header));
  Location location;
  location.id = header.id;
  location.line = header.line;
  location.sourcePath = reader.text();
  location.function = reader.text();
  location.format = reader.text();
  if (header.argumentCount > kMaximumArguments) {
    return std::nullopt;
  }
  for (std::uint32_t i = 0; i < header.argumentCount && reader.isWhole(); ++i) {
    ArgumentType type;
    type.flag = reader.number<std::uint8_t>();
    type.size = reader.number<std::uint16_t>();
    type.name = reader.text();
    location.arguments.push_back(type);
  }
  if (!reader.isWhole()) {
    return std::nullopt;
  }
  return location;
}

void readLocations(std::string_view data, std::uint64_t used, std::uint64_t fileOffset, Trace& trace) {
  if (used > data.size()) {
    note(trace, "A part of the list of places" + atByte(fileOffset) + " is missing.");
  }
  if (used > kMaximumPlaces - trace.placesRead) {
    note(trace, "There are more places than a trace has; those" + atByte(fileOffset) + " are left out.");
    return;
  }
  trace.placesRead += used;
  data = data.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(used, data.size())));
  while (!data.empty()) {
    const auto header = valueAt<LocationHeader>(data, 0);
    if (!header || header->size < sizeof *header || header->size > data.size()) {
      note(trace, "The list of places is damaged" + atByte(fileOffset) + "; the rest of it is left out.");
      return;
    }
    if (auto location = readLocation(data.substr(0, header->size), *header)) {
      trace.locations[header->id] = std::move(*location);
    } else {
      note(trace, "A damaged place" + atByte(fileOffset) + " is left out.");
    }
    data.remove_prefix(header->size);
    fileOffset += header->size;
  }
}

// ---- Rings ----------------------------------------------------------------------

struct Ring {
  std::string_view data;  // what there is of it
  std::uint64_t capacity;
  std::uint64_t head;
  std::uint64_t tail;
  std::uint64_t fileOffset;
};

struct RecordFrame {
  std::uint32_t size;
  std::uint32_t slack;
  std::uint8_t kind;
};

std::optional<RecordFrame> frameAt(const Ring& ring, std::uint64_t position) {
  const std::uint64_t offset = position % ring.capacity;
  const auto sizeAndSlack = valueAt<std::uint32_t>(ring.data, offset);
  const auto kindAndStamp = valueAt<std::uint32_t>(ring.data, offset + 4);
  if (!sizeAndSlack || !kindAndStamp) {
    return std::nullopt;
  }
  const RecordFrame frame{*sizeAndSlack & ~(kRecordAlignment - 1), *sizeAndSlack & (kRecordAlignment - 1),
                          static_cast<std::uint8_t>(*kindAndStamp & 0xFF)};
  const bool padding = frame.kind == Padding;
  const std::uint32_t smallest =
      padding ? kPaddingHeaderSize : static_cast<std::uint32_t>(sizeof(RecordHeader)) + frame.slack;
  const bool fits = frame.size >= smallest && frame.size <= ring.capacity - offset &&
                    frame.size <= ring.head - position && offset + frame.size <= ring.data.size();
  const bool belongsHere = *kindAndStamp >> 8 == stampOf(position);
  const bool reachesEnd = !padding || offset + frame.size == ring.capacity;
  if (!fits || !belongsHere || !reachesEnd) {
    return std::nullopt;
  }
  return frame;
}

void keepNewest(Trace& trace) {
  if (trace.records.size() <= kMaximumRecords) {
    return;
  }
  const auto first = trace.records.end() - static_cast<std::ptrdiff_t>(kMaximumRecords);
  std::nth_element(trace.records.begin(), first, trace.records.end(),
                   [](const Record& a, const Record& b) { return a.time < b.time; });
  trace.leftOut += trace.records.size() - kMaximumRecords;
  trace.records.erase(trace.records.begin(), first);
}

void readRecord(const Ring& ring, std::uint64_t position, const RecordFrame& frame, std::int64_t timeOffset,
                Trace& trace) {
  const std::uint64_t offset = position % ring.capacity;
  const auto header = valueAt<RecordHeader>(ring.data, offset);
  if (frame.kind == Padding || !header) {
    return;
  }
  Record record;
  // Unsigned, since a damaged time may be anything.
  record.time = static_cast<std::int64_t>(static_cast<std::uint64_t>(header->time) +
                                          static_cast<std::uint64_t>(timeOffset));
  // No clock shows this; and differences of times must not overflow.
  if (record.time < 0 || record.time > kLatestTime) {
    note(trace, "A record with a damaged time" + atByte(ring.fileOffset + offset) + " is left out.");
    return;
  }
  record.threadId = header->threadId;
  record.locationId = header->locationId;
  record.kind = frame.kind;
  record.payload = ring.data.substr(static_cast<std::size_t>(offset) + sizeof *header,
                                    frame.size - sizeof *header - frame.slack);
  trace.records.push_back(std::move(record));
  if (trace.records.size() >= 2 * kMaximumRecords) {
    keepNewest(trace);
  }
}

// How far to go on where no record stands: to the next place where one may, or past
// all of the ring that the file does not have.
std::uint64_t stepOver(const Ring& ring, std::uint64_t position) {
  const std::uint64_t offset = position % ring.capacity;
  const std::uint64_t step =
      offset + kRecordAlignment > ring.data.size() ? ring.capacity - offset : kRecordAlignment;
  return std::min(step, ring.head - position);
}

bool isSound(const Ring& ring) {
  return ring.tail <= ring.head && ring.head - ring.tail <= ring.capacity &&
         ring.tail % kRecordAlignment == 0 && ring.head % kRecordAlignment == 0;
}

void readRing(const Ring& ring, std::int64_t timeOffset, Trace& trace) {
  if (!isSound(ring)) {
    note(trace, "The records of a thread" + atByte(ring.fileOffset) + " are damaged and left out.");
    return;
  }
  trace.overwritten = trace.overwritten || ring.tail != 0;
  std::uint64_t lost = 0;
  for (std::uint64_t position = ring.tail; position < ring.head;) {
    if (const auto frame = frameAt(ring, position)) {
      readRecord(ring, position, *frame, timeOffset, trace);
      position += frame->size;
    } else {
      const std::uint64_t step = stepOver(ring, position);
      lost += step;
      position += step;
    }
  }
  if (lost != 0) {
    note(trace, std::to_string(lost) + " bytes of a thread's records" + atByte(ring.fileOffset) +
                    " are damaged or missing and left out.");
  }
}

// ---- File -----------------------------------------------------------------------

std::string problemOf(const std::optional<FileHeader>& header) {
  if (!header) {
    return "The file is too short for a trace.";
  }
  if (std::memcmp(header->magic, kMagic, sizeof kMagic) != 0) {
    return "The file is no trace.";
  }
  if (header->byteOrder != kByteOrderMark) {
    return "The trace is from a machine with another byte order.";
  }
  if (header->version != kVersion) {
    return "The trace has format version " + std::to_string(header->version) + "; this program reads " +
           std::to_string(kVersion) + ".";
  }
  if (header->headerSize < sizeof(FileHeader) || header->headerSize % kRecordAlignment != 0) {
    return "The header of the trace is damaged.";
  }
  return "";
}

void readChunk(std::string_view rest, const ChunkHeader& chunk, std::uint64_t offset, std::int64_t timeOffset,
               Trace& trace) {
  const std::uint64_t fileOffset = offset + sizeof chunk;
  const auto there = static_cast<std::size_t>(std::min<std::uint64_t>(chunk.size, rest.size()));
  if (there < chunk.size) {
    note(trace, "The file is cut off" + atByte(offset + there) + ".");
  }
  const std::string_view data = rest.substr(sizeof chunk, there - sizeof chunk);
  if (chunk.kind == LocationsChunk) {
    readLocations(data, chunk.head, fileOffset, trace);
  } else if (chunk.kind == RingChunk) {
    readRing({data, chunk.size - sizeof chunk, chunk.head, chunk.tail, fileOffset}, timeOffset, trace);
  } else {
    note(trace, "An unknown part" + atByte(offset) + " is left out.");
  }
}

bool isChunk(const ChunkHeader& chunk) {
  const std::uint64_t smallest = sizeof chunk + (chunk.kind == RingChunk ? kRecordAlignment : 0);
  return chunk.magic == kChunkMagic && chunk.size >= smallest && chunk.size % kRecordAlignment == 0;
}

// A chunk of zeros is one that its process did not come to fill in.
bool isUnused(const ChunkHeader& chunk) {
  return chunk.magic == 0 && chunk.head == 0 && chunk.tail == 0;
}

std::uint64_t nextUnit(std::uint64_t offset) {
  return (offset / kUnit + 1) * kUnit;
}

void readChunks(std::string_view bytes, std::uint64_t first, std::int64_t timeOffset, Trace& trace) {
  std::uint64_t offset = first;
  while (offset < bytes.size()) {
    const auto chunk = valueAt<ChunkHeader>(bytes, offset);
    if (!chunk) {
      note(trace, "The file is cut off" + atByte(bytes.size()) + ".");
      return;
    }
    if (isChunk(*chunk)) {
      readChunk(bytes.substr(static_cast<std::size_t>(offset)), *chunk, offset, timeOffset, trace);
      if (chunk->size >= bytes.size() - offset) {
        return;
      }
      offset += chunk->size;
      continue;
    }
    if (!isUnused(*chunk)) {
      note(trace, "What stands" + atByte(offset) + " is no part of a trace and left out.");
    }
    offset = nextUnit(offset);
  }
}

}  // namespace

ReadResult readTrace(std::string_view bytes) {
  ReadResult result;
  const auto header = valueAt<FileHeader>(bytes, 0);
  result.problem = problemOf(header);
  if (!result.problem.empty()) {
    return result;
  }

  Trace& trace = result.trace;
  trace.processId = header->processId;
  trace.parentId = header->parentId;
  trace.start = header->realTime;
  trace.processName = fixedText(header->processName);
  trace.commandLine = fixedText(header->commandLine);
  trace.dropped = header->dropped;
  const auto timeOffset = static_cast<std::int64_t>(static_cast<std::uint64_t>(header->realTime) -
                                                    static_cast<std::uint64_t>(header->monotonicTime));
  readChunks(bytes, header->headerSize, timeOffset, trace);
  keepNewest(trace);
  if (trace.leftOut != 0) {
    note(trace, "The oldest " + std::to_string(trace.leftOut) + " records are left out; the newest " +
                    std::to_string(kMaximumRecords) + " are taken.");
  }
  std::stable_sort(trace.records.begin(), trace.records.end(),
                   [](const Record& a, const Record& b) { return a.time < b.time; });
  return result;
}

}  // namespace tracetool
