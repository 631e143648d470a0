// SPDX-License-Identifier: Apache-2.0
#include "record-stream.h"

#include <algorithm>

#include "trace/trace-format.h"

namespace tracetool {

void TraceReading::takeRings() {
  for (const Ring& ring : file.trace.rings) {
    const auto [reader, isNew] = rings.try_emplace(ring.chunk, ring, file.trace.timeOffset);
    if (!isNew) {
      reader->second.goOnTo(ring.head);
    }
  }
}

bool TraceReading::readOn() {
  const BytesOfFile bytes(file.path);
  if (!bytes.problem().empty() || bytes.inode() != file.inode) {
    return false;
  }
  // Before the look: what a process wrote before it died is seen.
  file.alive = bytes.isOfLiveProcess();
  tracetool::readOn(bytes, file.trace);
  takeRings();
  return file.alive;
}

RecordStream::RecordStream(std::list<TraceReading>& readings) {
  for (TraceReading& reading : readings) {
    add(reading);
  }
}

RecordStream::RecordStream(TraceReading& reading) {
  add(reading);
}

void RecordStream::add(TraceReading& reading) {
  for (auto& [chunk, ring] : reading.rings) {
    if (ring.isAtEnd()) {
      continue;
    }
    threads_.push_back({&reading, &ring, {}});
    queue(threads_.size() - 1);
  }
}

// Puts the thread where its next record belongs; drops it when it has none.
void RecordStream::queue(std::size_t thread) {
  Thread& reader = threads_[thread];
  if (reader.taken == reader.records.size()) {
    // Opened for each window: there may be more traces than a process may open files.
    const BytesOfFile bytes(reader.reading->file.path);
    const bool same = bytes.problem().empty() && bytes.inode() == reader.reading->file.inode;
    reader.records =
        same ? reader.ring->next(bytes, reader.reading->file.trace.skipped) : std::vector<Record>();
    reader.taken = 0;
  }
  if (!reader.records.empty()) {
    turns_.push({reader.records[reader.taken].time, thread});
  }
}

bool RecordStream::next() {
  do {
    if (current_ != SIZE_MAX) {
      ++threads_[current_].taken;
      queue(current_);
      current_ = SIZE_MAX;
    }
    if (turns_.empty()) {
      return false;
    }
    current_ = turns_.top().second;
    turns_.pop();
    reading_ = threads_[current_].reading;
    record_ = &threads_[current_].records[threads_[current_].taken];
  } while (!isOfMessage(*record_));
  return true;
}

const Location* RecordStream::location() const {
  const auto& locations = reading_->file.trace.locations;
  const auto location = locations.find(record_->locationId);
  return location == locations.end() ? nullptr : &location->second;
}

Message RecordStream::message() const {
  bool whole = true;
  Message message = messageOf(*record_, reading_->file.trace, whole);
  reading_->damaged += whole ? 0 : 1;
  return message;
}

}  // namespace tracetool
