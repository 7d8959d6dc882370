// SPDX-License-Identifier: BSD-2-Clause
// qora/base/options.h -- Single-letter command line options, one for each call:
//     resetOptions();
//     while ((option = parseOption(argc, argv, "ab:")) != -1) ...
// reads -a, -bVALUE and -b VALUE, also joined as -abVALUE, up to the first argument that is no
// option; optionState().index is then that argument's. One state for the process, not locked: one
// thread at a time.
#pragma once

#include <cstdint>

namespace qora::options {

struct OptionState {
  int32_t index = 1;               // of the argument that is read next
  int32_t printErrors = 1;         // 0: bad options print nothing
  int32_t option = 0;              // the character read last, good or bad
  const char* argument = nullptr;  // of the option read last, null when it takes none; a bad
                                   // option or a missing argument leaves the one before
  int32_t restart = 0;             // non-zero: the next call begins at `index` afresh
  const char* position = "";       // what is unread of the current argument
};
OptionState& optionState();

// Makes the next call begin a vector at its element 1. printErrors stays.
void resetOptions();

// `arguments` has `count` elements, the program's name first; none is null. `letters` are the
// options known; a ':' after one says that it takes an argument. Null letters know none: -1.
// Returns the option; '?' for an unknown one or a missing argument, after a line on standard error;
// -1 at the end. With a ':' in front of all letters nothing is printed and a missing argument gives
// ':'.
//
// An argument "--" ends the options and is stepped over; "--long" ends them too, but `index` stays
// on it and a further call would read its letters, so reset first. Only with '-' among the letters
// is it the options '-', 'l', 'o' and so on, and "-" alone the option '-'.
int32_t parseOption(int32_t count, char* const* arguments, const char* letters);

}  // namespace qora::options
