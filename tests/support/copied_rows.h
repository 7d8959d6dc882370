// SPDX-License-Identifier: BSD-2-Clause
// tests/support/copied_rows.h -- What a region copy moves, row by row: what copyRegion() and the
// decoder's own copies are held against.
#pragma once

#include "qora/service/wire/messages.h"

namespace qora::test {

// Calls moveRow(plane, fromX, fromY, toX, toY, bytes) for every row; plane 1 is interleaved chroma.
template <typename MoveRow>
void forCopiedRows(const service::RegionCopy& copy, const MoveRow& moveRow) {
  for (int row = 0; row < copy.height; ++row) {
    moveRow(0, copy.sourceX, copy.sourceY + row, copy.destinationX, copy.destinationY + row,
            copy.width);
  }
  const int right = (copy.flags & 4) != 0 ? 2 : 0;
  const int down = (copy.flags & 2) != 0 ? 2 : 0;
  for (int row = 0; row < copy.height / 2; ++row) {
    moveRow(1, (copy.sourceX + right) / 2 * 2, (copy.sourceY + down) / 2 + row,
            copy.destinationX / 2 * 2, copy.destinationY / 2 + row, (copy.width + 1) / 2 * 2);
  }
}

}  // namespace qora::test
