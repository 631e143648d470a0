// SPDX-License-Identifier: Apache-2.0
// The fleet's client on the bus: tells what it is at, and brings what clients order to the thread that
// works. The bus has a thread of its own, so that it answers during a download. Every operation here is
// the working thread's; it outlives this object.
#ifndef FW_FLEET_FLEET_BUS_H
#define FW_FLEET_FLEET_BUS_H

#include <json/value.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace sdbus {
class IConnection;
}

namespace fleet {

inline constexpr char kBusName[] = "org.fwupdate.Fleet1";
inline constexpr char kBusPath[] = "/org/fwupdate/Fleet1";

// What is done for clients, in the working thread.
struct Orders {
  std::function<void()> poll;
  // False when the action does not ask, or it cannot be kept.
  std::function<bool(const std::string& action, bool isYes)> consent;
};

class FleetBus {
 public:
  // address: of the bus; empty: the system bus. Takes the name. Throws std::runtime_error with a sentence.
  explicit FleetBus(const std::string& address);
  // Nobody is answered any more.
  ~FleetBus();
  FleetBus(const FleetBus&) = delete;
  FleetBus& operator=(const FleetBus&) = delete;

  // From now on this is answered.
  void tell(const Json::Value& status);
  // Whether a client wants the server to be asked. Once for each time it is wanted.
  bool takePollWish();
  // Until something is ordered, or the time is over; then does what is ordered. Throws std::runtime_error
  // with a sentence when the bus is gone.
  void serve(std::chrono::milliseconds most, const Orders& orders);

 private:
  class State;
  const std::unique_ptr<sdbus::IConnection> connection_;
  const std::unique_ptr<State> state_;
};

}  // namespace fleet

#endif
