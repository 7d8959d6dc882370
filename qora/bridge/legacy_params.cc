// SPDX-License-Identifier: GPL-2.0-or-later
#include "qora/bridge/legacy_params.h"

#include <cassert>
#include <type_traits>

namespace qora::bridge {
namespace {

// Lies after the last field that callers know.
struct Note {
  uint32_t magic;
  Recipe recipe;
};
constexpr uint32_t kMagic = 0x51425231;
constexpr size_t kNoteOffset = kLegacyLayout.at(encoder::ParamField::fpsDen) + sizeof(uint32_t);
static_assert(kNoteOffset + sizeof(Note) <= kLegacyBlockSize);
static_assert(std::is_trivially_copyable_v<Note>);

// A block comes from outside: a text in it may be damaged.
template <size_t Size>
bool terminated(const KeptName<Size>& name) {
  return memchr(name.text, '\0', sizeof(name.text)) != nullptr;
}

}  // namespace

void storeLegacyParams(const LegacyParams& params, void* block) {
  clearLegacyParams(block);
  auto* bytes = static_cast<uint8_t*>(block);
  for (size_t field = 0; field < params.values.size(); ++field) {
    memcpy(bytes + kLegacyLayout.offset[field], &params.values[field], sizeof(uint32_t));
  }
  const Note note = {kMagic, params.recipe};
  memcpy(bytes + kNoteOffset, &note, sizeof(note));
}

int32_t loadLegacyParams(const void* block, LegacyParams& params) {
  if (block == nullptr) return 0;
  const auto* bytes = static_cast<const uint8_t*>(block);
  Note note;
  memcpy(&note, bytes + kNoteOffset, sizeof(note));
  if (note.magic != kMagic || !terminated(note.recipe.preset) || !terminated(note.recipe.tune) ||
      !terminated(note.recipe.profile)) {
    return 0;
  }
  params.recipe = note.recipe;
  for (size_t field = 0; field < params.values.size(); ++field) {
    memcpy(&params.values[field], bytes + kLegacyLayout.offset[field], sizeof(uint32_t));
  }
  return 1;
}

void clearLegacyParams(void* block) {
  assert(block != nullptr);
  memset(block, 0, kLegacyBlockSize);
}

}  // namespace qora::bridge
