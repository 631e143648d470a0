// SPDX-License-Identifier: Apache-2.0
#include "fleet-bus.h"

#include <json/writer.h>
#include <sdbus-c++/sdbus-c++.h>

#include <condition_variable>
#include <list>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "access.h"
#include "fleet1-adaptor.gen.h"
#include "printable-text.h"

namespace fleet {
namespace {

constexpr char kGroup[] = "fwupdate";
constexpr service::Permission kQuery{"org.fwupdate.fleet1.query", "ask about the fleet's updates", true,
                                     kGroup};
constexpr service::Permission kPoll{"org.fwupdate.fleet1.poll", "have the fleet's server asked", false,
                                    kGroup};
constexpr service::Permission kConsent{"org.fwupdate.fleet1.consent", "consent to the fleet's updates", false,
                                       kGroup};
constexpr std::size_t kMostOrders = 64;

sdbus::Error refusal(const char* name, const std::string& sentence) {
  return sdbus::Error(std::string(kBusName) + ".Error." + name, sentence);
}

std::unique_ptr<sdbus::IConnection> connectTo(const std::string& address) {
  return address.empty() ? sdbus::createSystemBusConnection()
                         : sdbus::createSessionBusConnectionWithAddress(address);
}

// What the actions ask, by their numbers.
using Questions = std::map<std::string, std::string>;

Questions questionsOf(const Json::Value& status) {
  Questions questions;
  for (const Json::Value& action : status["actions"]) {
    if (const std::string what = action["asks"].asString(); !what.empty()) {
      questions.emplace(action["id"].asString(), what);
    }
  }
  return questions;
}

std::string documentOf(const Json::Value& status) {
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return base::validText(Json::writeString(writer, status));
}

using NoAnswer = std::shared_ptr<sdbus::Result<>>;

struct Consenting {
  std::string action;
  bool isYes = false;
  NoAnswer answer;
};

}  // namespace

// Of both threads; the connection's own thread calls what the interface has.
class FleetBus::State : public sdbus::AdaptorInterfaces<org::fwupdate::Fleet1_adaptor> {
 public:
  explicit State(sdbus::IConnection& connection)
      : AdaptorInterfaces(connection, kBusPath), connection_(connection), access_(connection, kBusName) {
    registerAdaptor();
    connection_.requestName(kBusName);
    thread_ = std::thread([this] { run(); });
  }

  virtual ~State() {
    connection_.leaveEventLoop();
    thread_.join();
    unregisterAdaptor();
  }

  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void tell(const Json::Value& status) {
    const Questions asked = questionsOf(status);
    Questions before;
    {
      const std::lock_guard lock(mutex_);
      document_ = documentOf(status);
      before = std::exchange(questions_, asked);
    }
    for (const auto& [action, what] : asked) {
      if (before[action] != what) {  // empty: it asked nothing
        emitAsked(action, what);
      }
    }
  }

  bool takePollWish() {
    const std::lock_guard lock(mutex_);
    return std::exchange(isPollWanted_, false);
  }

  void serve(std::chrono::milliseconds most, const Orders& orders) {
    std::unique_lock lock(mutex_);
    ordered_.wait_for(lock, most, [this] { return isPollWanted_ || !consents_.empty() || isGone_; });
    if (isGone_) {
      throw std::runtime_error("The bus is gone.");
    }
    const bool isPollWanted = std::exchange(isPollWanted_, false);
    const std::list<Consenting> consents = std::exchange(consents_, {});
    lock.unlock();
    for (const Consenting& one : consents) {
      if (orders.consent(one.action, one.isYes)) {
        one.answer->returnResults();
      } else {
        one.answer->returnError(notAsked(one.action));
      }
    }
    if (isPollWanted) {
      orders.poll();
    }
  }

 private:
  static sdbus::Error notAsked(const std::string& action) {
    return refusal("NotAsked", "The action " + base::printableText(action) + " does not ask for consent.");
  }

  void run() {
    try {
      connection_.enterEventLoop();
    } catch (const sdbus::Error&) {
      const std::lock_guard lock(mutex_);
      isGone_ = true;
      ordered_.notify_all();
    }
  }

  std::string client() const { return getObject().getCurrentlyProcessedMessage()->getSender(); }

  void Poll(sdbus::Result<>&& result) override {
    const auto answer = std::make_shared<sdbus::Result<>>(std::move(result));
    access_.ask(
        client(), kPoll,
        [this, answer](const service::Client&) {
          {
            const std::lock_guard lock(mutex_);
            isPollWanted_ = true;
          }
          ordered_.notify_all();
          answer->returnResults();
        },
        [answer](const sdbus::Error& error) { answer->returnError(error); });
  }

  void Status(sdbus::Result<std::string>&& result) override {
    const auto answer = std::make_shared<sdbus::Result<std::string>>(std::move(result));
    access_.ask(
        client(), kQuery,
        [this, answer](const service::Client&) {
          const std::lock_guard lock(mutex_);
          answer->returnResults(document_);
        },
        [answer](const sdbus::Error& error) { answer->returnError(error); });
  }

  void Consent(sdbus::Result<>&& result, std::string action, std::string said) override {
    if (said != "yes" && said != "no" && said != "later") {
      throw refusal("InvalidArgument", "The answer is yes, no or later.");
    }
    const auto answer = std::make_shared<sdbus::Result<>>(std::move(result));
    access_.ask(
        client(), kConsent,
        [this, answer, action, said](const service::Client&) { order(action, said, answer); },
        [answer](const sdbus::Error& error) { answer->returnError(error); });
  }

  // "later" leaves the question as it is.
  void order(const std::string& action, const std::string& said, const NoAnswer& answer) {
    const std::lock_guard lock(mutex_);
    if (questions_.count(action) == 0) {
      answer->returnError(notAsked(action));
    } else if (said == "later") {
      answer->returnResults();
    } else if (consents_.size() >= kMostOrders) {
      answer->returnError(refusal("TooMany", "Too many answers wait already. Try again."));
    } else {
      consents_.push_back({action, said == "yes", answer});
      ordered_.notify_all();
    }
  }

  std::string Version() override { return FW_FLEET_VERSION; }

  sdbus::IConnection& connection_;
  service::Access access_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable ordered_;
  std::string document_ = "{}";
  Questions questions_;
  std::list<Consenting> consents_;
  bool isPollWanted_ = false;
  bool isGone_ = false;
};

FleetBus::FleetBus(const std::string& address) try
    : connection_(connectTo(address)), state_(std::make_unique<State>(*connection_)) {
} catch (const sdbus::Error& error) {
  throw std::runtime_error("The bus cannot be served: " + error.getMessage() + ".");
}

FleetBus::~FleetBus() = default;

void FleetBus::tell(const Json::Value& status) {
  state_->tell(status);
}

bool FleetBus::takePollWish() {
  return state_->takePollWish();
}

void FleetBus::serve(std::chrono::milliseconds most, const Orders& orders) {
  state_->serve(most, orders);
}

}  // namespace fleet
