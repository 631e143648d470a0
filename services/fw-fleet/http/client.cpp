// SPDX-License-Identifier: Apache-2.0
#include "client.h"

#include <ctime>
#include <utility>

#include "documents.h"
#include "schedule.h"
#include "trouble.h"
#include "url.h"

namespace fleet {
namespace {

// A document is small; a server that gives it byte by byte is not waited for any longer.
constexpr long kDocumentSeconds = 120;

class IntoText : public transfer::Receiver {
 public:
  explicit IntoText(std::size_t most) : most_(static_cast<std::int64_t>(most)) {}

  void begin(const transfer::Response& response) override { require(response.length); }
  void take(const char* bytes, std::size_t count) override {
    require(static_cast<std::int64_t>(text.size() + count));
    text.append(bytes, count);
  }

  std::string text;

 private:
  void require(std::int64_t size) const {
    if (size > most_) {
      throw transfer::Failure(transfer::Trouble::TooMuch,
                              "The server's answer is larger than any document of its.");
    }
  }

  const std::int64_t most_;
};

// By TokenType.
constexpr const char* kTokenNames[] = {"", "TargetToken ", "GatewayToken "};

std::string sentenceOf(const Reply& reply, const std::string& address) {
  switch (reply.meaning) {
    case Meaning::Good:
      return "";
    case Meaning::Refused:
      return "The server does not know this set: it answered " + std::to_string(reply.status) + ".";
    default:
      return "The server answered " + std::to_string(reply.status) + " to " + transfer::shown(address) + ".";
  }
}

}  // namespace

std::string refusalOf(const std::string& address, const Configuration& configuration) {
  const auto url = transfer::parseUrl(address);
  if (url && url->scheme == "https") {
    return "";
  }
  const auto server = transfer::parseUrl(configuration.server);
  const bool isAllowed = configuration.allowInsecure && server && server->scheme == "http";
  if (url && url->scheme == "http" && isAllowed) {
    return "";
  }
  return "The connection to " + transfer::shown(address) + " is not protected.";
}

transfer::Connection connectionTo(const std::string& address, const Configuration& configuration) {
  transfer::Connection connection;
  connection.userAgent = "fw-fleet";
  connection.caFile = configuration.caFile;
  connection.minimumSpeed = 1;
  connection.stallTimeoutSeconds = configuration.stallSeconds;
  if (transfer::sameServer(address, configuration.server)) {
    connection.clientCertificate = configuration.clientCertificate;
    connection.clientKey = configuration.clientKey;
  }
  return connection;
}

transfer::Request requestTo(const std::string& address, const Configuration& configuration,
                            const std::string& token) {
  transfer::Request request;
  request.url = address;
  if (configuration.tokenType != TokenType::None && transfer::sameServer(address, configuration.server)) {
    const char* const name = kTokenNames[static_cast<std::size_t>(configuration.tokenType)];
    request.headers.push_back("Authorization: " + (name + token));
  }
  return request;
}

Client::Client(Configuration configuration, std::string token)
    : configuration_(std::move(configuration)), token_(std::move(token)) {}

Reply Client::get(Asked asked, const std::string& address, std::size_t most) const {
  transfer::Request request = requestTo(address, configuration_, token_);
  request.headers.emplace_back("Accept: application/json, application/hal+json");
  return perform(asked, std::move(request), most);
}

Reply Client::tell(const char* method, const std::string& address, const std::string& body) const {
  transfer::Request request = requestTo(address, configuration_, token_);
  request.method = method;
  request.body = body;
  request.headers.emplace_back("Content-Type: application/json");
  request.headers.emplace_back("Accept: application/json, application/hal+json");
  request.headers.emplace_back("Expect:");
  return perform(Asked::Feedback, std::move(request), ddi::kLargestDocument);
}

Reply Client::perform(Asked asked, transfer::Request request, std::size_t most) const {
  Reply reply;
  reply.sentence = refusalOf(request.url, configuration_);
  if (!reply.sentence.empty()) {
    return reply;
  }
  request.what = "answer";
  transfer::Connection connection = connectionTo(request.url, configuration_);
  connection.timeoutSeconds = kDocumentSeconds;
  IntoText receiver(most);
  try {
    const transfer::Answer answer = transfer::perform(request, connection, receiver);
    reply.status = answer.code;
    reply.meaning = meaningOf(asked, answer.code);
    reply.retryAfter = parseRetryAfter(answer.response.retryAfter, std::time(nullptr));
    reply.body = std::move(receiver.text);
    reply.sentence = sentenceOf(reply, request.url);
  } catch (const transfer::Failure& failure) {
    reply.sentence = failure.what();
  }
  return reply;
}

}  // namespace fleet
