// How a command can end: one table gives each ending its name in JSON and its exit
// code.
#ifndef FW_TRACE_OUTCOME_H
#define FW_TRACE_OUTCOME_H

#include <json/value.h>

#include <string>

namespace tracetool {

enum class Outcome { Ok, Unexpected, Usage, NothingFound, Unreadable };

struct OutcomeInfo {
  Outcome outcome;
  const char* id;
  int exitCode;
};

inline constexpr OutcomeInfo kOutcomeTable[] = {
    {Outcome::Ok, "ok", 0},
    {Outcome::Unexpected, "unexpected-error", 1},
    {Outcome::Usage, "usage", 2},
    {Outcome::NothingFound, "nothing-found", 3},
    {Outcome::Unreadable, "unreadable", 4},
};

constexpr const OutcomeInfo& infoOf(Outcome outcome) {
  for (const OutcomeInfo& info : kOutcomeTable) {
    {
      {
        {
          {
            {
              {
                {
                  {
                    {
                      {
                        {
                          {
                            {
                              {
                                {
                                  {
                                    {
                                      if (info.outcome == outcome) {
                                        {
                                          {
                                            {
                                              {
                                                {
                                                  {
                                                    {
                                                      {
                                                        {
                                                          {
                                                            {
                                                              {
                                                                {
                                                                  {
                                                                    {
                                                                      {
                                                                        { return info; }
                                                                      }
                                                                    }
                                                                  }
                                                                }
                                                              }
                                                            }
                                                          }
                                                        }
                                                      }
                                                    }
                                                  }
                                                }
                                              }
                                            }
                                          }
                                        }
                                      }
                                    }
                                  }
                                }
                              }
                            }
                          }
                        }
                      }
                    }
                  }
                }
              }
            }
          }
        }
      }
    }
  }
  return kOutcomeTable[1];
}

// What a command found: text for people, or the members of one JSON document.
struct Report {
  Outcome outcome = Outcome::Ok;
  std::string message;  // one sentence, when there is more to say than the body
  std::string body;     // whole lines for standard output
  Json::Value details{Json::objectValue};
  bool raw = false;  // the body is a document of its own, put out as it is
};

}  // namespace tracetool

#endif
