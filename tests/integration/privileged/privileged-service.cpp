// SPDX-License-Identifier: Apache-2.0
// The privileged service as a program of its own: who may ask, what it takes, and
// that nobody keeps it from serving the others.
#include "privileged-service.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "device-environment.h"
#include "file-descriptor.h"
#include "package-images.h"
#include "privileged-calls.h"
#include "privileged/privileged-client.h"
#include "privileged/privileged-protocol.h"
#include "privileged/squashfs-unpack.h"
#include "service-process.h"
#include "temporary-mount.h"
#include "thoroughness.h"

namespace {

namespace fs = std::filesystem;
using base::FileDescriptor;
using fwplatform::askPrivilegedService;
using fwplatform::encodePrivilegedMessage;
using fwplatform::kPrivilegedSocketPath;
using fwplatform::PrivilegedAnswer;
using fwplatform::PrivilegedOperation;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAreArray;

constexpr uid_t kNobody = 65534;
constexpr gid_t kDaemonGroup = 1;
constexpr gid_t kNoGroup = 65534;

sockaddr_un serviceAddress() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, kPrivilegedSocketPath);
  return address;
}

FileDescriptor listen(int backlog = 16) {
  FileDescriptor listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const sockaddr_un address = serviceAddress();
  EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(::listen(listener.get(), backlog), 0);
  return listener;
}

FileDescriptor connect() {
  FileDescriptor client(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const sockaddr_un address = serviceAddress();
  EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
  return client;
}

void send(const FileDescriptor& client, const std::string& bytes) {
  EXPECT_EQ(send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

// The bytes of the service's answer; "" when it closes the connection.
std::string receive(const FileDescriptor& client) {
  pollfd ready = {client.get(), POLLIN, 0};
  EXPECT_EQ(poll(&ready, 1, 10000), 1) << "no answer in ten seconds";
  char bytes[64];
  const ssize_t length = recv(client.get(), bytes, sizeof bytes, MSG_DONTWAIT);
  return {bytes, length > 0 ? static_cast<std::size_t>(length) : 0};
}

int statusOf(const std::string& bytes) {
  const auto answer = fwplatform::decodePrivilegedAnswer(bytes);
  EXPECT_TRUE(answer) << "no answer";
  return answer ? answer->status : -1;
}

std::string mountMessage(const std::string& name) {
  return encodePrivilegedMessage(PrivilegedOperation::Mount, mountText(name) + '\0');
}

// Runs a function as another user, in a child; its result must fit an exit code.
int asUser(uid_t user, gid_t group, const std::vector<gid_t>& groups, const std::function<int()>& function) {
  const pid_t child = fork();
  if (child == 0) {
    const bool changed = setgroups(groups.size(), groups.data()) == 0 &&
                         setresgid(group, group, group) == 0 && setresuid(user, user, user) == 0;
    _exit(changed ? function() : 125);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class PrivilegedService : public DeviceTest {
 protected:
  void start(const std::vector<std::string>& arguments = {}) { start(ServiceStart{arguments, -1, {}}); }
  void start(const ServiceStart& start) {
    service_ = std::make_unique<ServiceProcess>(start);
    ASSERT_TRUE(service_->waitUntilServing());
  }

  // The service serves, seen from an ordinary request.
  void expectServing() {
    EXPECT_TRUE(service_->isRunning());
    makeImage(name_, "served");
    makeDirectory(name_);
    EXPECT_EQ(askMount(mountText(name_)), kDone);
    EXPECT_EQ(askUmount(directoryPath(name_)), kDone);
    EXPECT_THAT(service_->waitForLine("unmounted " + name_), HasSubstr(thisProcess()));
  }

  static std::string thisProcess() { return "for pid " + std::to_string(getpid()) + ", uid 0, gid 0"; }

  std::unique_ptr<ServiceProcess> service_;
  const std::string name_ = uniquePackageName();
};

// How often a line with these words is in the log, with those that are told in one.
int countIn(const std::string& log, const std::string& words) {
  static const std::regex kMore("privileged: (\\d+) more like this of uid \\d+ within 5 seconds, the last: ");
  int count = 0;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    std::smatch more;
    if (line.find(words) != std::string::npos) {
      count += std::regex_search(line, more, kMore) ? std::stoi(more[1]) : 1;
    }
  }
  return count;
}

TEST_F(PrivilegedService, MountsAndUnmountsForRoot) {
  start();
  makeImage(name_, "the firmware");
  const std::string directory = makeDirectory(name_);

  ASSERT_EQ(askMount(mountText(name_)), kDone);

  const std::string line = service_->waitForLine(name_ + ".img on " + name_);
  EXPECT_THAT(line, HasSubstr(fwplatform::isInUserNamespace()
                                  ? "onto a read-only tmpfs, because the kernel refuses loop mounts here"
                                  : "through /dev/loop"));
  EXPECT_THAT(line, HasSubstr(thisProcess()));
  EXPECT_EQ(readFile(directory + "/content"), "the firmware");
  EXPECT_EQ(askUmount(directory), kDone);
  EXPECT_THAT(service_->waitForLine("unmounted " + name_), HasSubstr(thisProcess()));
  EXPECT_THAT(mountsOn(directory), IsEmpty());
  EXPECT_THAT(loopDevicesLeftOf(name_), IsEmpty());
}

TEST_F(PrivilegedService, TellsWhyAnOperationFailed) {
  start();
  makeDirectory(name_);

  EXPECT_EQ(askMount(mountText(name_)), failedWith(ENOENT));

  EXPECT_THAT(service_->waitForLine("No such file"), HasSubstr(thisProcess()));
}

TEST_F(PrivilegedService, LogsEveryRefusalWithWhoAsked) {
  start();
  struct Case {
    PrivilegedOperation operation;
    std::string text;
    std::string reason;
  };
  const std::string elsewhere = "-o ro,loop,nodev,nosuid /etc/shadow " + directoryPath(name_);
  const Case cases[] = {
      {PrivilegedOperation::Mount, elsewhere + '\0', "\"/etc/shadow\" is not a plain name directly in"},
      {PrivilegedOperation::Mount, mountText("..") + '\0', "is not a plain name directly in"},
      {PrivilegedOperation::Mount, "-o rw " + imagePath(name_) + " " + directoryPath(name_) + '\0',
       "the mount option \"rw\" is not allowed"},
      {PrivilegedOperation::Mount, "unterminated", "the text is not terminated"},
      {PrivilegedOperation::Mknod, std::string("-m 0660 -Z * /dev/mem  c 1 1\0", 29), "is not of the form"},
      {PrivilegedOperation::Mknod, std::string("-m 0660 -Z * /dev/loop250  b 7 250\0", 35), "/dev/loop249"},
      {PrivilegedOperation::Umount, "/", "is not a plain name directly in"},
      {PrivilegedOperation::Umount, "/opt/\x1B[2J\n", "\"/opt/\\x1B[2J\\x0A\" is not"},
      {static_cast<PrivilegedOperation>(9), "x", "unknown operation"},
  };

  for (const Case& one : cases) {
    PrivilegedAnswer answer;
    ASSERT_EQ(askPrivilegedService(one.operation, one.text, 10000, answer), 0);
    EXPECT_EQ(answer.status, -EPERM) << one.text;
    const std::string line = service_->waitForLine("refused ");
    EXPECT_THAT(line, HasSubstr("of pid " + std::to_string(getpid()) + ", uid 0, gid 0: "));
    EXPECT_THAT(line, HasSubstr(one.reason));
  }
  expectServing();
}

TEST_F(PrivilegedService, RefusesOtherUsers) {
  if (fwplatform::isInUserNamespace()) {
    GTEST_SKIP() << "a user namespace has only one user";
  }
  start();
  makeImage(name_, "x");
  makeDirectory(name_);

  const auto isRefused = [&] {
    return askMount(mountText(name_)) == kRefused && askUmount(directoryPath(name_)) == kRefused &&
           askMknod("-m 0660 -Z * /dev/loop200  b 7 200") == kRefused;
  };

  EXPECT_EQ(asUser(kNobody, kNoGroup, {kDaemonGroup}, isRefused), 1);
  EXPECT_EQ(asUser(kNobody, 0, {0, kNoGroup}, isRefused), 1) << "of root's group";
  EXPECT_THAT(service_->waitForLine("refused mount of"),
              HasSubstr("uid 65534, gid 65534: the caller is neither root nor in the group of the service"));
  EXPECT_FALSE(service_->waitForLine("refused umount of").empty());
  EXPECT_FALSE(service_->waitForLine("refused mknod of").empty());
  EXPECT_THAT(mountsOn(directoryPath(name_)), IsEmpty());
}

TEST_F(PrivilegedService, ServesTheMembersOfItsGroup) {
  if (fwplatform::isInUserNamespace()) {
    GTEST_SKIP() << "a user namespace has only one user";
  }
  start({"--group", "nogroup"});
  makeImage(name_, "for the group");
  makeDirectory(name_);
  const auto mountAndUnmount = [&] {
    return askMount(mountText(name_)) == kDone && askUmount(directoryPath(name_)) == kDone;
  };

  EXPECT_EQ(asUser(kNobody, kNoGroup, {}, mountAndUnmount), 1) << "by its own group";
  EXPECT_EQ(asUser(kNobody, kDaemonGroup, {kNoGroup}, mountAndUnmount), 1) << "by a further group";
  EXPECT_EQ(asUser(kNobody, kDaemonGroup, {2, 3}, mountAndUnmount), 0) << "by none";

  EXPECT_FALSE(service_->waitForLine("uid 65534, gid 1: the caller is neither root").empty());
}

TEST_F(PrivilegedService, FindsItsGroupAmongMany) {
  if (fwplatform::isInUserNamespace()) {
    GTEST_SKIP() << "a user namespace has only one user";
  }
  start({"--group", "nogroup"});
  std::vector<gid_t> many;
  for (gid_t group = 1000; group < 1200; ++group) {
    many.push_back(group);
  }
  many.push_back(kNoGroup);

  EXPECT_EQ(asUser(kNobody, kDaemonGroup, many,
                   [&] { return askUmount(directoryPath(name_)) == failedWith(ENOENT); }),
            1);
}

// The numbers of the capabilities that the unit leaves to the service.
std::vector<int> capabilitiesOfTheUnit() {
  static const std::map<std::string, int> kNumbers = {{"CAP_DAC_READ_SEARCH", CAP_DAC_READ_SEARCH},
                                                      {"CAP_SYS_ADMIN", CAP_SYS_ADMIN},
                                                      {"CAP_MKNOD", CAP_MKNOD}};
  static const std::string kSetting = "CapabilityBoundingSet=";
  std::vector<int> capabilities;
  std::ifstream unit(FW_PRIVILEGED_UNIT);
  for (std::string line; std::getline(unit, line);) {
    if (line.rfind(kSetting, 0) == 0) {
      std::istringstream names(line.substr(kSetting.size()));
      for (std::string name; names >> name;) {
        capabilities.push_back(kNumbers.at(name));
      }
    }
  }
  return capabilities;
}

TEST_F(PrivilegedService, NeedsNoOtherCapabilitiesThanItsUnitLeavesIt) {
  if (fwplatform::isInUserNamespace()) {
    GTEST_SKIP() << "a user namespace has only one user";
  }
  const std::vector<int> capabilities = capabilitiesOfTheUnit();
  ASSERT_THAT(capabilities, SizeIs(3));
  start(ServiceStart{{}, -1, capabilities});
  makeImage(name_, "of another user");
  makeDirectory(name_);
  ASSERT_EQ(chown(imagePath(name_).c_str(), kNobody, kNoGroup), 0);
  ASSERT_EQ(chmod(imagePath(name_).c_str(), 0600), 0);

  EXPECT_EQ(askMount(mountText(name_)), kDone);

  EXPECT_EQ(readFile(directoryPath(name_) + "/content"), "of another user");
  EXPECT_EQ(askUmount(directoryPath(name_)), kDone);
}

TEST_F(PrivilegedService, MakesNodesWithTheCapabilitiesOfItsUnit) {
  if (fwplatform::isInUserNamespace()) {
    GTEST_SKIP() << "a user namespace has no device nodes";
  }
  const TemporaryMount dev = TemporaryMount::memory("/dev");
  start(ServiceStart{{}, -1, capabilitiesOfTheUnit()});

  EXPECT_EQ(askMknod("-m 0660 -Z * /dev/loop200  b 7 200"), kDone);

  EXPECT_TRUE(fs::is_block_file("/dev/loop200"));
}

// The numbers of what stands in the process's status as a mask of capabilities.
std::vector<int> capabilitiesIn(pid_t process, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  std::vector<int> capabilities;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field + ":", 0) == 0) {
      const auto mask = std::stoull(line.substr(field.size() + 1), nullptr, 16);
      for (int i = 0; i < 64; ++i) {
        if ((mask >> static_cast<unsigned>(i) & 1U) != 0) {
          capabilities.push_back(i);
        }
      }
    }
  }
  return capabilities;
}

TEST_F(PrivilegedService, StartedByHandKeepsNoMoreThanItsUnitWouldLeaveIt) {
  start();

  for (const char* const field : {"CapEff", "CapPrm", "CapBnd"}) {
    EXPECT_THAT(capabilitiesIn(service_->pid(), field), UnorderedElementsAreArray(capabilitiesOfTheUnit()))
        << field;
  }
  for (const char* const field : {"CapInh", "CapAmb"}) {
    EXPECT_THAT(capabilitiesIn(service_->pid(), field), IsEmpty()) << field;
  }
  EXPECT_THAT(readFile("/proc/" + std::to_string(service_->pid()) + "/status"),
              HasSubstr("NoNewPrivs:\t1\n"));
  expectServing();
}

// Every call of the kernel that mounts or unmounts and does not stand in the unit.
std::vector<int> mountCallsThatTheUnitForbids() {
  static const std::map<std::string, int> kCalls = {{"chroot", SYS_chroot},
                                                    {"fsconfig", SYS_fsconfig},
                                                    {"fsmount", SYS_fsmount},
                                                    {"fsopen", SYS_fsopen},
                                                    {"fspick", SYS_fspick},
                                                    {"mount", SYS_mount},
                                                    {"mount_setattr", SYS_mount_setattr},
                                                    {"move_mount", SYS_move_mount},
                                                    {"open_tree", SYS_open_tree},
                                                    {"pivot_root", SYS_pivot_root},
                                                    {"umount2", SYS_umount2}};
  std::map<std::string, int> forbidden = kCalls;
  std::ifstream unit(FW_PRIVILEGED_UNIT);
  for (std::string line; std::getline(unit, line);) {
    if (line.rfind("SystemCallFilter=@system-service", 0) == 0) {
      std::istringstream names(line);
      for (std::string name; names >> name;) {
        forbidden.erase(name);
      }
    }
  }
  std::vector<int> numbers;
  for (const auto& [name, number] : forbidden) {
    numbers.push_back(number);
  }
  return numbers;
}

TEST_F(PrivilegedService, NeedsNoOtherMountCallsThanItsUnitLeavesIt) {
  if (fwplatform::isInUserNamespace()) {
    GTEST_SKIP() << "images are unpacked there, without the unit";
  }
  ServiceStart how;
  how.deniedCalls = mountCallsThatTheUnitForbids();
  ASSERT_THAT(how.deniedCalls, SizeIs(6));
  start(how);

  expectServing();
}

TEST_F(PrivilegedService, EndsWhenItCannotGiveUpItsRights) {
  for (const int call : {SYS_prctl, SYS_capget, SYS_capset}) {
    ServiceStart how;
    how.deniedCalls = {call};
    ServiceProcess service(how);

    EXPECT_THAT(service.waitForLine("fw-privileged"),
                HasSubstr("giving up rights that it does not need: Operation not permitted"))
        << call;
    EXPECT_EQ(service.waitForEnd(), 1) << call;
  }
}

TEST_F(PrivilegedService, EndsWhenItsGroupDoesNotExist) {
  ServiceProcess service(ServiceStart{{"--group", "no-such-group"}, -1, {}});

  EXPECT_THAT(service.waitForLine("fw-privileged"),
              testing::StrEq("fw-privileged: there is no group \"no-such-group\""));
  EXPECT_EQ(service.waitForEnd(), 1);
}

TEST_F(PrivilegedService, RefusesWhatIsNoRequestAndStaysUp) {
  start();
  const std::string good = mountMessage(name_);

  for (const std::string& bytes : {std::string(), std::string("x"), good.substr(0, 5), "xx" + good,
                                   std::string(70000, 'x'), good.substr(0, 6) + std::string(1025, 'a')}) {
    const FileDescriptor client = connect();
    send(client, bytes);
    EXPECT_EQ(statusOf(receive(client)), -EPERM) << bytes.size() << " bytes";
    EXPECT_THAT(service_->waitForLine("refused "), HasSubstr("it is no request"));
  }
  expectServing();
}

TEST_F(PrivilegedService, StaysUpThroughTenThousandRandomMessages) {
  start();
  // The log is read meanwhile, so that the service never waits for its reader.
  std::thread reader([this] { service_->waitForLine("unmounted " + name_); });
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&](unsigned limit) {
    return std::uniform_int_distribution<unsigned>(0, limit - 1)(random);
  };
  const std::string good[] = {
      mountMessage(name_),
      encodePrivilegedMessage(PrivilegedOperation::Mknod,
                              std::string("-m 0660 -Z * /dev/loop250  b 7 250\0", 35)),
      encodePrivilegedMessage(PrivilegedOperation::Umount, directoryPath(name_))};

  for (int i = 0; i < 10000; ++i) {
    std::string bytes = good[below(3)];
    if (below(2) == 0) {
      bytes.resize(below(1200));
      std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(below(256)); });
    }
    for (unsigned changes = below(4) + 1; changes > 0 && !bytes.empty(); --changes) {
      bytes[below(static_cast<unsigned>(bytes.size()))] = static_cast<char>(below(256));
    }
    const FileDescriptor client = connect();
    send(client, bytes);
    const auto answer = fwplatform::decodePrivilegedAnswer(receive(client));
    // A change may have left a good request for an image that is not there.
    ASSERT_TRUE(answer && (answer->status == -EPERM || answer->result != 0)) << i;
  }

  EXPECT_TRUE(service_->isRunning());
  makeImage(name_, "served");
  makeDirectory(name_);
  EXPECT_EQ(askMount(mountText(name_)), kDone);
  EXPECT_EQ(askUmount(directoryPath(name_)), kDone);
  reader.join();
}

TEST_F(PrivilegedService, DoesNotWaitForAClientThatSendsNothing) {
  start();
  const FileDescriptor silent = connect();

  expectServing();

  EXPECT_EQ(receive(silent), "") << "it is sent away after a while";
  EXPECT_THAT(service_->waitForLine("refused a connection"), HasSubstr("no request came in time"));
}

TEST_F(PrivilegedService, LimitsHowManySilentClientsAUserHas) {
  start();
  std::vector<FileDescriptor> silent;
  for (int i = 0; i < 65; ++i) {
    silent.push_back(connect());
  }

  EXPECT_THAT(service_->waitForLine("refused a connection"), HasSubstr("too many send nothing"));
  EXPECT_EQ(receive(silent[0]), "") << "the oldest one";
  expectServing();
}

// Silent clients of another user; whoever they are is asked when they connect.
void connectAs(uid_t user, gid_t group, int count, std::vector<FileDescriptor>& silent) {
  ASSERT_EQ(setgroups(0, nullptr), 0);
  ASSERT_EQ(setegid(group), 0);
  ASSERT_EQ(seteuid(user), 0);
  for (int i = 0; i < count; ++i) {
    silent.push_back(connect());
  }
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_EQ(setegid(0), 0);
}

TEST_F(PrivilegedService, LimitsHowManySilentClientsAllUsersHave) {
  if (fwplatform::isInUserNamespace()) {
    GTEST_SKIP() << "a user namespace has only one user";
  }
  start({"--group", "nogroup"});
  std::vector<FileDescriptor> silent;
  // Two that may ask, and one user who has few, came first.
  const FileDescriptor first = connect();
  connectAs(kNobody, kNoGroup, 1, silent);
  connectAs(kNobody - 1, kDaemonGroup, 4, silent);
  // The others are no more than a user can have, and too many together.
  connectAs(kNobody, kDaemonGroup, 62, silent);
  for (const uid_t user : {kNobody - 2, kNobody - 3, kNobody - 4}) {
    connectAs(user, kDaemonGroup, 60, silent);
  }
  connectAs(kNobody - 5, kDaemonGroup, 10, silent);

  // 258 were waiting at most: two had to go.
  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(service_->waitForLine("too many send nothing"), HasSubstr("uid 65534, gid 1:"))
        << "the stranger who has most";
  }
  send(first, mountMessage(name_));
  EXPECT_EQ(fwplatform::decodePrivilegedAnswer(receive(first))->result, ENOENT)
      << "it is served all the same";
}

TEST_F(PrivilegedService, LimitsHowManySilentMembersOfItsGroupThereAre) {
  if (fwplatform::isInUserNamespace()) {
    GTEST_SKIP() << "a user namespace has only one user";
  }
  start({"--group", "nogroup"});
  std::vector<FileDescriptor> silent;
  connectAs(kNobody, kNoGroup, 62, silent);
  for (const uid_t user : {kNobody - 2, kNobody - 3, kNobody - 4}) {
    connectAs(user, kNoGroup, 60, silent);
  }
  connectAs(kNobody - 5, kNoGroup, 15, silent);

  EXPECT_THAT(service_->waitForLine("too many send nothing"), HasSubstr("uid 65534, gid 65534:"))
      << "who has most";
  EXPECT_EQ(receive(silent[0]), "") << "the oldest one";
}

TEST_F(PrivilegedService, GoesOnWithoutFreeDescriptors) {
  ServiceStart how;
  how.descriptors = 32;
  start(how);
  std::vector<FileDescriptor> silent;
  for (int i = 0; i < 60; ++i) {
    silent.push_back(connect());
  }

  EXPECT_THAT(service_->waitForLine("refused a connection"), HasSubstr("too many send nothing"));

  silent.clear();
  expectServing();
}

TEST_F(PrivilegedService, WaitsForADescriptorWhenItHasNoneAtAll) {
  if (thoroughness::kUnderASanitizer) {
    GTEST_SKIP() << "a sanitizer needs descriptors of its own";
  }
  ServiceStart how;
  // Its own streams, the socket, the signals: nothing is left for a client.
  const FileDescriptor listener = listen();
  how.listener = listener.get();
  how.descriptors = 5;
  start(how);
  const FileDescriptor client = connect();
  send(client, mountMessage(name_));
  rlimit more = {64, 64};

  pollfd answer = {client.get(), POLLIN, 0};
  EXPECT_EQ(poll(&answer, 1, 300), 0) << "it can't be taken yet";
  ASSERT_EQ(prlimit(service_->pid(), RLIMIT_NOFILE, &more, nullptr), 0);

  EXPECT_EQ(fwplatform::decodePrivilegedAnswer(receive(client))->result, ENOENT);
}

TEST_F(PrivilegedService, TellsWhatItLeavesOutOfTheLogInOneLine) {
  start();
  constexpr int kRefusals = 3000;
  std::string log;
  std::thread reader([&] { log = service_->readToTheEnd(); });

  for (int i = 0; i < kRefusals; ++i) {
    const FileDescriptor client = connect();
    send(client, "nonsense");
    ASSERT_EQ(statusOf(receive(client)), -EPERM);
  }
  service_->signal(SIGTERM);
  reader.join();

  EXPECT_EQ(countIn(log, "it is no request"), kRefusals) << log;
  EXPECT_LT(log.size(), 20000U);
}

TEST_F(PrivilegedService, CountsClientsThatCloseAtOnce) {
  start();
  constexpr int kClients = 1000;
  std::string log;
  std::thread reader([&] { log = service_->readToTheEnd(); });

  for (int i = 0; i < kClients; ++i) {
    connect();
  }
  EXPECT_EQ(askUmount(directoryPath(name_)), failedWith(ENOENT)) << "all before it have been taken";
  service_->signal(SIGTERM);
  reader.join();

  EXPECT_EQ(countIn(log, "nothing done, because the caller has gone: pid"), kClients) << log;
  EXPECT_LT(log.size(), 20000U);
}

TEST_F(PrivilegedService, TellsWhatItLeftOutWhileItGoesOn) {
  start();
  for (int i = 0; i < 21; ++i) {
    const FileDescriptor client = connect();
    send(client, "nonsense");
    ASSERT_EQ(statusOf(receive(client)), -EPERM);
  }

  EXPECT_THAT(service_->waitForLine("more like this"),
              HasSubstr("1 more like this of uid 0 within 5 seconds, the last: refused a message of pid"));
}

TEST_F(PrivilegedService, ServesManyClientsAtOnce) {
  start();
  constexpr std::size_t kClients = 40;
  struct Client {
    std::string name = uniquePackageName();
    Answer mounted = {};
    std::string content;
    Answer unmounted = {};
  };
  std::vector<Client> clients(kClients);
  for (const Client& client : clients) {
    makeImage(client.name, client.name);
    makeDirectory(client.name);
  }
  std::vector<std::thread> threads;
  for (Client& client : clients) {
    threads.emplace_back([&client] {
      client.mounted = askMount(mountText(client.name));
      std::ifstream(directoryPath(client.name) + "/content") >> client.content;
      client.unmounted = askUmount(directoryPath(client.name));
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  for (const Client& client : clients) {
    EXPECT_EQ(client.mounted, kDone);
    EXPECT_EQ(client.content, client.name);
    EXPECT_EQ(client.unmounted, kDone);
  }
}

TEST_F(PrivilegedService, DoesNothingForACallerThatHasGone) {
  start();
  makeImage(name_, "x");
  makeDirectory(name_);
  service_->signal(SIGSTOP);
  {
    const FileDescriptor client = connect();
    send(client, mountMessage(name_));
  }
  service_->signal(SIGCONT);
  ASSERT_EQ(askUmount(directoryPath(name_)), failedWith(EINVAL));

  EXPECT_THAT(service_->waitForLine(name_), HasSubstr("unmount of " + name_ + ": Invalid argument"))
      << "the first thing done";
}

TEST_F(PrivilegedService, TakesAMountBackWhenTheAnswerReachesNobody) {
  start();
  makeImage(name_, "x");
  makeDirectory(name_);
  const FileDescriptor client = connect();
  ASSERT_EQ(shutdown(client.get(), SHUT_RD), 0);

  send(client, mountMessage(name_));

  EXPECT_THAT(service_->waitForLine("unmounted " + name_), HasSubstr("because the caller has gone"));
  EXPECT_THAT(mountsOn(directoryPath(name_)), IsEmpty());
  EXPECT_THAT(loopDevicesLeftOf(name_), IsEmpty());
}

// What is mounted there is not what the caller who has gone asked for.
TEST_F(PrivilegedService, TakesNothingBackOfARequestThatFailed) {
  start();
  makeImage(name_, "x");
  makeDirectory(name_);
  ASSERT_EQ(askMount(mountText(name_)), kDone);
  const FileDescriptor client = connect();
  ASSERT_EQ(shutdown(client.get(), SHUT_RD), 0);

  send(client, mountMessage(name_));

  EXPECT_THAT(service_->waitForLine("is mounted already"), HasSubstr("Device or resource busy"));
  EXPECT_EQ(askUmount(directoryPath(name_)), kDone) << "it was still there";
}

TEST_F(PrivilegedService, TakesItsSocketFromTheServiceManager) {
  const FileDescriptor listener = listen();
  service_ = std::make_unique<ServiceProcess>(ServiceStart{{}, listener.get(), {}});

  expectServing();

  EXPECT_NE(fcntl(listener.get(), F_GETFL) & O_NONBLOCK, 0) << "a client that has gone is not waited for";
  service_->signal(SIGTERM);
  EXPECT_EQ(service_->waitForEnd(), 0);
  EXPECT_TRUE(exists(kPrivilegedSocketPath)) << "the socket is the service manager's";
}

TEST_F(PrivilegedService, RefusesAnotherKindOfSocketFromTheServiceManager) {
  const FileDescriptor other(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ServiceProcess service(ServiceStart{{}, other.get(), {}});

  EXPECT_THAT(service.waitForLine("fw-privileged"),
              HasSubstr("must hand over one listening Unix sequenced-packet"));
  EXPECT_EQ(service.waitForEnd(), 1);
}

TEST_F(PrivilegedService, RefusesASocketOfTheServiceManagerThatDoesNotListen) {
  const FileDescriptor other(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  const FileDescriptor internet(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::listen(internet.get(), 1), 0);

  for (const FileDescriptor* const one : {&other, &internet}) {
    ServiceProcess service(ServiceStart{{}, one->get(), {}});
    EXPECT_THAT(service.waitForLine("fw-privileged"),
                HasSubstr("must hand over one listening Unix sequenced-packet"));
    EXPECT_EQ(service.waitForEnd(), 1);
  }
}

TEST_F(PrivilegedService, RefusesTwoSocketsFromTheServiceManager) {
  const FileDescriptor listener = listen();
  ServiceStart how;
  how.listener = listener.get();
  how.handedOver = 2;
  ServiceProcess service(how);

  EXPECT_THAT(service.waitForLine("fw-privileged"), HasSubstr("must hand over one listening"));
  EXPECT_EQ(service.waitForEnd(), 1);
}

TEST_F(PrivilegedService, EndsWhenItCannotUnderstandTheServiceManager) {
  const FileDescriptor listener = listen();
  ServiceStart how;
  how.listener = listener.get();
  how.environment = {{"LISTEN_FDS", "one"}};
  ServiceProcess service(how);

  EXPECT_THAT(service.waitForLine("fw-privileged"), HasSubstr("must hand over one listening"));
  EXPECT_EQ(service.waitForEnd(), 1);
}

TEST_F(PrivilegedService, TakesNoSocketsThatAreMeantForAnotherProcess) {
  ServiceStart how;
  how.environment = {{"LISTEN_FDS", "1"}, {"LISTEN_PID", "1"}};
  start(how);

  EXPECT_TRUE(exists(kPrivilegedSocketPath)) << "it made its own";
  expectServing();
}

// The socket where a service manager would listen for what its services tell.
class NotifySocket {
 public:
  NotifySocket() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kPath);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  // "" when nothing comes within ten seconds.
  std::string next() const {
    pollfd ready = {socket_.get(), POLLIN, 0};
    char text[64];
    const ssize_t length = poll(&ready, 1, 10000) > 0 ? recv(socket_.get(), text, sizeof text, 0) : 0;
    return {text, length > 0 ? static_cast<std::size_t>(length) : 0};
  }

  static constexpr char kPath[] = "/run/notify.sock";

 private:
  FileDescriptor socket_;
};

TEST_F(PrivilegedService, TellsTheServiceManagerThatItServesAndIsAlive) {
  const NotifySocket manager;
  ServiceStart how;
  how.environment = {
      {"NOTIFY_SOCKET", NotifySocket::kPath}, {"WATCHDOG_USEC", "100000"}, {"WATCHDOG_PID", "PID"}};
  start(how);

  EXPECT_EQ(manager.next(), "READY=1");
  EXPECT_EQ(manager.next(), "WATCHDOG=1");
  EXPECT_EQ(manager.next(), "WATCHDOG=1") << "without a request";
  expectServing();
}

TEST_F(PrivilegedService, TellsNobodyThatItIsAliveWhenNobodyWatches) {
  const NotifySocket manager;
  ServiceStart how;
  how.environment = {{"NOTIFY_SOCKET", NotifySocket::kPath}};
  start(how);
  expectServing();
  service_->signal(SIGTERM);
  EXPECT_EQ(service_->waitForEnd(), 0);
  const std::string end = "the end";
  const FileDescriptor other(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, NotifySocket::kPath);
  ASSERT_GT(sendto(other.get(), end.data(), end.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                   sizeof address),
            0);

  EXPECT_EQ(manager.next(), "READY=1");
  EXPECT_EQ(manager.next(), end);
}

TEST_F(PrivilegedService, RemovesItsSocketWhenItEnds) {
  for (const int signal : {SIGTERM, SIGINT}) {
    start();
    ASSERT_TRUE(exists(kPrivilegedSocketPath));

    service_->signal(signal);

    EXPECT_EQ(service_->waitForEnd(), 0);
    EXPECT_FALSE(exists(kPrivilegedSocketPath));
  }
}

TEST_F(PrivilegedService, TakesOverFromOneThatWasKilled) {
  start();
  service_->signal(SIGKILL);
  ASSERT_EQ(service_->waitForEnd(), -SIGKILL);
  ASSERT_TRUE(exists(kPrivilegedSocketPath));

  start();

  expectServing();
}

TEST_F(PrivilegedService, LeavesTheSocketToOneThatRuns) {
  start();
  ServiceProcess second;

  EXPECT_THAT(second.waitForLine("fw-privileged"), HasSubstr("another service listens on"));
  EXPECT_EQ(second.waitForEnd(), 1);
  expectServing();
}

TEST_F(PrivilegedService, LeavesAFileInItsPlaceAlone) {
  writeFile(kPrivilegedSocketPath, "a file");
  ServiceProcess service;

  EXPECT_THAT(service.waitForLine("fw-privileged"), HasSubstr("is there already and is no socket"));
  EXPECT_EQ(service.waitForEnd(), 1);
  EXPECT_EQ(readFile(kPrivilegedSocketPath), "a file");
}

TEST_F(PrivilegedService, ExplainsItselfWhenAsked) {
  for (const char* argument : {"--help", "-h"}) {
    ServiceProcess service(ServiceStart{{argument}, -1, {}});

    EXPECT_EQ(service.readToTheEnd(), "") << "an error";
    EXPECT_EQ(service.waitForEnd(), 0);
  }
}

TEST_F(PrivilegedService, DoesNothingMoreOnceItIsToEnd) {
  start();
  service_->signal(SIGSTOP);
  ASSERT_EQ(waitpid(service_->pid(), nullptr, WUNTRACED), service_->pid());
  const FileDescriptor client = connect();
  send(client, mountMessage(name_));
  service_->signal(SIGTERM);

  service_->signal(SIGCONT);

  EXPECT_EQ(service_->waitForEnd(), 0);
  EXPECT_EQ(receive(client), "") << "an answer";
}

TEST_F(PrivilegedService, ExplainsItsArguments) {
  const std::pair<std::string, std::string> misuses[] = {
      {"--grup", "no such option, or no value for it: \"--grup\""},
      {"--group", "no such option, or no value for it: \"--group\""},
      {"stray", "unexpected argument \"stray\""},
  };
  for (const auto& [argument, sentence] : misuses) {
    ServiceProcess service(ServiceStart{{argument}, -1, {}});
    EXPECT_EQ(service.waitForLine("fw-privileged: "), "fw-privileged: " + sentence);
    EXPECT_FALSE(service.waitForLine("Usage: fw-privileged").empty());
    EXPECT_EQ(service.waitForEnd(), 2);
  }
}

// What a client meets when the service is not well. The test is the service.
class PrivilegedClient : public DeviceTest {
 protected:
  static int ask(int patienceMs, PrivilegedAnswer& answer) {
    return askPrivilegedService(PrivilegedOperation::Umount, directoryPath("x"), patienceMs, answer);
  }

  // Asks a service that takes the request and then does as the function says.
  static int askOneThat(const std::function<void(int client)>& answers, PrivilegedAnswer& answer) {
    const FileDescriptor listener = listen();
    std::thread service([&] {
      const FileDescriptor client(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      char request[2048];
      EXPECT_GT(recv(client.get(), request, sizeof request, 0), 0);
      answers(client.get());
    });
    const int status = ask(10000, answer);
    service.join();
    fs::remove(kPrivilegedSocketPath);
    return status;
  }

  static int askOneThatSends(const std::string& bytes) {
    PrivilegedAnswer answer = {kUntouched, kUntouched};
    const int status =
        askOneThat([&](int client) { send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL); }, answer);
    EXPECT_EQ(answer.status, kUntouched);
    EXPECT_EQ(answer.result, kUntouched);
    return status;
  }
};

TEST_F(PrivilegedClient, PassesTheAnswerOn) {
  PrivilegedAnswer answer;

  const int status = askOneThat(
      [](int client) {
        const std::string bytes = fwplatform::encodePrivilegedAnswer({-7, 42});
        send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      },
      answer);

  EXPECT_EQ(status, 0);
  EXPECT_EQ(answer.status, -7);
  EXPECT_EQ(answer.result, 42);
}

TEST_F(PrivilegedClient, SaysWhenTheAnswerIsNonsense) {
  const std::string good = fwplatform::encodePrivilegedAnswer({0, 0});

  EXPECT_EQ(askOneThatSends("nonsense"), -EPROTO);
  EXPECT_EQ(askOneThatSends(good.substr(0, 13)), -EPROTO);
  EXPECT_EQ(askOneThatSends(good + "x"), -EPROTO);
  EXPECT_EQ(askOneThatSends(std::string(60000, 'x')), -EPROTO);
}

TEST_F(PrivilegedClient, SaysWhenTheServiceEndsBeforeItAnswers) {
  PrivilegedAnswer answer;

  EXPECT_EQ(askOneThat([](int) {}, answer), -ECONNRESET);
}

TEST_F(PrivilegedClient, StopsWaitingForASlowService) {
  const FileDescriptor listener = listen();
  PrivilegedAnswer answer;

  EXPECT_EQ(ask(100, answer), -ETIMEDOUT);
}

TEST_F(PrivilegedClient, WaitsForNothingWhenItsTimeIsOverAlready) {
  const FileDescriptor listener = listen();
  PrivilegedAnswer answer;

  EXPECT_EQ(ask(-1000, answer), -ETIMEDOUT);
}

TEST_F(PrivilegedClient, StopsWaitingForAServiceThatTakesNobody) {
  const FileDescriptor listener = listen(0);
  PrivilegedAnswer answer;
  // With no room for more, the second of these has to wait already.
  const FileDescriptor first = connect();

  EXPECT_EQ(ask(100, answer), -ETIMEDOUT);
  EXPECT_EQ(ask(-100, answer), -ETIMEDOUT) << "without any time, either";
}

TEST_F(PrivilegedClient, SaysWhenNoServiceIsThere) {
  PrivilegedAnswer answer;
  EXPECT_EQ(ask(10000, answer), -ENOENT);
  { const FileDescriptor listener = listen(); }
  EXPECT_EQ(ask(10000, answer), -ECONNREFUSED);
}

TEST_F(PrivilegedClient, WaitsForNoAnswerToARequestThatCannotBeSent) {
  const FileDescriptor listener = listen();
  PrivilegedAnswer answer;

  EXPECT_EQ(askPrivilegedService(PrivilegedOperation::Umount, std::string(10 << 20, 'x'), 10000, answer),
            -EMSGSIZE);
}

TEST_F(PrivilegedClient, DoesTheWorkItselfOnlyAsRoot) {
  if (fwplatform::isInUserNamespace()) {
    GTEST_SKIP() << "a user namespace has only one user";
  }
  EXPECT_EQ(askUmount(directoryPath("x")), failedWith(ENOENT)) << "root needs no service";

  const int failed = asUser(kNobody, kNoGroup, {}, [] {
    int result = kUntouched;
    const std::string path = directoryPath("x");
    return PS_Umount(path.data(), static_cast<int>(path.size()), 0, &result) == -ENOENT &&
           result == kUntouched;
  });
  EXPECT_EQ(failed, 1);
}

}  // namespace
