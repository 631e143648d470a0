// SPDX-License-Identifier: Apache-2.0
// Plays what a recorded disk can be after a power cut, and keeps each different content
// that its file system then has.
//
// usage: power-cut-states --base IMAGE --log LOG --work DIRECTORY [OPTION...]
//
// DIRECTORY/trees/DIGEST is a copy of each content. A line of JSON tells of each: its
// digest, in how many states it was seen ("states") and in how many after how many marks
// ("after"), the first of these ("first"), and what could not be read.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <iostream>
#include <map>

#include <json/json.h>
#include <sched.h>
#include <sys/mount.h>

#include "cut-disk.h"
#include "disk-log.h"
#include "disk-states.h"
#include "tree-digest.h"

namespace {
namespace fs = std::filesystem;

struct Options {
  std::string base;
  std::string log;
  std::string work;
  std::string from;
  powercut::FileSystem system{"ext4", ""};
  std::size_t states = 1000;
  std::uint64_t seed = 1;
  std::size_t part = 0;
  std::size_t parts = 1;
};

Options parse(int argc, char** argv) {
  Options options;
  CLI::App app("", "power-cut-states");
  app.add_option("--base", options.base)->required();
  app.add_option("--log", options.log)->required();
  app.add_option("--work", options.work)->required();
  app.add_option("--from", options.from);
  app.add_option("--file-system", options.system.kind);
  app.add_option("--mount-options", options.system.options);
  app.add_option("--states", options.states);
  app.add_option("--seed", options.seed);
  app.add_option("--part", options.part);
  app.add_option("--parts", options.parts);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::exit(app.exit(error));
  }
  return options;
}

struct Seen {
  std::size_t states = 0;
  std::map<std::size_t, std::size_t> after;  // marks -> states
  std::map<std::size_t, std::string> first;
  std::vector<std::string> unreadable;
};

std::string nameOf(std::size_t epoch, const powercut::Selection& selection) {
  std::string name = "epoch " + std::to_string(epoch) + " pieces ";
  for (const bool taken : selection) {
    name += taken ? '1' : '0';
  }
  return name;
}

class Player {
 public:
  explicit Player(Options options)
      : options_(std::move(options)),
        epochs_(powercut::epochsOf(powercut::readDiskLog(options_.log), options_.from)),
        disk_(options_.base, epochs_, options_.work + "/state-" + std::to_string(options_.part)),
        directory_(options_.work + "/mounted-" + std::to_string(options_.part)) {
    fs::create_directories(directory_);
    fs::create_directories(options_.work + "/trees");
  }

  void play() {
    const auto shares = powercut::sharesOf(epochs_, options_.states);
    std::size_t number = 0;
    for (std::size_t epoch = 0; epoch < epochs_.size(); ++epoch) {
      disk_.beginEpoch(epoch);
      for (const auto& selection : powercut::selectionsOf(epochs_[epoch], shares[epoch], options_.seed)) {
        if (number++ % options_.parts == options_.part) {
          playState(epoch, selection);
        }
      }
    }
  }

  void report() const {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    for (const auto& [digest, seen] : seen_) {
      Json::Value line;
      line["tree"] = digest;
      line["states"] = Json::UInt64(seen.states);
      for (const auto& [marks, states] : seen.after) {
        line["after"][std::to_string(marks)] = Json::UInt64(states);
        line["first"][std::to_string(marks)] = seen.first.at(marks);
      }
      line["unreadable"] = Json::Value(Json::arrayValue);
      for (const auto& path : seen.unreadable) {
        line["unreadable"].append(path);
      }
      std::cout << Json::writeString(writer, line) << '\n';
    }
  }

 private:
  void playState(std::size_t epoch, const powercut::Selection& selection) {
    std::string digest;
    const int error = disk_.withState(selection, options_.system, directory_, [&] {
      const auto tree = powercut::lookAtTree(directory_);
      digest = tree.digest;
      if (seen_.count(digest) == 0) {
        keep(tree);
      }
    });
    if (error != 0) {
      digest = "none";
      seen_[digest].unreadable = {std::string("the file system cannot be mounted: ") + std::strerror(error)};
    }
    Seen& seen = seen_[digest];
    ++seen.states;
    const std::size_t marks = epochs_[epoch].marks;
    if (++seen.after[marks] == 1) {
      seen.first[marks] = nameOf(epoch, selection);
    }
  }

  void keep(const powercut::Tree& tree) {
    seen_[tree.digest].unreadable = tree.unreadable;
    const auto target = options_.work + "/trees/" + tree.digest;
    std::error_code unreadable;  // is told already
    fs::create_directories(target);
    fs::copy(
        directory_, target,
        fs::copy_options::recursive | fs::copy_options::copy_symlinks | fs::copy_options::overwrite_existing,
        unreadable);
  }

  const Options options_;
  const std::vector<powercut::Epoch> epochs_;
  powercut::CutDisk disk_;
  const std::string directory_;
  std::map<std::string, Seen> seen_;
};

}  // namespace

int main(int argc, char** argv) try {
  // Nobody else is to keep what is mounted here, or to see it.
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "no mount namespace");
  }
  Player player(parse(argc, argv));
  player.play();
  player.report();
  return 0;
} catch (const std::exception& error) {
  std::cerr << "power-cut-states: " << error.what() << '\n';
  return 1;
}
