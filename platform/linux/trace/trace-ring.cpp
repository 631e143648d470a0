// SPDX-License-Identifier: Apache-2.0
#include "trace/trace-ring.h"

namespace TraceStorage {

using namespace fwplatform::trace;

Thread::Thread(ChunkHeader* chunk, std::uint32_t size, std::uint32_t* dropped)
    : chunk_(chunk),
      data_(reinterpret_cast<unsigned char*>(chunk) + sizeof(ChunkHeader)),
      dropped_(dropped),
      capacity_(size - static_cast<std::uint32_t>(sizeof(ChunkHeader))) {
  chunk_->kind = RingChunk;
  chunk_->size = size;
  // Last: a chunk without it is one that was being made.
  __atomic_store_n(&chunk_->magic, kChunkMagic, __ATOMIC_RELEASE);
}

void Thread::setOwner(std::uint32_t threadId) {
  threadId_ = threadId;
  pending_ = 0;
  __atomic_store_n(&chunk_->threadId, threadId, __ATOMIC_RELEASE);
}

// Gives up the oldest records until bytes more fit. The new tail is out before
// anything behind it is overwritten.
void Thread::makeRoom(std::uint32_t bytes) {
  while (head_ + bytes - tail_ > capacity_) {
    std::uint32_t size = 0;
    std::memcpy(&size, data_ + tailOffset_, sizeof size);
    size &= ~(kRecordAlignment - 1);
    if (size == 0 || size > capacity_ - tailOffset_ || size > head_ - tail_) {
      // Somebody else wrote into the file: all that is left is worth nothing.
      tail_ = head_;
      tailOffset_ = headOffset_;
      break;
    }
    tail_ += size;
    tailOffset_ += size;
    if (tailOffset_ == capacity_) {
      tailOffset_ = 0;
    }
  }
  __atomic_store_n(&chunk_->tail, tail_, __ATOMIC_RELAXED);
  std::atomic_thread_fence(std::memory_order_release);
}

// Fills the ring up to its end, where no record fits any more, and publishes that.
void Thread::padToEnd() {
  const std::uint32_t size = capacity_ - headOffset_;
  if (head_ + size - tail_ > capacity_) {
    makeRoom(size);
  }
  const std::uint32_t header[] = {size, kindAndStamp(Padding, head_)};
  static_assert(sizeof header == kPaddingHeaderSize);
  std::memcpy(data_ + headOffset_, header, sizeof header);
  pending_ = size;
  commit();
}

}  // namespace TraceStorage
