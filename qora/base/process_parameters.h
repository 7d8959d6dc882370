// SPDX-License-Identifier: BSD-2-Clause
// qora/base/process_parameters.h -- Parameter text: items key=value, joined by ",".
#pragma once

#include <cstdint>

namespace qora::process {

// No text may be null unless null is named.

// Inside a key or value "," "=" and the blank are stored as 0x1E, 0x1D and 0x1F. Both in place.
void escapeParameter(char* text);
void unescapeParameter(char* text);

// 1 for a text without "=" and "," that is shorter than `limit` bytes, else -1, also for null; a
// blank passes. Limit 0 means 1024, -1 any length; any other negative one lets nothing pass.
int32_t isValidParameterText(const char* text, int32_t limit);
// 1 when the key passes with limit 0 and the value with `limit`, else -1.
int32_t isValidParameter(const char* key, const char* value, int32_t limit);

// The decimal number that the text begins with, or -1 when it begins with no digit or the number
// does not fit.
int32_t parseCount(const char* text);

// 1 when the list item that begins at `position` is exactly the key, else 0; so a key that holds a
// "," is never one.
int32_t isItem(const char* position, const char* key);

// string::replacePrefix; 0 also when the prefix or the replacement is null or empty.
int32_t replaceParameterPrefix(char*& slot, const char* prefix, const char* replacement);

}  // namespace qora::process
