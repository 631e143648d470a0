// SPDX-License-Identifier: Apache-2.0
// The layout of a trace file, shared by the storage that writes it and the tool
// that reads it. docs/formats/trace.md describes every byte. Plain data; numbers
// are in the byte order of the machine that wrote the file.
#ifndef PLATFORM_LINUX_TRACE_FORMAT_H
#define PLATFORM_LINUX_TRACE_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace fwplatform::trace {

inline constexpr char kFileSuffix[] = ".fwtrace";
inline constexpr char kMagic[8] = {'F', 'W', 'T', 'R', 'A', 'C', 'E', '\n'};
inline constexpr std::uint32_t kVersion = 1;
inline constexpr std::uint32_t kByteOrderMark = 0x01020304;

// The file header and the first chunk share the first unit; every further chunk
// is a whole number of units, so that each can be mapped on its own.
inline constexpr std::uint32_t kFileHeaderSize = 4096;
inline constexpr std::uint32_t kUnit = 64 * 1024;

struct FileHeader {
  char magic[8];
  std::uint32_t version;
  std::uint32_t byteOrder;
  std::uint32_t headerSize;
  std::uint32_t processId;
  std::int64_t realTime;       // nanoseconds since 1970, at the same moment as
  std::int64_t monotonicTime;  // nanoseconds of the clock that records carry
  std::uint32_t parentId;
  std::uint32_t dropped;  // records that found no room; changes while the process lives
  char processName[16];
  char commandLine[192];  // arguments joined with blanks, cut
};
static_assert(offsetof(FileHeader, realTime) == 24);
static_assert(offsetof(FileHeader, parentId) == 40);
static_assert(offsetof(FileHeader, processName) == 48);
static_assert(sizeof(FileHeader) == 256);

inline constexpr std::uint32_t kChunkMagic = 0x4B4E4843;  // "CHNK" on a little-endian machine

enum ChunkKind : std::uint32_t { LocationsChunk = 1, RingChunk = 2 };

struct alignas(8) ChunkHeader {
  std::uint32_t magic;
  std::uint32_t kind;
  std::uint64_t size;      // of the chunk, header included
  std::uint64_t head;      // bytes ever written; what lies before it is whole
  std::uint64_t tail;      // ring: where the oldest record that is left begins
  std::uint32_t threadId;  // ring: who writes here, 0 when no thread does
  std::uint32_t reserved[7];
};
static_assert(offsetof(ChunkHeader, head) == 16);
static_assert(offsetof(ChunkHeader, threadId) == 32);
static_assert(sizeof(ChunkHeader) == 64);

// Kinds of records. Call is the library's; the others are the storage's own and
// carry the thread's name.
enum RecordKind : std::uint8_t { Padding = 0, Call = 1, ThreadBegins = 2, ThreadEnds = 3 };

inline constexpr std::uint32_t kRecordAlignment = 8;

struct alignas(8) RecordHeader {
  std::uint32_t sizeAndSlack;  // size, a multiple of 8, plus the unused bytes at its end
  std::uint32_t kindAndStamp;  // kind in the low byte, above it StampOf the position
  std::uint32_t locationId;
  std::uint32_t threadId;
  std::int64_t time;
};
static_assert(sizeof(RecordHeader) == 24);

// Padding at the end of a ring is a record of which these bytes alone are set.
inline constexpr std::uint32_t kPaddingHeaderSize = 8;

// Ties a record to its place: old bytes never pass for a record of this round.
constexpr std::uint32_t stampOf(std::uint64_t position) {
  return static_cast<std::uint32_t>(position / kRecordAlignment) & 0xFFFFFFU;
}

constexpr std::uint32_t kindAndStamp(std::uint8_t kind, std::uint64_t position) {
  return stampOf(position) << 8 | kind;
}

// A registered location, in a locations chunk; the texts follow, each as 16 bits
// of length and its bytes: source path, function, format, then for each argument
// the flag, the size (16 bits) and the type name.
struct LocationHeader {
  std::uint32_t size;  // header included, a multiple of 4
  std::uint32_t id;
  std::int32_t line;
  std::uint32_t argumentCount;
};
static_assert(sizeof(LocationHeader) == 16);

}  // namespace fwplatform::trace

#endif
