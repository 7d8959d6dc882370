// SPDX-License-Identifier: BSD-2-Clause
// qora/base/string.h -- Heap texts owned through a slot, tests on texts, and texts of addresses and
// times. A slot is a char* variable, null or the owner of a NUL-terminated array: an operation that
// stores into it deletes the array that was there (delete[]), unless it says otherwise, and never
// shares the new one. An argument may point into the slot's own array.
// A slot may hold null unless said otherwise; of the other pointers only those may be null for
// which null is named. Lengths and counts are bytes, not negative. Nothing fails but for memory:
// when there is none, the program is aborted. No state, any thread.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

namespace qora::string {

constexpr int32_t kBufferSize = 1024;    // of newBuffer() and newBufferFrom()
constexpr int32_t kDottedQuadSize = 16;  // "255.255.255.255" and its NUL
constexpr int32_t kCalendarSize = 26;    // what ctime_r may write
constexpr int32_t kClockSize = 17;       // "HH:MM:SS mmm.mmm" and its NUL

// Both overwrite the slot without looking at it: for slots that hold nothing yet.
// An empty text with room for 1023 characters; the second copies as many of `source`, which may be
// null, as fit.
void newBuffer(char*& slot);
void newBufferFrom(char*& slot, const char* source);
// An empty text in an array of `size` bytes, at least 1.
void newSizedBuffer(char*& slot, int32_t size);

// The first `length` characters of `source`, or all of it when it is shorter, in an array of
// length + 1 bytes; null for a null source. The second form gives the array to the caller.
void copyPrefix(char*& slot, const char* source, int32_t length);
[[nodiscard]] char* copyPrefix(const char* source, int32_t length);

// A copy of `source`, null for null; nothing happens when the slot holds that very pointer.
void assign(char*& slot, const char* source);
// The same for a slot that holds nothing yet, and as an array for the caller.
void assignFirst(char*& slot, const char* source);
[[nodiscard]] char* assign(const char* source);
void release(char*& slot);

// Appends up to four texts, null ones skipped; a slot that would come out empty stays as it is.
void append(char*& slot, const char* first, const char* second = nullptr,
            const char* third = nullptr, const char* fourth = nullptr);
// Appends `count` bytes and a NUL; nothing for null or 0.
void appendBytes(char*& slot, const void* data, int32_t count);

// Replaces every occurrence from left to right and returns their number; 0 keeps the array. An
// empty pattern occurs nowhere. The replacement may be empty.
int32_t replaceAll(char*& slot, const char* pattern, const char* replacement);
// 1 when the text began with `prefix`, which is now `replacement`; else 0.
int32_t replacePrefix(char*& slot, const char* prefix, const char* replacement);

void dottedQuadText(char*& slot, uint32_t address);
void calendarText(char*& slot, time_t time);
void clockText(char*& slot, const timeval& time);  // "HH:MM:SS mmm.mmm", local time

// "a.b.c.d" of the four bytes, lowest first: an address in network order reads as usual. Writes
// kDottedQuadSize bytes at most into `buffer` and returns it.
char* dottedQuad(char* buffer, uint32_t address);
// "Thu Jan  1 00:00:00 1970", local time, without a newline; empty for a time beyond the calendar.
// `buffer` has kCalendarSize bytes and is returned.
char* calendarTime(char* buffer, time_t time);

// Ends the text at its first character outside ASCII's printable ones and the separators 0x1D to
// 0x1F, and returns it; null stays null.
char* cutAtUnprintable(char* text);
// The text, or null when it does not begin with `prefix`.
const char* startsWith(const char* text, const char* prefix);
// Where the suffix begins in the text, or null.
const char* endsWith(const char* text, const char* suffix);
int32_t isAbsolutePath(const char* path);
// 1 when "../" begins the path or "/../" stands at index 3 or later, else 0.
int32_t hasParentReference(const char* path);

// Reads "<major>.<minor>.<patch>_<build>", each decimal, 0x hexadecimal or 0 octal, and returns
// how many were there; the others are -1.
int32_t parseVersion(const char* text, int32_t* major, int32_t* minor, int32_t* patch,
                     int32_t* build);

// Counts the bytes equal to `separator` and writes the count in a line on the log stream. The first
// byte is examined even when `length` is 0 or, here, negative; so there must be one.
int32_t countSeparators(const void* data, int32_t length, uint8_t separator);

}  // namespace qora::string
