// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/tokens.h -- The secrets that let a viewer in.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qora::serve {

struct Tokens {
  std::string view;
  std::string control;
};

// 128 random bits in hexadecimal each. 1, or -1 with a line of words.
[[nodiscard]] int32_t makeTokens(Tokens& tokens, std::string& problem);

// The two that stand in a file, a line each; a file that is not there is made with new ones. One
// that others can read is refused. 1, or -1 with a line of words.
[[nodiscard]] int32_t keepTokens(const std::string& path, Tokens& tokens, std::string& problem);

// Whether a viewer's word is the token. Takes as long for any word of the token's length, so that
// nobody can feel a way towards it. Never true for an empty token.
bool matchesToken(std::string_view token, std::string_view word);

}  // namespace qora::serve
