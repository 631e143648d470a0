// SPDX-License-Identifier: Apache-2.0
#include "history.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <set>
#include <utility>

#include "system-error.h"
#include "whole-file.h"

namespace history {
namespace {

using base::FileDescriptor;
using SQLite::Database;
using SQLite::Statement;

constexpr char kFile[] = "history.db";
constexpr char kJournal[] = "history.db-journal";
constexpr char kDamaged[] = "history.db.damaged";
constexpr char kDamagedJournal[] = "history.db.damaged-journal";
constexpr char kLocks[] = "history.lock";

constexpr int kVersion = 1;  // of the tables
constexpr int kPageBytes = 4096;
constexpr mode_t kMode = 0640;  // who reads holds up who writes: not for everybody
constexpr mode_t kLocksMode = 0600;
// What a change of an entry needs of the disk is there before: free pages in the file, and a
// journal that is not cut off after each change.
constexpr int kReserveBytes = 64 * 1024;
constexpr int kJournalBytes = 2 * kReserveBytes;
constexpr int kMostTries = 6;

constexpr char kTables[] =
    "CREATE TABLE IF NOT EXISTS totals (module TEXT NOT NULL, outcome TEXT NOT NULL, count INTEGER NOT NULL,"
    " seconds REAL NOT NULL, last INTEGER NOT NULL, version TEXT NOT NULL, PRIMARY KEY (module, outcome));"
    "CREATE TABLE IF NOT EXISTS reserve (bytes BLOB);"
    "PRAGMA user_version = 1;";

std::int64_t now() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Whether something else is in the place of the file: a FIFO would be waited for. That it could not be
// opened just now is no answer.
bool isNoFile(const FileDescriptor& opened, const std::string& path) {
  struct stat status = {};
  const bool isThere = opened ? fstat(opened.get(), &status) == 0 : lstat(path.c_str(), &status) == 0;
  return isThere && !S_ISREG(status.st_mode);
}

// Tables alone, and no entry that is larger than the file may be: whoever made the file may have meant harm.
void confine(Database& file, const Settings& settings) {
  sqlite3* const handle = file.getHandle();
  sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, settings.mostKib * 1024);
}

// "outcome, way, ...", each as the function has it.
template <typename Shown>
std::string fieldList(Shown shown) {
  std::string list;
  for (const Field& field : kFields) {
    list += (list.empty() ? "" : ", ") + shown(std::string(field.name));
  }
  return list;
}

std::string names() {
  return fieldList([](const std::string& name) { return name; });
}

std::string columns() {
  return "number, run, began, ended, " + names();
}

void bindTexts(Statement& statement, const Entry& entry) {
  for (const Field& field : kFields) {
    statement.bind(std::string(":") + field.name, entry.*field.text);
  }
}

// Of the file itself, not of this use of it.
bool isDamage(const SQLite::Exception& error) {
  const int code = error.getErrorCode();
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB || code == SQLITE_ERROR;
}

bool isFull(const SQLite::Exception& error) {
  return error.getErrorCode() == SQLITE_FULL || error.getExtendedErrorCode() == SQLITE_IOERR_WRITE;
}

int numberOf(Database& file, const char* pragma) {
  return file.execAndGet(std::string("PRAGMA ") + pragma).getInt();
}

bool isSound(Database& file) {
  return file.execAndGet("PRAGMA quick_check(1)").getString() == "ok" &&
         (numberOf(file, "user_version") == 0 ||
          Statement(file, "SELECT " + columns() + " FROM entries LIMIT 1").getColumnCount() > 0);
}

void makeTables(Database& file) {
  const std::string texts = fieldList([](const std::string& name) { return name + " TEXT NOT NULL"; });
  file.exec("BEGIN IMMEDIATE");
  file.exec(
      "CREATE TABLE IF NOT EXISTS entries (number INTEGER PRIMARY KEY AUTOINCREMENT, run INTEGER NOT NULL,"
      " began INTEGER NOT NULL, ended INTEGER, " +
      texts + ")");
  file.exec(kTables);
  file.exec("COMMIT");
}

// Overwriting pages takes them into the journal; removing them leaves them free.
void makeReserve(Database& file) {
  file.exec("INSERT INTO reserve VALUES (zeroblob(" + std::to_string(kReserveBytes) + "))");
  const auto row = file.getLastInsertRowid();
  const std::string zeros(kReserveBytes, '\0');
  sqlite3_blob* bytes = nullptr;
  if (sqlite3_blob_open(file.getHandle(), "main", "reserve", "bytes", row, 1, &bytes) == SQLITE_OK) {
    sqlite3_blob_write(bytes, zeros.data(), kReserveBytes, 0);
  }
  sqlite3_blob_close(bytes);
  file.exec("DELETE FROM reserve");
}

bool hasReserve(const std::string& journal) {
  struct stat status = {};
  return stat(journal.c_str(), &status) == 0 && status.st_size >= kReserveBytes;
}

// No more than this, and no fewer than the file has.
void limit(Database& file, int mostKib) {
  file.execAndGet("PRAGMA max_page_count = " + std::to_string(mostKib / (kPageBytes / 1024)));
}

void configure(Database& file, const Settings& settings) {
  file.execAndGet("PRAGMA journal_mode = PERSIST");
  file.execAndGet("PRAGMA journal_size_limit = " + std::to_string(kJournalBytes));
  file.exec("PRAGMA synchronous = FULL");
  file.exec("PRAGMA cell_size_check = ON");
  file.exec("PRAGMA temp_store = MEMORY");
  limit(file, settings.mostKib);
}

// The oldest that have ended, of all but the newest one.
int removeOldest(Database& file, int count) {
  Statement remove(
      file,
      "DELETE FROM entries WHERE number IN (SELECT number FROM entries WHERE outcome <> 'running' "
      "AND number < (SELECT max(number) FROM entries) ORDER BY number LIMIT ?)");
  remove.bind(1, count);
  return remove.exec();
}

void keepNewest(Database& file, int most) {
  Statement remove(file,
                   "DELETE FROM entries WHERE outcome <> 'running' AND number <= (SELECT number FROM entries "
                   "ORDER BY number DESC LIMIT 1 OFFSET ?)");
  remove.bind(1, most);
  remove.exec();
}

// After the configuration has become smaller.
void shrink(Database& file, int mostKib) {
  const int pages = numberOf(file, "page_count");
  if (pages <= mostKib / (kPageBytes / 1024)) {
    return;
  }
  removeOldest(file, file.execAndGet("SELECT count(*) / 4 + 1 FROM entries").getInt());
  file.exec("VACUUM");
  limit(file, mostKib);
}

void count(Database& file, const Entry& entry) {
  Statement add(
      file,
      "INSERT INTO totals VALUES (?, ?, 1, ?, ?, ?) ON CONFLICT (module, outcome) DO UPDATE SET count = "
      "count + 1, seconds = seconds + excluded.seconds, last = excluded.last, version = excluded.version");
  const std::int64_t end = entry.ended.value_or(entry.began);
  add.bind(1, entry.module);
  add.bind(2, entry.outcome);
  add.bind(3, static_cast<double>(end - entry.began) / 1000.0);
  add.bind(4, end);
  add.bind(5, entry.versionAfter.empty() ? entry.versionBefore : entry.versionAfter);
  add.exec();
}

// Of one that is counted already.
void noteVersion(Database& file, const Entry& entry) {
  Statement change(file, "UPDATE totals SET version = ? WHERE module = ? AND outcome = ? AND ? <> ''");
  change.bind(1, entry.versionAfter);
  change.bind(2, entry.module);
  change.bind(3, entry.outcome);
  change.bind(4, entry.versionAfter);
  change.exec();
}

Entry entryOf(Statement& row) {
  Entry entry;
  entry.number = row.getColumn(0).getInt64();
  entry.run = row.getColumn(1).getInt64();
  entry.began = row.getColumn(2).getInt64();
  if (!row.getColumn(3).isNull()) {
    entry.ended = row.getColumn(3).getInt64();
  }
  int column = 4;
  for (const Field& field : kFields) {
    entry.*field.text = row.getColumn(column++).getString();
  }
  return entry;
}

void insert(Database& file, const Entry& entry) {
  Statement add(file, "INSERT INTO entries (" + columns() + ") VALUES (:number, :run, :began, :ended, " +
                          fieldList([](const std::string& name) { return ":" + name; }) + ")");
  bindTexts(add, entry);
  if (entry.number != 0) {
    add.bind(":number", entry.number);
  }
  add.bind(":run", entry.run);
  add.bind(":began", entry.began);
  if (entry.ended) {
    add.bind(":ended", *entry.ended);
  }
  add.exec();
}

bool replace(Database& file, const Entry& entry) {
  Statement change(file, "UPDATE entries SET run = :run, began = :began, ended = :ended, " +
                             fieldList([](const std::string& name) { return name + " = :" + name; }) +
                             " WHERE number = :number");
  bindTexts(change, entry);
  change.bind(":run", entry.run);
  change.bind(":began", entry.began);
  change.bind(":ended", entry.ended.value_or(entry.began));
  change.bind(":number", entry.number);
  return change.exec() > 0;
}

// Empty when there is no such entry.
std::string outcomeOf(Database& file, std::int64_t number) {
  Statement row(file, "SELECT outcome FROM entries WHERE number = ?");
  row.bind(1, number);
  return row.executeStep() ? row.getColumn(0).getString() : "";
}

bool isBegun(Database& file, const Attempt& attempt) {
  Statement row(file, "SELECT 1 FROM entries WHERE number = ? AND began = ? AND outcome = ?");
  row.bind(1, attempt.number);
  row.bind(2, attempt.began);
  row.bind(3, kRunning);
  return row.executeStep();
}

struct flock byteOf(std::int64_t number, short type) {
  struct flock byte = {};
  byte.l_type = type;
  byte.l_whence = SEEK_SET;
  byte.l_start = number;
  byte.l_len = 1;
  return byte;
}

bool lockByte(const FileDescriptor& locks, std::int64_t number) {
  struct flock byte = byteOf(number, F_WRLCK);
  return locks && fcntl(locks.get(), F_OFD_SETLK, &byte) == 0;
}

bool isAtWork(const FileDescriptor& locks, std::int64_t number) {
  struct flock byte = byteOf(number, F_WRLCK);
  return !locks || fcntl(locks.get(), F_OFD_GETLK, &byte) != 0 || byte.l_type != F_UNLCK;
}

// Those whose processes are gone.
void markInterrupted(Database& file, const FileDescriptor& locks) {
  std::vector<Entry> gone;
  Statement rows(file, "SELECT " + columns() + " FROM entries WHERE outcome = 'running'");
  while (rows.executeStep()) {
    Entry entry = entryOf(rows);
    if (!isAtWork(locks, entry.number)) {
      gone.push_back(interrupted(std::move(entry)));
    }
  }
  for (const Entry& entry : gone) {
    Statement change(file, "UPDATE entries SET outcome = ?, sentence = ?, remedy = ? WHERE number = ?");
    change.bind(1, entry.outcome);
    change.bind(2, entry.sentence);
    change.bind(3, entry.remedy);
    change.bind(4, entry.number);
    change.exec();
    count(file, entry);
  }
}

// What is known of traces: an update of a process, which began then, has its entry.
constexpr char kTakenTable[] =
    "CREATE TABLE IF NOT EXISTS taken (trace TEXT NOT NULL, began INTEGER NOT NULL, PRIMARY KEY (trace, "
    "began))";

bool isTaken(Database& file, const std::string& trace, std::int64_t began) {
  Statement row(file, "SELECT 1 FROM taken WHERE trace = ? AND began = ?");
  row.bind(1, trace);
  row.bind(2, began);
  return row.executeStep();
}

void take(Database& file, const std::string& trace, std::int64_t began, const Entry& entry) {
  Statement mark(file, "INSERT INTO taken VALUES (?, ?)");
  mark.bind(1, trace);
  mark.bind(2, began);
  mark.exec();
  insert(file, entry);
  count(file, entry);
}

// Traces that are gone do not come again.
void forgetOthers(Database& file, const std::vector<Traced>& all) {
  std::set<std::string> there;
  for (const Traced& traced : all) {
    there.insert(traced.name);
  }
  std::vector<std::string> gone;
  Statement rows(file, "SELECT DISTINCT trace FROM taken");
  while (rows.executeStep()) {
    if (there.count(rows.getColumn(0).getString()) == 0) {
      gone.push_back(rows.getColumn(0).getString());
    }
  }
  for (const std::string& trace : gone) {
    Statement forget(file, "DELETE FROM taken WHERE trace = ?");
    forget.bind(1, trace);
    forget.exec();
  }
}

bool mayWrite(const std::string& path) {
  return faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

bool isThere(const std::string& path) {
  return faccessat(AT_FDCWD, path.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

}  // namespace

Entry interrupted(Entry entry) {
  entry.outcome = kInterrupted;
  entry.sentence = "It was cut off: its process ended before the update did, or the power went.";
  entry.remedy = "See whether it left the update lock taken: fw-update lock status. Then try again.";
  return entry;
}

History::History(Settings settings) : settings_(std::move(settings)) {}

std::string History::pathOf(const char* name) const {
  return settings_.directory + "/" + name;
}

FileDescriptor History::openLocks() const {
  return FileDescriptor(open(pathOf(kLocks).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kLocksMode));
}

Attempt History::begin(Entry entry) {
  Attempt attempt;
  entry.outcome = kRunning;
  entry.began = now();
  attempt.began = entry.began;
  const bool isWritten = write([&](Database& file) {
    // A change that failed at its very end is in the file all the same.
    if (isBegun(file, attempt)) {
      return;
    }
    insert(file, entry);
    attempt.number = file.getLastInsertRowid();
    attempt.lock = openLocks();
    lockByte(attempt.lock, attempt.number);
  });
  if (!isWritten) {
    attempt.number = 0;
    attempt.lock.reset();
  }
  return attempt;
}

void History::finish(const Attempt& attempt, Entry entry) {
  entry.ended = now();
  entry.began = attempt.began != 0 ? attempt.began : *entry.ended;
  entry.number = attempt.number;
  write([&](Database& file) {
    const bool isNews = outcomeOf(file, entry.number) != entry.outcome;
    if (entry.number == 0 || !replace(file, entry)) {
      insert(file, entry);
    }
    if (isNews) {
      count(file, entry);
    } else {
      noteVersion(file, entry);
    }
  });
}

// False when nothing was written.
bool History::write(const Step& step) {
  mkdir(settings_.directory.c_str(), 0755);
  bool mended = false;
  bool again = true;  // after an error that may not come a second time
  for (int tries = 0; tries < kMostTries; ++tries) {
    const int removed = tries == 0 ? 0 : 1 << (tries - 1);
    try {
      return tryWrite(step, removed);
    } catch (const SQLite::Exception& error) {
      if (isDamage(error) && !mended) {
        mended = true;
        setAside();
      } else if (!isFull(error) && (error.getErrorCode() == SQLITE_BUSY || !std::exchange(again, false))) {
        return false;
      }
    } catch (const std::exception&) {
      return false;
    }
  }
  return false;
}

bool History::tryWrite(const Step& step, int removed) {
  const std::string path = pathOf(kFile);
  if (isNoFile(
          FileDescriptor(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, kMode)),
          path)) {
    return false;
  }
  Database file(path, SQLite::OPEN_READWRITE | SQLite::OPEN_NOFOLLOW, settings_.mostBusyMs);
  confine(file, settings_);
  configure(file, settings_);
  const int version = numberOf(file, "user_version");
  if (version > kVersion) {
    return false;
  }
  if (version == 0) {
    makeTables(file);
  }
  try {
    if (!hasReserve(pathOf(kJournal))) {
      makeReserve(file);
    }
    shrink(file, settings_.mostKib);
  } catch (const SQLite::Exception& error) {
    if (isDamage(error)) {
      throw;
    }
  }
  file.exec("BEGIN IMMEDIATE");
  if (removed > 0 && removeOldest(file, removed) == 0) {
    return false;
  }
  markInterrupted(file, openLocks());
  step(file);
  keepNewest(file, settings_.mostEntries);
  file.exec("COMMIT");
  return true;
}

// What another process has mended meanwhile is left alone.
void History::setAside() {
  const FileDescriptor locks = openLocks();
  if (!lockByte(locks, 0)) {
    return;
  }
  try {
    Database file(pathOf(kFile), SQLite::OPEN_READWRITE | SQLite::OPEN_NOFOLLOW, settings_.mostBusyMs);
    confine(file, settings_);
    if (isSound(file)) {
      return;
    }
  } catch (const SQLite::Exception& error) {
    if (!isDamage(error)) {
      return;
    }
  }
  if (rename(pathOf(kFile).c_str(), pathOf(kDamaged).c_str()) == 0) {
    unlink(pathOf(kDamagedJournal).c_str());
    rename(pathOf(kJournal).c_str(), pathOf(kDamagedJournal).c_str());
    warning_ = "The history was damaged. It is kept as " + pathOf(kDamaged) + ", and a new one was begun.";
  }
}

bool History::mayBeWritten() const {
  const std::string path = pathOf(kFile);
  return isThere(path) ? mayWrite(path) && mayWrite(settings_.directory)
                       : !isThere(settings_.directory) || mayWrite(settings_.directory);
}

void History::takeIn(const std::vector<Traced>& all) {
  const bool isAny =
      std::any_of(all.begin(), all.end(), [](const Traced& traced) { return !traced.updates.empty(); });
  if (!isAny) {
    return;
  }
  write([&all](Database& file) {
    file.exec(kTakenTable);
    for (const Traced& traced : all) {
      for (const auto& [began, entry] : traced.updates) {
        if (!isTaken(file, traced.name, began)) {
          take(file, traced.name, began, entry);
        }
      }
    }
    forgetOthers(file, all);
  });
}

std::string History::damagedFile() const {
  return isThere(pathOf(kDamaged)) ? pathOf(kDamaged) : "";
}

// Nothing happens when there is no history yet.
void History::read(const Step& step) {
  const std::string path = pathOf(kFile);
  if (!isThere(path)) {
    return;
  }
  if (faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0) {
    throw Failure("The history " + path + " cannot be read: " + base::errnoText(errno) + ".",
                  errno == EACCES);
  }
  if (mayWrite(path) && mayWrite(settings_.directory)) {
    write([](Database&) {});
  }
  if (isNoFile(FileDescriptor(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK)), path)) {
    throw Failure("The history " + path + " cannot be read: it is no file.", false);
  }
  try {
    Database file(path, SQLite::OPEN_READONLY | SQLite::OPEN_NOFOLLOW, settings_.mostBusyMs);
    confine(file, settings_);
    if (numberOf(file, "user_version") > kVersion) {
      throw Failure("The history " + path + " is of a newer version of this program.", false);
    }
    if (numberOf(file, "user_version") > 0) {
      step(file);
    }
  } catch (const SQLite::Exception& error) {
    throw Failure("The history " + path + " cannot be read: " + error.what() + ".", false);
  }
}

std::vector<Entry> History::list(const Filter& filter) {
  std::vector<Entry> entries;
  read([&](Database& file) {
    Statement rows(file,
                   "SELECT " + columns() +
                       " FROM entries WHERE (:module = '' OR module = :module) AND began >= :since AND (NOT "
                       ":failed OR outcome NOT IN ('updated', 'nothing-to-do', 'ok', 'running')) ORDER BY "
                       "number DESC LIMIT :most");
    rows.bind(":module", filter.module);
    rows.bind(":since", filter.since);
    rows.bind(":failed", filter.failedOnly ? 1 : 0);
    rows.bind(":most", filter.most == 0 ? std::int64_t{-1} : static_cast<std::int64_t>(filter.most));
    while (rows.executeStep()) {
      entries.push_back(entryOf(rows));
    }
  });
  std::reverse(entries.begin(), entries.end());
  return entries;
}

std::optional<Entry> History::find(std::int64_t number) {
  std::optional<Entry> entry;
  read([&](Database& file) {
    Statement row(file, "SELECT " + columns() + " FROM entries WHERE number = ?");
    row.bind(1, number);
    if (row.executeStep()) {
      entry = entryOf(row);
    }
  });
  return entry;
}

std::vector<Total> History::totals() {
  std::vector<Total> totals;
  read([&](Database& file) {
    Statement rows(
        file, "SELECT module, outcome, count, seconds, last, version FROM totals ORDER BY module, outcome");
    while (rows.executeStep()) {
      totals.push_back({rows.getColumn(0).getString(), rows.getColumn(1).getString(),
                        rows.getColumn(2).getInt64(), rows.getColumn(3).getDouble(),
                        rows.getColumn(4).getInt64(), rows.getColumn(5).getString()});
    }
  });
  return totals;
}

}  // namespace history
