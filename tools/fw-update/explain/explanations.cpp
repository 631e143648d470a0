// SPDX-License-Identifier: Apache-2.0
#include "explain/explanations.h"

#include <cctype>
#include <cstring>
#include <utility>

#include "fw-download/failure.h"
#include "fw-module/check/checks.h"
#include "history.h"
#include "library-messages.h"
#include "library/meaning-table.h"
#include "package-signature.h"
#include "service/document.h"
#include "usb/package-refusal.h"

namespace tool {
namespace {

struct MessageRow {
  const char* format;
  const char* means;
  const char* remedy;
};

struct SymptomRow {
  const char* seen;
  const char* because;
  const char* remedy;
};

struct OutcomeRow {
  const char* name;
  const char* exitCode;
  const char* means;
};

struct ReasonRow {
  const char* name;
  const char* when;
};

// The sentences as the programs put them together; … stands for names and numbers.
struct SentenceRow {
  frame::Ending ending;
  const char* sentence;
  const char* remedy;
};

struct FailureRow {
  fwdownload::Reason reason;
  const char* sentence;
};

#include "explanation-table.inc"

constexpr char kMessagesPage[] = "docs/troubleshooting.md";
constexpr char kSymptomsPage[] = "docs/symptoms.md";
constexpr char kCommandPage[] = "docs/fw-update.md";
constexpr char kDownloadPage[] = "docs/extension-packages.md";
constexpr char kHistoryPage[] = "docs/history.md";
constexpr char kPagesBegin[] = "docs/";
constexpr char kGap[] = "…";

struct Known {
  Explanation explanation;
  bool isWord = false;                 // a name that stands alone, in quotes or in brackets
  std::vector<std::string> gaps = {};  // the names of its gaps, for the remedy
};

void replaceAll(std::string& text, const std::string& what, const std::string& with) {
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
}

// "{module} failed: {0}" as "… failed: …"; the names in their order.
std::string withGaps(std::string sentence, std::vector<std::string>* names = nullptr) {
  for (auto open = sentence.find('{'); open != std::string::npos; open = sentence.find('{')) {
    const auto close = sentence.find('}', open);
    if (names != nullptr) {
      names->push_back(sentence.substr(open, close - open + 1));
    }
    sentence.replace(open, close - open + 1, kGap);
  }
  return sentence;
}

std::string ofMessage(const char* format) {
  if (std::strcmp(format, MESSAGE_TIMED_OUT) == 0) {
    return kGap + std::string(fwmessages::kTimedOutSuffix);
  }
  std::string pattern = format;
  for (const char* conversion : {"%s", "%d", "%m"}) {
    replaceAll(pattern, conversion, kGap);
  }
  while (!pattern.empty() && std::isspace(static_cast<unsigned char>(pattern.back())) != 0) {
    pattern.pop_back();
  }
  return pattern;
}

const char* meansOf(const char* format) {
  for (const MessageRow& row : kMessageRows) {
    if (std::strcmp(row.format, format) == 0) {
      return row.means;
    }
  }
  return "";
}

std::string sentence(std::string text) {
  if (text.rfind(kPagesBegin, 0) == 0) {
    text = "see " + text;
  }
  if (!text.empty() && text.rfind("fw-", 0) != 0) {
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  }
  return text.empty() || text.back() == '.' ? text : text + ".";
}

void addSymptoms(std::vector<Known>& known) {
  for (const SymptomRow& row : kSymptomRows) {
    known.push_back({{row.seen, sentence(row.because), sentence(row.remedy), kSymptomsPage}});
  }
}

void addMeanings(std::vector<Known>& known) {
  for (const Meaning& row : meaningTable()) {
    Known one;
    one.explanation = {withGaps(row.sentence, &one.gaps), meansOf(row.format), row.remedy, kMessagesPage};
    known.push_back(one);
  }
}

void addRefusals(std::vector<Known>& known) {
  for (const Refusal& row : refusalTable()) {
    const char* const verdict = fwpackage::infoOf(row.verdict).sentence;
    known.push_back({{withGaps(row.message), sentence(verdict), withGaps(row.remedy), "docs/security.md"}});
    known.push_back({{verdict, withGaps(row.message), withGaps(row.remedy), "docs/security.md"}});
  }
}

void addMessages(std::vector<Known>& known) {
  for (const MessageRow& row : kMessageRows) {
    known.push_back({{ofMessage(row.format), row.means, row.remedy, kMessagesPage}});
  }
}

void addChecks(std::vector<Known>& known) {
  for (const fwmodule::CheckInfo& row : fwmodule::kChecks) {
    known.push_back({{row.title, std::string("A check of fw-module: ") + row.title + ".", row.advice,
                      "docs/fw-module.md"}});
  }
}

std::string meansOf(const OutcomeRow& row) {
  return "The outcome with exit code " + std::string(row.exitCode) + ": " + row.means + ".";
}

// Of an outcome that has several rows the last: what none of the others covers.
std::string meansOf(frame::Ending ending) {
  std::string means;
  for (const OutcomeRow& row : kOutcomeRows) {
    if (std::strcmp(row.name, ending->id) == 0) {
      means = "It tells the outcome " + std::string(row.name) + ", exit code " + row.exitCode + ": " +
              row.means + ".";
    }
  }
  return means;
}

void addSentences(std::vector<Known>& known) {
  for (const SentenceRow& row : kSentenceRows) {
    known.push_back({{row.sentence, meansOf(row.ending), row.remedy, kCommandPage}});
  }
}

void addOutcomes(std::vector<Known>& known) {
  for (const OutcomeRow& row : kOutcomeRows) {
    known.push_back({{row.name, meansOf(row), "", kCommandPage}, true});
  }
}

// What ends an update without an outcome of the command.
void addEndsOfHistory(std::vector<Known>& known) {
  const history::Entry cutOff = history::interrupted({});
  const char* const means =
      "So the history calls an update whose process ended before the update did: it was killed, or the "
      "power went. The component may have the old firmware or the new one.";
  known.push_back({{cutOff.outcome, means, cutOff.remedy, kHistoryPage}, true});
  known.push_back(
      {{history::kRunning, "So the history calls an update that is not over yet.", "", kHistoryPage}, true});
}

std::string whyOf(const fwdownload::ReasonInfo& reason) {
  for (const ReasonRow& row : kReasonRows) {
    if (std::strcmp(row.name, reason.name) == 0) {
      return "A download failed, with the reason " + std::string(row.name) + ": " + row.when + ".";
    }
  }
  return "";
}

void addDownloads(std::vector<Known>& known) {
  for (const FailureRow& row : kFailureRows) {
    const fwdownload::ReasonInfo& reason = fwdownload::infoOf(row.reason);
    known.push_back({{row.sentence, whyOf(reason), reason.remedy, kDownloadPage}});
  }
  for (const fwdownload::ReasonInfo& row : fwdownload::kReasons) {
    known.push_back({{row.name, whyOf(row), row.remedy, kDownloadPage}, true});
  }
}

// Of lines that several tables know, the first counts.
std::vector<Known> allKnown() {
  std::vector<Known> known;
  for (const auto add : {addSymptoms, addMeanings, addRefusals, addMessages, addChecks, addEndsOfHistory,
                         addDownloads, addSentences, addOutcomes}) {
    add(known);
  }
  return known;
}

// What stands between the gaps, empty texts included.
std::vector<std::string> piecesOf(const std::string& pattern) {
  std::vector<std::string> pieces;
  std::size_t from = 0;
  for (auto gap = pattern.find(kGap); gap != std::string::npos; gap = pattern.find(kGap, from)) {
    pieces.push_back(pattern.substr(from, gap - from));
    from = gap + std::strlen(kGap);
  }
  pieces.push_back(pattern.substr(from));
  return pieces;
}

// What the line has in the gaps; nothing when the pattern is not in the line.
std::optional<std::vector<std::string>> match(const std::string& line,
                                              const std::vector<std::string>& pieces) {
  std::vector<std::string> values;
  std::size_t end = 0;
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    const bool isLast = i + 1 == pieces.size() && i > 0;
    const auto at = isLast && pieces[i].empty() ? line.size() : line.find(pieces[i], end);
    if (at == std::string::npos) {
      return std::nullopt;
    }
    if (i > 0) {
      values.push_back(line.substr(end, at - end));
    }
    end = at + pieces[i].size();
  }
  return values;
}

bool holdsWord(const std::string& line, const std::string& word) {
  return line == word || line.find("\"" + word + "\"") != std::string::npos ||
         line.find("(" + word + ")") != std::string::npos;
}

std::size_t lengthOf(const std::vector<std::string>& pieces) {
  std::size_t length = 0;
  for (const std::string& piece : pieces) {
    length += piece.size();
  }
  return length;
}

// The last word of "fw-update: libtuner" is the name.
std::string lastWord(const std::string& text) {
  const auto blank = text.find_last_of(' ');
  return blank == std::string::npos ? text : text.substr(blank + 1);
}

Explanation filled(const Known& known, const std::vector<std::string>& values) {
  Explanation explanation = known.explanation;
  for (std::size_t i = 0; i < known.gaps.size() && i < values.size(); ++i) {
    replaceAll(explanation.remedy, known.gaps[i], i == 0 ? lastWord(values[i]) : values[i]);
  }
  explanation.remedy = withGaps(explanation.remedy);
  return explanation;
}

}  // namespace

std::optional<Explanation> explain(const std::string& line) {
  std::optional<Explanation> best;
  std::size_t most = 0;
  for (const Known& known : allKnown()) {
    const auto pieces = piecesOf(known.explanation.pattern);
    const auto values = match(line, pieces);
    const std::size_t length = lengthOf(pieces);
    const bool counts = !known.isWord || holdsWord(line, known.explanation.pattern);
    if (values && counts && length > most) {
      most = length;
      best = filled(known, *values);
    }
  }
  return best;
}

std::vector<Explanation> allExplanations() {
  std::vector<Explanation> all;
  for (const Known& known : allKnown()) {
    all.push_back(filled(known, {}));
  }
  return all;
}

}  // namespace tool
