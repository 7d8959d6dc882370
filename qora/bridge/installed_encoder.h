// SPDX-License-Identifier: GPL-2.0-or-later
// qora/bridge/installed_encoder.h -- Drives the encoder library that the machine has.
//
// The library is opened at the first call that needs it, by the versioned name of the header that
// the bridge was built with, and stays for the life of the process. Every parameter block of the
// installed build lives inside one call; what crosses are 19 values by name, never CPU flags and
// never pointers. Results are the library's own unless a function says otherwise: 0 or a count,
// negative for a failure, which it reports on standard error itself.
// Threads: as the library has it. Any thread may call; one encoder serves one thread at a time.
#pragma once

#include <cstdint>

#include "qora/bridge/legacy_params.h"
#include "qora/encoder/abi/x264_abi.h"

namespace qora::bridge {

// An open encoder of the installed library and what the bridge keeps beside it; see openEncoder().
struct OpenEncoder;

// The values that the recipe's preset and tune give. -1 with a line when there is no library.
[[nodiscard]] int32_t presetValues(const Recipe& recipe, ParamValues& values);
// Applies `profile` to `params`, which then remember the stricter of it and an earlier one.
[[nodiscard]] int32_t applyProfile(LegacyParams& params, const char* profile);

// Null when the library refuses the parameters. closeEncoder() frees it; it is not null there.
[[nodiscard]] OpenEncoder* openEncoder(const LegacyParams& params);
void closeEncoder(OpenEncoder* opened);
[[nodiscard]] int32_t reconfigureEncoder(OpenEncoder& opened, const LegacyParams& params);
// The parameters as the encoder uses them now, under the recipe that it was last given.
LegacyParams currentParams(const OpenEncoder& opened);

// Encodes one picture; null drains delayed ones. The other pointers are not null. A `param` block
// of the picture is not passed on. Allocates nothing. Returns the bytes in `nals`, which stay the
// encoder's; 0 when none came out, and then `produced` keeps what it held but for its type.
[[nodiscard]] int32_t encodePicture(OpenEncoder& opened, encoder::x264_nal_t** nals, int* count,
                                    const encoder::x264_picture_t* picture,
                                    encoder::x264_picture_t* produced);
[[nodiscard]] int32_t invalidateReference(OpenEncoder& opened, int64_t pts);
// Quantizer of the last picture that came out; -1 before the first.
[[nodiscard]] int32_t lastQuantizer(const OpenEncoder& opened);

}  // namespace qora::bridge
