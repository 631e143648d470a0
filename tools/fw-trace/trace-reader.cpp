// SPDX-License-Identifier: Apache-2.0
#include "trace-reader.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>
#include <type_traits>

#include "trace/trace-format.h"

namespace tracetool {
namespace {

using namespace fwplatform::trace;

// No place of the library has nearly as many. Each takes five bytes of a file and many
// more of memory, here and in each message.
constexpr std::uint32_t kMaximumArguments = 64;
constexpr std::uint64_t kMaximumPlaces = std::uint64_t{16} * kUnit;  // in bytes; a process writes no more

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
    const auto value = BytesInMemory(rest_).valueAt<Number>(0);
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

void readLocations(std::string_view data, std::uint64_t fileOffset, Trace& trace) {
  while (!data.empty()) {
    const auto header = BytesInMemory(data).valueAt<LocationHeader>(0);
    if (!header || header->size < sizeof *header || header->size > data.size()) {
      note(trace.skipped,
           "The list of places is damaged" + atByte(fileOffset) + "; the rest of it is left out.");
      return;
    }
    if (auto location = readLocation(data.substr(0, header->size), *header)) {
      trace.locations[header->id] = std::move(*location);
    } else {
      note(trace.skipped, "A damaged place" + atByte(fileOffset) + " is left out.");
    }
    data.remove_prefix(header->size);
    fileOffset += header->size;
  }
}

// Those up to this byte of the chunk that were not read yet.
void readOn(const TraceBytes& bytes, Places& places, std::uint64_t used, Trace& trace) {
  const std::uint64_t offset = places.chunk + sizeof(ChunkHeader) + places.taken;
  const std::uint64_t size = used - std::min(used, places.taken);
  if (used > places.there) {
    note(trace.skipped, "A part of the list of places" + atByte(offset) + " is missing.");
  }
  const std::uint64_t there = places.there - std::min(places.there, places.taken);
  places.taken += size;
  if (size > kMaximumPlaces - trace.placesRead) {
    note(trace.skipped, "There are more places than a trace has; those" + atByte(offset) + " are left out.");
    return;
  }
  trace.placesRead += size;
  readLocations(bytes.textAt(offset, static_cast<std::size_t>(std::min(size, there))), offset, trace);
}

// Where the part of the file stands among those that are known, or belongs.
template <typename Part>
auto placeOf(std::vector<Part>& parts, std::uint64_t chunk) {
  return std::lower_bound(parts.begin(), parts.end(), chunk,
                          [](const Part& part, std::uint64_t offset) { return part.chunk < offset; });
}

void takePlaces(const TraceBytes& bytes, const Places& found, std::uint64_t used, Trace& trace) {
  auto places = placeOf(trace.places, found.chunk);
  if (places == trace.places.end() || places->chunk != found.chunk) {
    places = trace.places.insert(places, found);
  }
  readOn(bytes, *places, used, trace);
}

void takeRing(const Ring& found, Trace& trace) {
  const auto ring = placeOf(trace.rings, found.chunk);
  const bool known = ring != trace.rings.end() && ring->chunk == found.chunk;
  if (!found.isSound()) {
    note(trace.skipped, "The records of a thread" + atByte(found.offset()) + " are damaged and left out.");
  } else if (known) {
    *ring = found;
  } else {
    trace.overwritten = trace.overwritten || found.tail != 0;
    trace.rings.insert(ring, found);
  }
}

// ---- Records --------------------------------------------------------------------

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

void readRing(const TraceBytes& bytes, const Ring& ring, Trace& trace) {
  RingReader reader(ring, trace.timeOffset);
  for (auto records = reader.next(bytes, trace.skipped); !records.empty();
       records = reader.next(bytes, trace.skipped)) {
    std::move(records.begin(), records.end(), std::back_inserter(trace.records));
    if (trace.records.size() >= 2 * kMaximumRecords) {
      keepNewest(trace);
    }
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

void takeChunk(const TraceBytes& bytes, const ChunkHeader& chunk, std::uint64_t offset, Trace& trace) {
  const std::uint64_t there = std::min<std::uint64_t>(chunk.size, bytes.size() - offset);
  if (there < chunk.size) {
    note(trace.skipped, "The file is cut off" + atByte(offset + there) + ".");
  }
  const std::uint64_t data = there - sizeof chunk;
  if (chunk.kind == LocationsChunk) {
    takePlaces(bytes, {offset, data, 0}, chunk.head, trace);
  } else if (chunk.kind == RingChunk) {
    takeRing({offset, chunk.size - sizeof chunk, data, chunk.head, chunk.tail}, trace);
  } else {
    note(trace.skipped, "An unknown part" + atByte(offset) + " is left out.");
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

void takeChunks(const TraceBytes& bytes, Trace& trace) {
  std::uint64_t offset = trace.firstChunk;
  while (offset < bytes.size()) {
    const auto chunk = bytes.valueAt<ChunkHeader>(offset);
    if (!chunk) {
      note(trace.skipped, "The file is cut off" + atByte(bytes.size()) + ".");
      return;
    }
    if (isChunk(*chunk)) {
      takeChunk(bytes, *chunk, offset, trace);
      if (chunk->size >= bytes.size() - offset) {
        return;
      }
      offset += chunk->size;
      continue;
    }
    if (!isUnused(*chunk)) {
      note(trace.skipped, "What stands" + atByte(offset) + " is no part of a trace and left out.");
    }
    offset = nextUnit(offset);
  }
}

}  // namespace

void readOn(const TraceBytes& bytes, Trace& trace) {
  takeChunks(bytes, trace);
  // A record that was written meanwhile may be of a place that was registered meanwhile.
  for (Places& places : trace.places) {
    if (const auto chunk = bytes.valueAt<ChunkHeader>(places.chunk); chunk && chunk->head > places.taken) {
      readOn(bytes, places, chunk->head, trace);
    }
  }
}

ReadResult readOutline(const TraceBytes& bytes) {
  ReadResult result;
  const auto header = bytes.valueAt<FileHeader>(0);
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
  trace.timeOffset = static_cast<std::int64_t>(static_cast<std::uint64_t>(header->realTime) -
                                               static_cast<std::uint64_t>(header->monotonicTime));
  trace.firstChunk = header->headerSize;
  readOn(bytes, trace);
  return result;
}

void readRecords(const TraceBytes& bytes, Trace& trace) {
  for (const Ring& ring : trace.rings) {
    readRing(bytes, ring, trace);
  }
  keepNewest(trace);
  if (trace.leftOut != 0) {
    note(trace.skipped, "The oldest " + std::to_string(trace.leftOut) + " records are left out; the newest " +
                            std::to_string(kMaximumRecords) + " are taken.");
  }
  std::stable_sort(trace.records.begin(), trace.records.end(),
                   [](const Record& a, const Record& b) { return a.time < b.time; });
}

ReadResult readTrace(std::string_view bytes) {
  const BytesInMemory memory(bytes);
  ReadResult result = readOutline(memory);
  readRecords(memory, result.trace);
  return result;
}

}  // namespace tracetool
