// SPDX-License-Identifier: Apache-2.0
#include "ddi-source.h"

namespace fleet {
namespace {

// As a part of an address.
std::string coded(const std::string& text) {
  std::string result;
  for (const char byte : text) {
    const bool isPlain = (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
                         (byte >= 'a' && byte <= 'z') || byte == '-' || byte == '_' || byte == '~';
    if (isPlain) {
      result += byte;
      continue;
    }
    const auto value = static_cast<unsigned char>(byte);
    result += '%';
    result += "0123456789ABCDEF"[value >> 4U];
    result += "0123456789ABCDEF"[value & 15U];
  }
  return result;
}

}  // namespace

DdiSource::DdiSource(const Configuration& configuration, const std::string& token)
    : base_(configuration.server + "/" + coded(configuration.tenant) + "/controller/v1/" +
            coded(configuration.controller)),
      client_(configuration, token) {}

template <typename Document>
Answered<Document> DdiSource::read(Asked asked, const std::string& address, std::size_t most,
                                   Document (*parse)(const std::string& text)) const {
  const Reply reply = client_.get(asked, address, most);
  Answered<Document> answered;
  answered.meaning = reply.meaning;
  answered.retryAfter = reply.retryAfter;
  answered.sentence = reply.sentence;
  if (reply.meaning != Meaning::Good) {
    return answered;
  }
  try {
    answered.document = parse(reply.body);
  } catch (const ddi::Unreadable& failure) {
    answered.meaning = Meaning::Later;
    answered.sentence = failure.what();
  }
  return answered;
}

Answered<ddi::Poll> DdiSource::poll() const {
  return read(Asked::Poll, base_, ddi::kLargestShortDocument, &ddi::parsePoll);
}

Answered<ddi::Deployment> DdiSource::deployment(const std::string& address) const {
  return read(Asked::Document, address, ddi::kLargestDocument, &ddi::parseDeployment);
}

Answered<ddi::Deployment> DdiSource::confirmation(const std::string& address) const {
  return read(Asked::Document, address, ddi::kLargestDocument, &ddi::parseConfirmation);
}

Answered<std::string> DdiSource::cancel(const std::string& address) const {
  return read(Asked::Document, address, ddi::kLargestShortDocument, &ddi::parseCancel);
}

Reply DdiSource::installed(const std::string& address) const {
  return client_.get(Asked::Document, address, ddi::kLargestDocument);
}

Reply DdiSource::attributes(const std::string& address,
                            const std::map<std::string, std::string>& attributes) const {
  const std::string text = ddi::attributesText(attributes);
  return text.empty() ? Reply{Meaning::Good, 0, "", std::nullopt, ""} : client_.tell("PUT", address, text);
}

std::string DdiSource::feedbackAddress(const char* what, const std::string& id) const {
  return base_ + "/" + what + "/" + coded(id) + "/feedback";
}

Reply DdiSource::tell(const std::string& id, const ddi::Feedback& feedback) const {
  return client_.tell("POST", feedbackAddress("deploymentBase", id), ddi::textOf(feedback));
}

Reply DdiSource::answerCancel(const std::string& id, const ddi::Feedback& feedback) const {
  return client_.tell("POST", feedbackAddress("cancelAction", id), ddi::textOf(feedback));
}

Reply DdiSource::confirm(const std::string& id, bool isConfirmed,
                         const std::vector<std::string>& details) const {
  return client_.tell("POST", feedbackAddress("confirmationBase", id),
                      ddi::confirmationText(isConfirmed, details));
}

}  // namespace fleet
