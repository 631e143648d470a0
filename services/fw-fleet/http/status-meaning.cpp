// SPDX-License-Identifier: Apache-2.0
#include "status-meaning.h"

#include <cstddef>

namespace fleet {
namespace {

// The first row that fits. Meanings by Asked.
constexpr struct {
  int first;
  int last;
  Meaning meanings[4];
} kRows[] = {
    // A part is an answer for an artifact alone.
    {206, 206, {Meaning::Later, Meaning::Later, Meaning::Later, Meaning::Good}},
    {204, 204, {Meaning::Later, Meaning::Later, Meaning::Good, Meaning::Later}},
    {201, 202, {Meaning::Later, Meaning::Later, Meaning::Good, Meaning::Later}},
    {200, 200, {Meaning::Good, Meaning::Good, Meaning::Good, Meaning::Good}},
    {304, 304, {Meaning::NotChanged, Meaning::NotChanged, Meaning::Later, Meaning::Later}},
    {401, 401, {Meaning::Refused, Meaning::Refused, Meaning::Refused, Meaning::Refused}},
    // To feedback, some servers say so that there was too much of it.
    {403, 403, {Meaning::Refused, Meaning::Refused, Meaning::Later, Meaning::Refused}},
    {404, 404, {Meaning::Later, Meaning::Gone, Meaning::Gone, Meaning::Missing}},
    {408, 409, {Meaning::Later, Meaning::Later, Meaning::Later, Meaning::Later}},
    {410, 410, {Meaning::Later, Meaning::Gone, Meaning::Gone, Meaning::Missing}},
    {412, 412, {Meaning::Mistake, Meaning::Mistake, Meaning::Mistake, Meaning::Changed}},
    {416, 416, {Meaning::Mistake, Meaning::Mistake, Meaning::Mistake, Meaning::Changed}},
    {425, 425, {Meaning::Later, Meaning::Later, Meaning::Later, Meaning::Later}},
    {429, 429, {Meaning::Later, Meaning::Later, Meaning::Later, Meaning::Later}},
    {400, 499, {Meaning::Mistake, Meaning::Mistake, Meaning::Mistake, Meaning::Mistake}},
};

}  // namespace

Meaning meaningOf(Asked asked, int status) {
  for (const auto& row : kRows) {
    if (status >= row.first && status <= row.last) {
      return row.meanings[static_cast<std::size_t>(asked)];
    }
  }
  return Meaning::Later;  // a server in trouble, or something between set and server
}

}  // namespace fleet
