// SPDX-License-Identifier: Apache-2.0
// What the fleet's server says, as plain structs: the answer to a poll, a deployment, a confirmation
// that it wants, an action that it takes back. Nothing in a document is taken for granted, and what
// is not known is passed over. Plain values and functions; any thread.
#ifndef FW_FLEET_DDI_DOCUMENTS_H
#define FW_FLEET_DDI_DOCUMENTS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace fleet::ddi {

// What a document may have; an operator's own limits are lower.
inline constexpr std::size_t kLargestDocument = std::size_t{1} << 20;
inline constexpr std::size_t kLargestShortDocument = std::size_t{64}
                                                     << 10;  // a poll's answer, a cancellation
inline constexpr std::size_t kMostChunks = 100;
inline constexpr std::size_t kMostArtifacts = 50;  // of one chunk
inline constexpr std::size_t kLongestName = 256;   // of a chunk or an artifact, and of a version; bytes

// The text is not the document that it should be, as when something between set and server answers
// instead. Asked again, it may be. what() is a sentence.
struct Unreadable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// An unknown word is none that allows anything: Skip, and Unavailable.
enum class Handling {
  Skip,     // not now
  Attempt,  // its owner may be asked
  Forced,
};

enum class Window { None, Unavailable, Available };

struct Poll {
  std::optional<std::chrono::seconds> sleep;  // none: missing, zero or unreadable
  // Addresses; empty where the server wants nothing.
  std::string deployment;
  std::string cancel;
  std::string confirmation;
  std::string installed;
  std::string configData;
};

struct Artifact {
  std::string fileName;              // for people: never a path
  std::optional<std::int64_t> size;  // none: not told, or no length
  std::string sha256;                // 64 digits, a to f small; empty: not told, or none
  std::string address;               // empty: none
};

struct Chunk {
  std::string part;
  std::string name;
  std::string version;
  std::vector<Artifact> artifacts;
};

struct Deployment {
  std::string id;
  Handling download = Handling::Skip;
  Handling update = Handling::Skip;
  Window window = Window::None;
  std::vector<Chunk> chunks;
  std::string problem;  // a sentence: why it cannot be done as it is; empty otherwise
};

// Each throws Unreadable.
Poll parsePoll(const std::string& text);
Deployment parseDeployment(const std::string& text);
// A deployment that is to be confirmed.
Deployment parseConfirmation(const std::string& text);
// The identity of the action that is to be stopped.
std::string parseCancel(const std::string& text);

// "HH:mm:ss" or "d:HH:mm:ss".
std::optional<std::chrono::seconds> parseSleep(const std::string& text);

}  // namespace fleet::ddi

#endif
