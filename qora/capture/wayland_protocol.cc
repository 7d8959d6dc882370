// SPDX-License-Identifier: BSD-2-Clause
// The tables that wayland-scanner makes: C, which leaves to the header what is visible elsewhere.
#include <wlr-screencopy-client.h>

extern "C" {
#include <wlr-screencopy-code.h>
}
