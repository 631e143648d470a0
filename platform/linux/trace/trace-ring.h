// SPDX-License-Identifier: Apache-2.0
// A ring of records in a trace file, written by one thread at a time without a
// lock or a system call. Owned by the process's trace file, lent to one thread
// after the other; what earlier threads wrote stays until it is overwritten.
#ifndef PLATFORM_LINUX_TRACE_RING_H
#define PLATFORM_LINUX_TRACE_RING_H

#include <ctime>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "trace-storage.h"
#include "trace/trace-format.h"

namespace TraceStorage {

// Of its own cache lines, so that threads do not slow each other down.
class alignas(64) Thread {
 public:
  // chunk: mapped and zero-filled, size bytes. dropped: counts what finds no room.
  Thread(fwplatform::trace::ChunkHeader* chunk, std::uint32_t size, std::uint32_t* dropped);
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Only while no thread writes: who does from now on, 0 for nobody.
  void setOwner(std::uint32_t threadId);
  bool isFree() const { return threadId_ == 0; }

  // The place for the payload, or null when it could never fit. A second call
  // without Commit takes the first back.
  unsigned char* prepare(std::uint32_t payloadSize, std::uint8_t kind, std::uint32_t locationId);
  // Makes the prepared record part of the trace; nothing without one.
  void commit();

 private:
  void makeRoom(std::uint32_t bytes);
  void padToEnd();

  fwplatform::trace::ChunkHeader* const chunk_;
  unsigned char* const data_;
  std::uint32_t* const dropped_;
  const std::uint32_t capacity_;
  std::uint32_t threadId_ = 0;
  // The same as in the chunk, for this process's own use, and where they lie.
  std::uint64_t head_ = 0;
  std::uint64_t tail_ = 0;
  std::uint32_t headOffset_ = 0;
  std::uint32_t tailOffset_ = 0;
  std::uint32_t pending_ = 0;  // size of the prepared record
};

inline unsigned char* Thread::prepare(std::uint32_t payloadSize, std::uint8_t kind,
                                      std::uint32_t locationId) {
  using namespace fwplatform::trace;
  // Half the ring at most, so that one message never pushes all others out.
  if (payloadSize > capacity_ / 2 - sizeof(RecordHeader)) {
    __atomic_fetch_add(dropped_, 1, __ATOMIC_RELAXED);
    pending_ = 0;
    return nullptr;
  }
  const auto unpadded = static_cast<std::uint32_t>(sizeof(RecordHeader)) + payloadSize;
  const std::uint32_t size = (unpadded + kRecordAlignment - 1) & ~(kRecordAlignment - 1);
  if (size > capacity_ - headOffset_) {
    padToEnd();
  }
  if (head_ + size - tail_ > capacity_) {
    makeRoom(size);
  }
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const RecordHeader header = {size | (size - unpadded), kindAndStamp(kind, head_), locationId, threadId_,
                               static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec};
  unsigned char* const record = data_ + headOffset_;
  std::memcpy(record, &header, sizeof header);
  pending_ = size;
  return record + sizeof header;
}

inline void Thread::commit() {
  if (pending_ == 0) {
    return;
  }
  head_ += pending_;
  headOffset_ += pending_;
  if (headOffset_ == capacity_) {
    headOffset_ = 0;
  }
  pending_ = 0;
  __atomic_store_n(&chunk_->head, head_, __ATOMIC_RELEASE);
}

}  // namespace TraceStorage

#endif
