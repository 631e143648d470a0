// SPDX-License-Identifier: Apache-2.0
#include "trace-storage.h"

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/ucontext.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "limited-resource.h"
#include "message.h"
#include "thoroughness.h"
#include "trace-store.h"
#include "trace/trace-directory.h"
#include "trace/trace-format.h"

// Of descriptors that were closed already: the number may be somebody else's by then.
static int uselessCloses = 0;

// In place of the C library's, for what the test links of the platform.
extern "C" int close(int descriptor) {
  const auto result = static_cast<int>(syscall(SYS_close, descriptor));
  uselessCloses += result != 0 && errno == EBADF ? 1 : 0;
  return result;
}

namespace {

namespace fs = std::filesystem;
using namespace fwplatform::trace;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using thoroughness::kEveryNth;

constexpr std::uint16_t kVariable = 0x3FFF;

TraceStorage::Storage& theStorage() {
  return TraceStorage::Manager::Instance().GetStorage();
}

std::uint32_t Register(const char* format, std::vector<TraceStorage::ArgumentDescription> arguments) {
  const std::uint32_t id = TraceStorage::Manager::Instance().NewLocationId();
  theStorage().SaveLocation({"/src/a/sample.cpp", 42, id, "work", format, std::move(arguments)});
  return id;
}

bool write(std::uint32_t location, const std::string& payload) {
  TraceStorage::Storage& storage = theStorage();
  TraceStorage::Thread* const thread = storage.ThreadHandle();
  unsigned char* const buffer =
      storage.PrepareCallBuffer(thread, static_cast<unsigned int>(payload.size()), 1, location);
  if (buffer == nullptr) {
    return false;
  }
  std::memcpy(buffer, payload.data(), payload.size());
  storage.Commit(thread);
  return true;
}

std::string Int(std::uint32_t value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

std::uint32_t registerNumber() {
  return Register("number %d", {{"int", 1, 4}});
}

// A process has one trace, so every test traces from a child of its own, into a
// directory of its own.
class TraceStorageTest : public ::testing::Test {
 protected:
  TraceStorageTest() {
    char name[] = "/tmp/trace-storage-XXXXXX";
    directory_ = mkdtemp(name);
    traces_ = directory_ + "/traces";
    setenv("FW_UPDATE_TRACE", traces_.c_str(), 1);
    setenv("FW_UPDATE_LOG", "none", 1);
  }
  ~TraceStorageTest() override {
    unsetenv("FW_UPDATE_TRACE_THREAD_KIB");
    unsetenv("FW_UPDATE_TRACE_THREADS");
    unsetenv("FW_UPDATE_TRACE_TOTAL_MIB");
    fs::remove_all(directory_);
  }

  static pid_t start(const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      body();
      _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    return pid;
  }

  static int wait(pid_t pid) {
    int status = -1;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  static int inChild(const std::function<void()>& body) { return wait(start(body)); }

  // A child that writes until it is killed: at the latest when the test is left, by an
  // assertion too.
  class Writer {
   public:
    explicit Writer(const std::function<void()>& body) : pid_(start(body)) {}
    ~Writer() { kill(); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void kill() {
      if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait(pid_);
        pid_ = -1;
      }
    }

   private:
    pid_t pid_;
  };

  // The lines of the log of a process that writes two messages.
  std::vector<std::string> logOfTwoMessages() const {
    const std::string log = directory_ + "/log";
    setenv("FW_UPDATE_LOG", "stderr", 1);
    inChild([&log] {
      dup2(open(log.c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
      write(registerNumber(), Int(1));
      std::thread([] { write(registerNumber(), Int(2)); }).join();
    });
    std::ifstream stream(log);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
      lines.push_back(line.substr(line.find(' ') + 1));
    }
    return lines;
  }

  std::vector<tracetool::TraceFile> traces() const {
    std::string problem;
    return tracetool::loadTraces(traces_, problem);
  }

  tracetool::TraceFile onlyTrace() const {
    auto all = traces();
    EXPECT_THAT(all, SizeIs(1));
    return all.empty() ? tracetool::TraceFile() : all.front();
  }

  // The messages of the only trace.
  std::vector<std::string> texts() const {
    auto file = onlyTrace();
    std::vector<std::string> texts;
    for (const auto& message : tracetool::messagesOf(file.trace)) {
      texts.push_back(message.text);
    }
    EXPECT_THAT(file.trace.skipped, IsEmpty());
    return texts;
  }

  std::string directory_;
  std::string traces_;
};

TEST_F(TraceStorageTest, KeepsPayloadsByteForByte) {
  const std::string longest(16382, 'x');
  const std::vector<std::string> payloads = {
      "",
      Int(0x80000001),
      std::string("\0", 1),
      "\x7F" + std::string(127, 'a'),
      std::string("\x80\x01", 2) + std::string(128, 'b'),
      std::string("\xFE\x7F", 2) + longest,
      "\xFF\x7F",
  };

  const int result = inChild([&payloads] {
    const std::uint32_t location = registerNumber();
    for (const std::string& payload : payloads) {
      ASSERT_TRUE(write(location, payload));
    }
  });

  EXPECT_EQ(result, 0);
  std::vector<std::string> kept;
  for (const auto& record : onlyTrace().trace.records) {
    if (record.kind == Call) {
      kept.push_back(record.payload);
    }
  }
  EXPECT_EQ(kept, payloads);
}

TEST_F(TraceStorageTest, KeepsTheRegisteredLocation) {
  inChild([] {
    write(Register("%s took %d", {{"char const*", 1, kVariable}, {"int", 1, 4}}),
          std::string("\x02ok") + Int(7));
  });

  auto trace = onlyTrace().trace;
  ASSERT_THAT(trace.locations, SizeIs(1));
  const tracetool::Location& location = trace.locations.begin()->second;
  EXPECT_EQ(location.id, 1U);
  EXPECT_EQ(location.sourcePath, "/src/a/sample.cpp");
  EXPECT_EQ(location.function, "work");
  EXPECT_EQ(location.line, 42);
  EXPECT_EQ(location.format, "%s took %d");
  ASSERT_THAT(location.arguments, SizeIs(2));
  EXPECT_EQ(location.arguments[0].name, "char const*");
  EXPECT_EQ(location.arguments[0].size, kVariable);
  EXPECT_EQ(location.arguments[0].flag, 1);
  EXPECT_THAT(texts(), ElementsAre("ok took 7"));
}

TEST_F(TraceStorageTest, KeepsMoreLocationsThanTheFileBeginsWith) {
  constexpr int kCount = 300;
  const std::string padding(1000, '.');

  const int result = inChild([&] {
    for (int i = 0; i < kCount; ++i) {
      const std::string format = std::to_string(i) + padding + "%d";
      write(Register(format.c_str(), {{"int", 1, 4}}), Int(7));
    }
  });

  EXPECT_EQ(result, 0);
  const auto all = texts();
  ASSERT_THAT(all, SizeIs(kCount));
  for (int i = 0; i < kCount; ++i) {
    EXPECT_EQ(all[static_cast<std::size_t>(i)], std::to_string(i) + padding + "7");
  }
}

TEST_F(TraceStorageTest, KeepsRecordsWhenThereIsNoMoreRoomForTheirLocations) {
  constexpr std::uint32_t kCount = 1200;
  const std::string format(1000, '.');

  const int result = inChild([&] {
    for (std::uint32_t i = 0; i < kCount; ++i) {
      EXPECT_TRUE(write(Register(format.c_str(), {{"int", 1, 4}}), Int(i)));
    }
  });

  EXPECT_EQ(result, 0);
  const auto trace = onlyTrace().trace;
  EXPECT_LT(trace.locations.size(), kCount);
  EXPECT_GT(trace.locations.size() * format.size(), 15U * 64 * 1024) << "of sixteen times 64 KiB";
  EXPECT_EQ(fs::file_size(onlyTrace().path), (16U * 64 + 256) * 1024) << "with the ring of the thread";
  ASSERT_THAT(trace.records, SizeIs(1 + kCount)) << "the first is the thread's name";
  EXPECT_EQ(trace.records.back().payload, Int(kCount - 1));
}

TEST_F(TraceStorageTest, LeavesOutWhatWasPreparedAndNotCommitted) {
  inChild([] {
    const std::uint32_t location = registerNumber();
    write(location, Int(1));
    std::memcpy(theStorage().PrepareCallBuffer(theStorage().ThreadHandle(), 4, 1, location), "half", 4);
    raise(SIGKILL);
  });

  EXPECT_THAT(texts(), ElementsAre("number 1"));
}

TEST_F(TraceStorageTest, TakesASecondPreparationForTheFirst) {
  inChild([] {
    const std::uint32_t location = registerNumber();
    theStorage().PrepareCallBuffer(theStorage().ThreadHandle(), 100, 1, location);
    write(location, Int(2));
    theStorage().Commit(theStorage().ThreadHandle());
  });

  EXPECT_THAT(texts(), ElementsAre("number 2"));
}

TEST_F(TraceStorageTest, OverwritesTheOldestRecordsAndNoOthers) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);
  constexpr std::uint32_t kCount = 100000;

  inChild([] {
    const std::uint32_t location = registerNumber();
    for (std::uint32_t i = 0; i < kCount; ++i) {
      // Of different lengths, so that the end of the ring falls everywhere.
      ASSERT_TRUE(write(location, Int(i) + std::string(i % 57, 'z')));
    }
  });

  const auto file = onlyTrace();
  EXPECT_TRUE(file.trace.overwritten);
  EXPECT_THAT(file.trace.skipped, IsEmpty());
  const auto& records = file.trace.records;
  ASSERT_GT(records.size(), 700U);
  for (std::size_t i = 0; i < records.size(); ++i) {
    const auto number = static_cast<std::uint32_t>(kCount - records.size() + i);
    ASSERT_EQ(records[i].payload, Int(number) + std::string(number % 57, 'z'));
  }
}

TEST_F(TraceStorageTest, DropsWhatCouldNeverFit) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);

  const int result = inChild([] {
    const std::uint32_t location = registerNumber();
    EXPECT_FALSE(write(location, std::string(64 * 1024, 'x')));
    EXPECT_FALSE(write(location, std::string()) &&
                 theStorage().PrepareCallBuffer(theStorage().ThreadHandle(), 0xFFFFFFFF, 1, location) !=
                     nullptr);
  });

  EXPECT_EQ(result, 0);
  EXPECT_EQ(onlyTrace().trace.dropped, 2U);
}

TEST_F(TraceStorageTest, GivesEveryThreadsRecordsItsNumberAndTime) {
  inChild([] {
    const std::uint32_t location = registerNumber();
    write(location, Int(1));
    std::thread([location] {
      prctl(PR_SET_NAME, "tunerfw");
      write(location, Int(2));
    }).join();
    write(location, Int(3));
  });

  const auto file = onlyTrace();
  std::vector<std::uint32_t> threads;
  std::int64_t last = 0;
  for (const auto& record : file.trace.records) {
    EXPECT_GE(record.time, last);
    last = record.time;
    if (record.kind == Call) {
      threads.push_back(record.threadId);
    }
  }
  ASSERT_THAT(threads, SizeIs(3));
  EXPECT_EQ(threads[0], file.trace.processId);
  EXPECT_NE(threads[1], threads[0]);
  EXPECT_EQ(threads[2], threads[0]);
  EXPECT_EQ(tracetool::threadNames(file.trace)[threads[1]], "tunerfw");
}

TEST_F(TraceStorageTest, LendsTheRingOfAnEndedThreadAgain) {
  setenv("FW_UPDATE_TRACE_THREADS", "2", 1);

  const int result = inChild([] {
    const std::uint32_t location = registerNumber();
    write(location, Int(0));
    for (std::uint32_t i = 1; i <= 50; ++i) {
      std::thread([location, i] { EXPECT_TRUE(write(location, Int(i))); }).join();
    }
  });

  EXPECT_EQ(result, 0);
  EXPECT_THAT(texts(), SizeIs(51));
}

TEST_F(TraceStorageTest, DropsTheRecordsOfAThreadWithoutARingUntilOneIsFree) {
  setenv("FW_UPDATE_TRACE_THREADS", "1", 1);

  const int result = inChild([] {
    const std::uint32_t location = registerNumber();
    std::atomic<bool> release{false};
    std::atomic<bool> holds{false};
    std::thread holder([&] {
      write(location, Int(1));
      holds = true;
      while (!release) {
        std::this_thread::yield();
      }
    });
    while (!holds) {
      std::this_thread::yield();
    }
    EXPECT_FALSE(write(location, Int(2)));
    release = true;
    holder.join();
    EXPECT_TRUE(write(location, Int(3)));
  });

  EXPECT_EQ(result, 0);
  EXPECT_THAT(texts(), ElementsAre("number 1", "number 3"));
  EXPECT_EQ(onlyTrace().trace.dropped, 1U);
}

TEST_F(TraceStorageTest, GivesAForkedChildATraceOfItsOwnWithTheLocations) {
  inChild([] {
    const std::uint32_t location = registerNumber();
    write(location, Int(1));
    wait(start([location] { write(location, Int(2)); }));
    write(location, Int(3));
  });

  auto files = traces();
  ASSERT_THAT(files, SizeIs(2));
  auto texts = [](tracetool::TraceFile& file) {
    std::vector<std::string> all;
    for (const auto& message : tracetool::messagesOf(file.trace)) {
      all.push_back(message.text);
    }
    return all;
  };
  EXPECT_THAT(texts(files[0]), ElementsAre("number 1", "number 3"));
  EXPECT_THAT(texts(files[1]), ElementsAre("number 2"));
  EXPECT_EQ(files[1].trace.parentId, files[0].trace.processId);
}

TEST_F(TraceStorageTest, LeavesTheRingOfTheParentAloneWhenTheForkedThreadEnds) {
  if (thoroughness::kUnderASanitizer) {
    GTEST_SKIP() << "a sanitizer starts no threads after a fork";
  }
  EXPECT_EQ(inChild([] {
              const std::uint32_t location = registerNumber();
              int ended = -1;
              std::thread([&] {
                write(location, Int(1));
                ended = wait(start([location] {
                  std::thread([location] { write(location, Int(2)); }).join();
                  pthread_exit(nullptr);
                }));
              }).join();
              EXPECT_EQ(ended, 0);
            }),
            0);
}

TEST_F(TraceStorageTest, MakesNoFileForAForkedChildWithoutMessages) {
  inChild([] {
    write(registerNumber(), Int(1));
    wait(start([] {}));
  });

  EXPECT_THAT(traces(), SizeIs(1));
}

TEST_F(TraceStorageTest, ShowsWhetherTheProcessLives) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t pid = start([&ends] {
    write(registerNumber(), Int(1));
    EXPECT_EQ(::write(ends[1], "x", 1), 1);
    pause();
  });
  char byte = 0;
  ASSERT_EQ(read(ends[0], &byte, 1), 1);

  const bool before = onlyTrace().alive;
  kill(pid, SIGKILL);
  wait(pid);
  const bool after = onlyTrace().alive;

  EXPECT_TRUE(before);
  EXPECT_FALSE(after);
  close(ends[0]);
  close(ends[1]);
}

// Makes the file look as old as it says.
void age(const std::string& path, std::time_t seconds) {
  const std::time_t then = std::time(nullptr) - seconds;
  const utimbuf times = {then, then};
  ASSERT_EQ(utime(path.c_str(), &times), 0);
}

TEST_F(TraceStorageTest, RemovesOldFilesOfDeadProcessesOnly) {
  constexpr std::time_t kEightDays = 8 * 24 * 3600;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  inChild([] { write(registerNumber(), Int(1)); });
  const std::string dead = onlyTrace().path;
  Writer writer([&ends] {
    write(registerNumber(), Int(2));
    EXPECT_EQ(::write(ends[1], "x", 1), 1);
    pause();
  });
  close(ends[1]);
  char byte = 0;
  ASSERT_EQ(read(ends[0], &byte, 1), 1);
  const std::string living = traces()[1].path;
  age(dead, kEightDays);
  age(living, kEightDays);

  inChild([] { write(registerNumber(), Int(3)); });

  EXPECT_FALSE(fs::exists(dead));
  EXPECT_TRUE(fs::exists(living));
  EXPECT_THAT(traces(), SizeIs(2));
  writer.kill();
  close(ends[0]);
}

TEST_F(TraceStorageTest, KeepsTheDirectoryBelowItsTotalSize) {
  setenv("FW_UPDATE_TRACE_TOTAL_MIB", "1", 1);
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "192", 1);

  for (std::uint32_t i = 0; i < 10; ++i) {
    inChild([i] { write(registerNumber(), Int(i)); });
  }

  const auto all = traces();
  // 64 + 192 KiB each: what was there before the last one came fits in 1 MiB.
  EXPECT_EQ(all.size(), 5U);
  EXPECT_EQ(all.back().trace.records.back().payload, Int(9));
}

TEST_F(TraceStorageTest, SwitchesItselfOffWhereNoFileCanBeMade) {
  for (const std::string& place : {std::string("/proc/no-such"), std::string("/proc/self"),
                                   directory_ + "/missing/deep", std::string("none")}) {
    setenv("FW_UPDATE_TRACE", place.c_str(), 1);

    const int result = inChild([] {
      EXPECT_EQ(TraceStorage::enabled, 1);
      errno = EDOM;
      EXPECT_FALSE(write(registerNumber(), Int(1)));
      EXPECT_EQ(errno, EDOM);
      EXPECT_EQ(TraceStorage::enabled, 0);
      EXPECT_FALSE(write(registerNumber(), Int(1)));
    });

    EXPECT_EQ(result, 0) << place;
  }
}

TEST_F(TraceStorageTest, SwitchesItselfOffWhereThereIsNoRoomForAFile) {
  const int result = inChild([] {
    const auto full = LimitedResource::fileSize(16 * 1024);
    EXPECT_FALSE(write(registerNumber(), Int(1)));
    EXPECT_EQ(TraceStorage::enabled, 0);
  });

  EXPECT_EQ(result, 0);
}

TEST_F(TraceStorageTest, DropsTheRecordsOfAThreadThatThereIsNoRoomFor) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);

  const int result = inChild([] {
    const auto full = LimitedResource::fileSize(2 * 64 * 1024);
    const std::uint32_t location = registerNumber();
    EXPECT_TRUE(write(location, Int(1)));
    std::thread([location] { EXPECT_FALSE(write(location, Int(2))); }).join();
    EXPECT_TRUE(write(location, Int(3)));
    EXPECT_EQ(TraceStorage::enabled, 1);
  });

  EXPECT_EQ(result, 0);
  EXPECT_THAT(texts(), ElementsAre("number 1", "number 3"));
  EXPECT_EQ(onlyTrace().trace.dropped, 1U);
}

TEST_F(TraceStorageTest, LeavesOutLocationsThatThereIsNoRoomFor) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);
  const std::string format(60000, '.');

  const int result = inChild([&] {
    const auto full = LimitedResource::fileSize(2 * 64 * 1024);
    EXPECT_TRUE(write(Register(format.c_str(), {{"int", 1, 4}}), Int(1)));
    EXPECT_TRUE(write(Register(format.c_str(), {{"int", 1, 4}}), Int(2)));
  });

  EXPECT_EQ(result, 0);
  const auto trace = onlyTrace().trace;
  EXPECT_THAT(trace.locations, SizeIs(1));
  EXPECT_THAT(trace.records, SizeIs(3)) << "the first is the thread's name";
}

TEST_F(TraceStorageTest, NamesItsFileWithOrdinaryCharactersOnly) {
  const int result = inChild([] {
    prctl(PR_SET_NAME, "a b/c.d\n");
    write(registerNumber(), Int(1));
  });

  EXPECT_EQ(result, 0);
  EXPECT_THAT(fs::path(onlyTrace().path).filename().string(), StartsWith("a_b_c_d_-"));
}

TEST_F(TraceStorageTest, RemovesEmptyFilesOnlyWhenNobodyCanBeMakingThem) {
  setenv("FW_UPDATE_TRACE_TOTAL_MIB", "1", 1);
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "2048", 1);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t tooLarge = start([&ends] {
    write(registerNumber(), Int(1));
    EXPECT_EQ(::write(ends[1], "x", 1), 1);
    pause();
  });
  char byte = 0;
  ASSERT_EQ(read(ends[0], &byte, 1), 1);
  const std::string fresh = traces_ + "/fresh.fwtrace";
  const std::string old = traces_ + "/old.fwtrace";
  std::ofstream(fresh).flush();
  std::ofstream(old).flush();
  age(old, 61);

  inChild([] { write(registerNumber(), Int(2)); });

  EXPECT_TRUE(fs::exists(fresh));
  EXPECT_FALSE(fs::exists(old));
  kill(tooLarge, SIGKILL);
  wait(tooLarge);
  close(ends[0]);
  close(ends[1]);
}

TEST_F(TraceStorageTest, SaysOnceThatNoTraceIsKept) {
  setenv("FW_UPDATE_TRACE", "/proc/no-such", 1);

  EXPECT_THAT(logOfTwoMessages(),
              ElementsAre("W FWUPDATE no trace is kept: /proc/no-such: No such file or directory"));
}

TEST_F(TraceStorageTest, SaysNothingWhereNoTraceIsWanted) {
  setenv("FW_UPDATE_TRACE", "none", 1);

  EXPECT_THAT(logOfTwoMessages(), ElementsAre());
}

TEST_F(TraceStorageTest, FollowsNoLinkOfItsOwnName) {
  inChild([] { write(registerNumber(), Int(1)); });

  struct stat status = {};
  ASSERT_EQ(lstat(onlyTrace().path.c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(status.st_mode & 0007, 0U);
}

// An updating process must not hang because somebody wrote into its file.
TEST_F(TraceStorageTest, GoesOnWhenItsOldestRecordHasADamagedSize) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);
  for (const std::uint32_t size : {0U, 7U, 64U * 1024, 0xFFFFFFF8U}) {
    fs::remove_all(traces_);

    const int result = inChild([this, size] {
      alarm(20);
      const std::uint32_t location = registerNumber();
      for (std::uint32_t i = 0; i < 3000; ++i) {
        write(location, Int(i));
      }
      const int file = open(onlyTrace().path.c_str(), O_RDWR);
      for (off_t at = 64 * 1024 + 64; at < 128 * 1024; at += 8) {
        ASSERT_EQ(pwrite(file, &size, sizeof size, at), static_cast<ssize_t>(sizeof size));
      }
      close(file);
      for (std::uint32_t i = 0; i < 3000; ++i) {
        EXPECT_TRUE(write(location, Int(i)));
      }
    });

    EXPECT_EQ(result, 0) << size;
    EXPECT_EQ(onlyTrace().trace.records.back().payload, Int(2999)) << size;
  }
}

TEST_F(TraceStorageTest, LetsOneMessageTakeHalfOfARing) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);
  constexpr std::size_t kLargest = (64 * 1024 - 64) / 2 - 24;

  const int result = inChild([] {
    const std::uint32_t location = registerNumber();
    EXPECT_TRUE(write(location, std::string(kLargest, 'x')));
    EXPECT_FALSE(write(location, std::string(kLargest + 1, 'x')));
  });

  EXPECT_EQ(result, 0);
  EXPECT_EQ(onlyTrace().trace.records.back().payload.size(), kLargest);
  EXPECT_EQ(onlyTrace().trace.dropped, 1U);
}

// By their files: pieces of one that come to lie side by side are one line of the maps.
std::set<std::string> mappedTraces() {
  std::ifstream maps("/proc/self/maps");
  std::set<std::string> files;
  for (std::string line; std::getline(maps, line);) {
    if (line.find(".fwtrace") != std::string::npos) {
      files.insert(line.substr(line.find('/')));
    }
  }
  return files;
}

int traceDescriptors() {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    count += fs::read_symlink(entry.path(), gone).extension() == ".fwtrace" ? 1 : 0;
  }
  return count;
}

TEST_F(TraceStorageTest, LeavesAForkedChildNoDescriptorOfItsParents) {
  const int result = inChild([] {
    write(registerNumber(), Int(1));
    EXPECT_EQ(traceDescriptors(), 1);
    EXPECT_EQ(wait(start([] { EXPECT_EQ(traceDescriptors(), 0); })), 0);
  });

  EXPECT_EQ(result, 0);
}

// It has a file of its own from its first message on, and what it took from its parent's is gone.
TEST_F(TraceStorageTest, LeavesAForkedChildNoMappingOfItsParentsOnceItHasItsOwn) {
  const int result = inChild([] {
    const std::uint32_t location = registerNumber();
    write(location, Int(1));
    const std::set<std::string> parents = mappedTraces();
    EXPECT_EQ(parents.size(), 1U);
    EXPECT_EQ(wait(start([location, parents] {
                write(location, Int(2));
                EXPECT_EQ(mappedTraces().size(), 1U);
                EXPECT_NE(mappedTraces(), parents);
              })),
              0);
  });

  EXPECT_EQ(result, 0);
}

TEST_F(TraceStorageTest, MakesItsFileBesideALinkOfThatName) {
  const base::FileDescriptor directory = openTraceDirectory(traces_);
  const std::string start = traces_ + "/service-" + std::to_string(getpid()) + "-";
  fs::create_symlink(directory_ + "/elsewhere", start + "5.fwtrace");

  const base::FileDescriptor file = createTraceFile(directory.get(), "service", 5000000);

  ASSERT_TRUE(file);
  struct stat status = {};
  EXPECT_EQ(fstat(file.get(), &status), 0);
  EXPECT_EQ(status.st_mode & 0137U, 0U);
  EXPECT_NE(fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_TRUE(fs::exists(start + "6.fwtrace"));
  EXPECT_FALSE(fs::exists(directory_ + "/elsewhere"));
}

TEST_F(TraceStorageTest, ReadsRegularFilesAlone) {
  const std::string fifo = directory_ + "/fifo.fwtrace";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

  EXPECT_EQ(tracetool::loadTrace(fifo).problem, "This is no file.");
  EXPECT_EQ(tracetool::loadTrace(directory_).problem, "This is no file.");
  EXPECT_EQ(tracetool::loadTrace(directory_ + "/missing").problem,
            "The file cannot be opened: No such file or directory.");
}

// ---- What is cleaned away -------------------------------------------------------

// Files of known ages and sizes, and the moment at which they are looked at.
class CleanedTraces : public TraceStorageTest {
 protected:
  static constexpr std::int64_t kNow = 2000000000;
  static constexpr std::int64_t kWeek = 7 * 24 * 3600;
  static constexpr std::uint64_t kNoLimit = UINT64_MAX;

  CleanedTraces() { fs::create_directory(traces_); }

  static void age(const std::string& path, std::int64_t seconds) {
    const timespec then = {static_cast<std::time_t>(kNow - seconds), 0};
    const timespec times[] = {then, then};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
  }

  // Takes its room at once, as a trace does; an empty one takes none.
  void put(const std::string& name, std::int64_t seconds, off_t size = 65536) const {
    const base::FileDescriptor file(
        open((traces_ + "/" + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_TRUE(file);
    if (size > 0) {
      ASSERT_EQ(posix_fallocate(file.get(), 0, size), 0);
    }
    age(traces_ + "/" + name, seconds);
  }

  std::uint64_t room(const std::string& name) const {
    struct stat status = {};
    EXPECT_EQ(stat((traces_ + "/" + name).c_str(), &status), 0);
    return static_cast<std::uint64_t>(status.st_blocks) * 512;
  }

  // What is left, in the order of the names.
  std::vector<std::string> leftAfter(std::int64_t maxAge, std::uint64_t maxBytes) const {
    cleanUp(openTraceDirectory(traces_).get(), kNow, maxAge, maxBytes);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(traces_)) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
};

TEST_F(CleanedTraces, AreThoseThatAreOlderThanTheyMayBecome) {
  put("older.fwtrace", kWeek + 1);
  put("old.fwtrace", kWeek);
  put("new.fwtrace", 0);

  EXPECT_THAT(leftAfter(kWeek, kNoLimit), ElementsAre("new.fwtrace", "old.fwtrace"));
}

// In whatever order the directory gives them.
TEST_F(CleanedTraces, AreTheOldestUntilTheOthersFit) {
  const std::vector<std::vector<std::int64_t>> orders = {
      {1, 2, 3, 4}, {4, 3, 2, 1}, {2, 4, 1, 3}, {3, 1, 4, 2}};
  for (const auto& ages : orders) {
    fs::remove_all(traces_);
    fs::create_directory(traces_);
    for (const std::int64_t seconds : ages) {
      put(std::to_string(seconds) + ".fwtrace", 100 * seconds);
    }
    const std::uint64_t each = room("1.fwtrace");

    EXPECT_THAT(leftAfter(kWeek, 4 * each), SizeIs(4));
    EXPECT_THAT(leftAfter(kWeek, 4 * each - 1), ElementsAre("1.fwtrace", "2.fwtrace", "3.fwtrace"));
    EXPECT_THAT(leftAfter(kWeek, each), ElementsAre("1.fwtrace"));
  }
}

TEST_F(CleanedTraces, AreNoFilesOfOtherNamesOrKinds) {
  put("notes-of-somebody.txt", 2 * kWeek);
  put(".fwtrace", 2 * kWeek);
  put("trace.fwtrace.old", 2 * kWeek);
  ASSERT_EQ(mkfifo((traces_ + "/pipe.fwtrace").c_str(), 0600), 0);
  age(traces_ + "/pipe.fwtrace", 2 * kWeek);
  fs::create_symlink("notes-of-somebody.txt", traces_ + "/link.fwtrace");
  age(traces_ + "/link.fwtrace", 2 * kWeek);
  put("trace.fwtrace", 2 * kWeek);

  EXPECT_THAT(leftAfter(kWeek, 0), ElementsAre(".fwtrace", "link.fwtrace", "notes-of-somebody.txt",
                                               "pipe.fwtrace", "trace.fwtrace.old"));
}

TEST_F(CleanedTraces, AreEmptyOnesWhenNobodyCanBeMakingThemAnyMore) {
  put("made.fwtrace", 60, 0);
  put("left.fwtrace", 61, 0);

  EXPECT_THAT(leftAfter(10, kNoLimit), ElementsAre("made.fwtrace"));
}

TEST_F(CleanedTraces, AreCountedWhenTheyAreGoneAlone) {
  put("3.fwtrace", 300);
  put("2.fwtrace", 200);
  put("1.fwtrace", 100);
  const base::FileDescriptor living(open((traces_ + "/3.fwtrace").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(flock(living.get(), LOCK_EX | LOCK_NB), 0);

  EXPECT_THAT(leftAfter(kWeek, 2 * room("1.fwtrace")), ElementsAre("1.fwtrace", "3.fwtrace"));
}

TEST_F(CleanedTraces, LeaveNoDescriptorOpenAndCloseEachOnce) {
  put("old.fwtrace", 2 * kWeek);
  put("new.fwtrace", 0);
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = descriptors();
  uselessCloses = 0;

  leftAfter(kWeek, kNoLimit);

  EXPECT_EQ(descriptors(), before);
  EXPECT_EQ(uselessCloses, 0);
}

TEST_F(TraceStorageTest, MakesNoFileWhenAHundredNamesAreTaken) {
  const base::FileDescriptor directory = openTraceDirectory(traces_);
  const std::string start = traces_ + "/service-" + std::to_string(getpid()) + "-";
  for (int i = 0; i < 100; ++i) {
    std::ofstream(start + std::to_string(5 + i) + ".fwtrace").flush();
  }

  EXPECT_FALSE(createTraceFile(directory.get(), "service", 5000000));
  EXPECT_EQ(errno, EEXIST);

  fs::remove(start + "104.fwtrace");
  EXPECT_TRUE(createTraceFile(directory.get(), "service", 5000000));
  EXPECT_TRUE(fs::exists(start + "104.fwtrace"));
}

TEST_F(TraceStorageTest, LetsEverybodyListItsDirectoryAndItsGroupReadItsFile) {
  inChild([] {
    umask(0);
    write(registerNumber(), Int(1));
  });

  struct stat status = {};
  ASSERT_EQ(stat(traces_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0755U);
  ASSERT_EQ(stat(onlyTrace().path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

std::int64_t realTime() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

TEST_F(TraceStorageTest, TellsWhoseTraceItIs) {
  std::ifstream stream("/proc/self/cmdline", std::ios::binary);
  std::string line(std::istreambuf_iterator<char>(stream), {});
  line.pop_back();
  std::replace(line.begin(), line.end(), '\0', ' ');
  const std::int64_t before = realTime();

  inChild([] {
    prctl(PR_SET_NAME, "fifteen-letters");
    write(registerNumber(), Int(1));
  });

  const auto trace = onlyTrace().trace;
  EXPECT_EQ(trace.processName, "fifteen-letters");
  EXPECT_EQ(trace.commandLine, line.substr(0, 191));
  EXPECT_GE(trace.start, before);
  EXPECT_LE(trace.start, realTime());
  EXPECT_GE(trace.records.front().time, trace.start);
  EXPECT_LE(trace.records.front().time, realTime());
}

TEST_F(TraceStorageTest, TakesNothingOfAPreparationThatFailed) {
  inChild([] {
    const std::uint32_t location = registerNumber();
    write(location, Int(1));
    EXPECT_EQ(theStorage().PrepareCallBuffer(theStorage().ThreadHandle(), 0xFFFFFFFF, 1, location), nullptr);
    theStorage().Commit(theStorage().ThreadHandle());
    write(location, Int(2));
  });

  EXPECT_THAT(texts(), ElementsAre("number 1", "number 2"));
}

// A ring of 65472 bytes has room for 2046 records of 32 bytes, the thread's name among them.
TEST_F(TraceStorageTest, FillsARingToItsLastByte) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);
  for (const std::uint32_t more : {0U, 1U, 2045U, 2046U, 2047U, 5000U}) {
    fs::remove_all(traces_);

    inChild([more] {
      prctl(PR_SET_NAME, "8letters");
      const std::uint32_t location = registerNumber();
      for (std::uint32_t i = 0; i < 2045 + more; ++i) {
        write(location, Int(i) + Int(i));
      }
    });

    const auto trace = onlyTrace().trace;
    EXPECT_THAT(trace.records, SizeIs(2046)) << more;
    EXPECT_EQ(trace.overwritten, more > 0) << more;
    EXPECT_EQ(trace.records.back().payload, Int(2044 + more) + Int(2044 + more)) << more;
  }
}

// ---- At each instruction --------------------------------------------------------

// A reader of another process, and one that looks after the process was killed, may come
// between any two instructions. Under the thread sanitizer most of them are its own, and
// this takes longer than a test may.
#ifndef __SANITIZE_THREAD__
const volatile ChunkHeader* steppedRing = nullptr;
volatile std::uint64_t steps = 0;
volatile std::uint64_t wrongSteps = 0;

void onStep(int /*signal*/, siginfo_t* information, void* context) {
  constexpr greg_t kTrapFlag = 0x100;
  constexpr std::uint64_t kCapacity = 64 * 1024 - sizeof(ChunkHeader);
  if (information->si_code == SI_TKILL) {  // raise() switches it on and off
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] ^= kTrapFlag;
    return;
  }
  steps = steps + 1;
  const std::uint64_t head = steppedRing->head;
  const std::uint64_t tail = steppedRing->tail;
  if (tail > head || head - tail > kCapacity) {
    wrongSteps = wrongSteps + 1;
  }
}

TEST_F(TraceStorageTest, KeepsTheEndsOfARingTrueAfterEachInstruction) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);

  const int result = inChild([this] {
    const std::uint32_t location = registerNumber();
    std::vector<std::string> payloads;
    for (std::size_t i = 0; i < 150; ++i) {
      payloads.emplace_back(900 + 40 * (i % 7), 'x');
    }
    const auto writeTurns = [&] {
      for (const std::string& payload : payloads) {
        write(location, payload);
      }
    };
    writeTurns();
    const base::FileDescriptor file(open(onlyTrace().path.c_str(), O_RDONLY | O_CLOEXEC));
    void* const ring = mmap(nullptr, 64 * 1024, PROT_READ, MAP_SHARED, file.get(), 64 * 1024);
    ASSERT_NE(ring, MAP_FAILED);
    steppedRing = static_cast<const ChunkHeader*>(ring);
    struct sigaction action = {};
    action.sa_sigaction = onStep;
    action.sa_flags = SA_SIGINFO;
    ASSERT_EQ(sigaction(SIGTRAP, &action, nullptr), 0);

    raise(SIGTRAP);
    writeTurns();
    raise(SIGTRAP);

    EXPECT_GT(steps, 10000U);
    EXPECT_EQ(wrongSteps, 0U);
  });

  EXPECT_EQ(result, 0);
}
#endif

// ---- Bytes ----------------------------------------------------------------------

template <typename Number>
Number numberAt(const std::string& bytes, std::size_t offset) {
  Number number = 0;
  std::memcpy(&number, bytes.data() + offset, sizeof number);
  return number;
}

// The offsets and numbers are those of docs/formats/trace.md.
TEST_F(TraceStorageTest, WritesTheDocumentedBytes) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);
  inChild([] {
    prctl(PR_SET_NAME, "golden");
    write(Register("%s=%d", {{"char const*", 1, kVariable}, {"int", 1, 4}}), std::string("\x01k") + Int(9));
  });
  const auto file = onlyTrace();
  std::ifstream stream(file.path, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(stream), {});

  ASSERT_EQ(bytes.size(), 128U * 1024);
  EXPECT_EQ(bytes.substr(0, 8), "FWTRACE\n");
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 8), 1U);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 12), 0x01020304U);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 16), 4096U);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 20), file.trace.processId);
  EXPECT_EQ(numberAt<std::int64_t>(bytes, 24), file.trace.start);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 40), static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 44), 0U);
  EXPECT_EQ(bytes.substr(48, 7), std::string("golden\0", 7));

  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 4096), 0x4B4E4843U);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, 4100), 1U);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, 4104), 60U * 1024);
  const std::string location = Int(80) + Int(1) + Int(42) + Int(2) +
                               std::string("\x11\0/src/a/sample.cpp\x04\0work\x05\0%s=%d", 32) +
                               std::string("\x01\xFF\x3F\x0B\0char const*\x01\x04\0\x03\0int", 24) +
                               std::string("\0\0\0\0\0\0\0\0", 8);
  const auto used = static_cast<std::size_t>(numberAt<std::uint64_t>(bytes, 4112));
  EXPECT_EQ(used, numberAt<std::uint32_t>(bytes, 4160));
  EXPECT_EQ(bytes.substr(4164, used - 4), location.substr(4, used - 4));

  constexpr std::size_t kRing = 64 * 1024;
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, kRing), 0x4B4E4843U);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, kRing + 4), 2U);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, kRing + 8), 64U * 1024);
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, kRing + 16), 64U);  // head: two records of 32 bytes
  EXPECT_EQ(numberAt<std::uint64_t>(bytes, kRing + 24), 0U);   // tail
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, kRing + 32), file.trace.processId);
  constexpr std::size_t kFirst = kRing + 64;
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, kFirst), 32U | 2U);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, kFirst + 4), 2U);  // kind: a thread begins
  EXPECT_EQ(bytes.substr(kFirst + 24, 6), "golden");
  constexpr std::size_t kSecond = kFirst + 32;
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, kSecond), 32U | 2U);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, kSecond + 4), 4U << 8 | 1U);  // position 32, kind 1
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, kSecond + 8), 1U);
  EXPECT_EQ(numberAt<std::uint32_t>(bytes, kSecond + 12), file.trace.processId);
  EXPECT_GT(numberAt<std::int64_t>(bytes, kSecond + 16), numberAt<std::int64_t>(bytes, 32) - 1);
  EXPECT_EQ(bytes.substr(kSecond + 24, 8), std::string("\x01k") + Int(9) + std::string(2, '\0'));
}

TEST_F(TraceStorageTest, GivesALocationNoMoreRoomThanItNeeds) {
  inChild([] {
    for (const char* format : {"", "x", "xy", "xyz"}) {
      Register(format, {});
    }
    write(1, "");
  });
  std::ifstream stream(onlyTrace().path, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(stream), {});

  std::size_t at = 4160;
  for (const std::uint32_t size : {44U, 44U, 48U, 48U}) {
    ASSERT_EQ(numberAt<std::uint32_t>(bytes, at), size);
    at += size;
  }
}

// ---- Sudden death ---------------------------------------------------------------

// A record that proves itself: its number, and as many bytes that follow from it.
std::string provingPayload(std::uint32_t number) {
  const std::uint32_t mixed = number * 2654435761U;
  return Int(number) + std::string(mixed % 300, static_cast<char>(mixed >> 24));
}

void traceForEver(std::uint32_t location, std::atomic<std::uint32_t>& committed) {
  for (std::uint32_t i = 0;; ++i) {
    write(location, provingPayload(i));
    committed.store(i + 1, std::memory_order_release);
  }
}

// Four threads, a ring small enough that they overwrite it again and again.
void expectNothingLost(const tracetool::TraceFile& file, const std::uint32_t (&committed)[4],
                       const std::uint32_t (&locations)[4]) {
  ASSERT_EQ(file.problem, "");
  EXPECT_THAT(file.trace.skipped, IsEmpty());
  for (int thread = 0; thread < 4; ++thread) {
    std::vector<std::string> payloads;
    for (const auto& record : file.trace.records) {
      if (record.kind == Call && record.locationId == locations[thread]) {
        payloads.push_back(record.payload);
      }
    }
    ASSERT_EQ(payloads.empty(), committed[thread] == 0);
    if (payloads.empty()) {
      continue;
    }
    const std::uint32_t last = numberAt<std::uint32_t>(payloads.back(), 0);
    // What the thread had counted is there; one more may be, which it had not.
    EXPECT_GE(last + 1, committed[thread]);
    EXPECT_LE(last, committed[thread]);
    for (std::size_t i = 0; i < payloads.size(); ++i) {
      ASSERT_EQ(payloads[i], provingPayload(static_cast<std::uint32_t>(last + 1 - payloads.size() + i)));
    }
  }
}

TEST_F(TraceStorageTest, LosesNothingCommittedWhenKilledAtAnyMoment) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);
  struct Shared {
    std::atomic<std::uint32_t> committed[4];
    std::uint32_t locations[4];
    std::atomic<bool> started;
  };
  void* const memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  std::mt19937 random(20260131);

  for (int round = 0; round < 100; round += kEveryNth) {
    fs::remove_all(traces_);
    auto* const shared = new (memory) Shared();
    Writer writer([shared] {
      for (std::uint32_t& location : shared->locations) {
        location = registerNumber();
      }
      for (int i = 0; i < 4; ++i) {
        std::thread(traceForEver, shared->locations[i], std::ref(shared->committed[i])).detach();
      }
      shared->started = true;
      pause();
    });
    while (!shared->started) {
      std::this_thread::yield();
    }
    const auto target = std::uniform_int_distribution<std::uint32_t>(0, 20000)(random);
    while (shared->committed[round % 4] < target) {
      std::this_thread::yield();
    }
    writer.kill();

    std::uint32_t committed[4];
    for (int i = 0; i < 4; ++i) {
      committed[i] = shared->committed[i];
    }
    expectNothingLost(onlyTrace(), committed, shared->locations);
    ASSERT_FALSE(HasFailure()) << "round " << round << ", target " << target;
  }
  munmap(memory, sizeof(Shared));
}

TEST_F(TraceStorageTest, CanBeReadWhileItIsBeingWritten) {
  setenv("FW_UPDATE_TRACE_THREAD_KIB", "64", 1);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  Writer writer([&ends] {
    std::atomic<std::uint32_t> committed{0};
    const std::uint32_t location = registerNumber();
    write(location, provingPayload(0));
    EXPECT_EQ(::write(ends[1], "x", 1), 1);
    traceForEver(location, committed);
  });
  close(ends[1]);
  char byte = 0;
  ASSERT_EQ(read(ends[0], &byte, 1), 1);

  for (int i = 0; i < 300 && !HasFailure(); ++i) {
    const auto file = onlyTrace();
    EXPECT_THAT(file.trace.skipped, IsEmpty());
    for (const auto& record : file.trace.records) {
      if (record.kind == Call) {
        ASSERT_EQ(record.payload, provingPayload(numberAt<std::uint32_t>(record.payload, 0)));
      }
    }
  }

  writer.kill();
  close(ends[0]);
}

}  // namespace
