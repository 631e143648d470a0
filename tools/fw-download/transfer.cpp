// SPDX-License-Identifier: Apache-2.0
#include "transfer.h"

#include "failure.h"
#include "trouble.h"
#include "url.h"

namespace fwdownload {
namespace {

using transfer::Trouble;

constexpr struct {
  Trouble trouble;
  Reason reason;
} kReasonsOfTroubles[] = {
    {Trouble::Address, Reason::Configuration},   {Trouble::Unreachable, Reason::Unreachable},
    {Trouble::Certificate, Reason::Certificate}, {Trouble::NotFound, Reason::NotFound},
    {Trouble::Incomplete, Reason::Incomplete},   {Trouble::Stalled, Reason::Stalled},
    {Trouble::TooSlow, Reason::TooSlow},         {Trouble::TooMuch, Reason::TooMuch},
    {Trouble::Protocol, Reason::Protocol},
};

Reason reasonOf(Trouble trouble) {
  for (const auto& row : kReasonsOfTroubles) {
    if (row.trouble == trouble) {
      return row.reason;
    }
  }
  return Reason::Internal;
}

transfer::Connection connectionOf(const Configuration& configuration) {
  transfer::Connection connection;
  connection.userAgent = "fw-download";
  connection.protocols = "https,http,file";
  connection.caFile = configuration.caFile;
  connection.connectTimeoutSeconds = configuration.connectTimeoutSeconds;
  connection.stallTimeoutSeconds = configuration.stallTimeoutSeconds;
  connection.minimumSpeed = configuration.minimumSpeed;
  return connection;
}

// A server that was redirected to does not get user and password.
transfer::Request requestOf(const Request& wanted, const Configuration& configuration) {
  transfer::Request request;
  request.url = wanted.url;
  if (wanted.first > 0) {
    request.headers = {"Range: bytes=" + std::to_string(wanted.first) + "-", "If-Range: " + wanted.validator};
  }
  if (transfer::sameServer(wanted.url, configuration.url)) {
    request.user = configuration.user;
    request.password = configuration.password;
  }
  return request;
}

}  // namespace

Answer perform(const Request& request, const Configuration& configuration, Receiver& receiver) {
  try {
    return transfer::perform(requestOf(request, configuration), connectionOf(configuration), receiver);
  } catch (const transfer::Failure& failure) {
    throw Failure(reasonOf(failure.trouble()), failure.what());
  }
}

}  // namespace fwdownload
