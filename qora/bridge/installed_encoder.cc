// SPDX-License-Identifier: GPL-2.0-or-later
#include "qora/bridge/installed_encoder.h"

#include <dlfcn.h>
#include <pthread.h>
#include <strings.h>
#include <x264.h>

#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "qora/bridge/diagnostics.h"

// Quotes a macro's value: the header's build number, and the open function's versioned name.
#define QORA_QUOTE_TEXT(text) #text
#define QORA_QUOTE(macro) QORA_QUOTE_TEXT(macro)

namespace qora::bridge {
namespace {

using encoder::ParamField;

constexpr char kLibraryName[] = "libx264.so." QORA_QUOTE(X264_BUILD);

// Callers' pictures and NAL units are handed over as they are.
#define QORA_SAME_PLACE(record, field) \
  (offsetof(encoder::record, field) == offsetof(::record, field))
static_assert(sizeof(encoder::x264_nal_t) == sizeof(::x264_nal_t) &&
              QORA_SAME_PLACE(x264_nal_t, i_ref_idc) && QORA_SAME_PLACE(x264_nal_t, i_type) &&
              QORA_SAME_PLACE(x264_nal_t, i_payload) && QORA_SAME_PLACE(x264_nal_t, p_payload) &&
              QORA_SAME_PLACE(x264_nal_t, i_padding));
static_assert(sizeof(encoder::x264_image_t) == sizeof(::x264_image_t) &&
              QORA_SAME_PLACE(x264_image_t, i_csp) && QORA_SAME_PLACE(x264_image_t, i_plane) &&
              QORA_SAME_PLACE(x264_image_t, i_stride) && QORA_SAME_PLACE(x264_image_t, plane));
static_assert(sizeof(encoder::x264_image_properties_t) == sizeof(::x264_image_properties_t) &&
              QORA_SAME_PLACE(x264_image_properties_t, quant_offsets) &&
              QORA_SAME_PLACE(x264_image_properties_t, quant_offsets_free) &&
              QORA_SAME_PLACE(x264_image_properties_t, mb_info) &&
              QORA_SAME_PLACE(x264_image_properties_t, mb_info_free) &&
              QORA_SAME_PLACE(x264_image_properties_t, f_crf_avg));
static_assert(
    sizeof(encoder::x264_picture_t) == sizeof(::x264_picture_t) &&
    QORA_SAME_PLACE(x264_picture_t, i_type) && QORA_SAME_PLACE(x264_picture_t, i_qpplus1) &&
    QORA_SAME_PLACE(x264_picture_t, i_pic_struct) && QORA_SAME_PLACE(x264_picture_t, b_keyframe) &&
    QORA_SAME_PLACE(x264_picture_t, i_pts) && QORA_SAME_PLACE(x264_picture_t, i_dts) &&
    QORA_SAME_PLACE(x264_picture_t, param) && QORA_SAME_PLACE(x264_picture_t, img) &&
    QORA_SAME_PLACE(x264_picture_t, prop) && QORA_SAME_PLACE(x264_picture_t, hrd_timing) &&
    QORA_SAME_PLACE(x264_picture_t, extra_sei) && QORA_SAME_PLACE(x264_picture_t, opaque));

// A picture starts from zeros, without a call into the library.
static_assert(X264_TYPE_AUTO == 0 && X264_QP_AUTO == 0 && PIC_STRUCT_AUTO == 0);

struct InstalledField {
  size_t offset, size;  // bytes, in the installed build's parameter block
};
#define QORA_FIELD(name) \
  { offsetof(::x264_param_t, name), sizeof(::x264_param_t::name) }
constexpr InstalledField kInstalledFields[] = {
    QORA_FIELD(i_threads),        QORA_FIELD(i_width),
    QORA_FIELD(i_height),         QORA_FIELD(i_csp),
    QORA_FIELD(i_keyint_max),     QORA_FIELD(i_scenecut_threshold),
    QORA_FIELD(i_log_level),      QORA_FIELD(analyse.b_mb_info),
    QORA_FIELD(rc.i_rc_method),   QORA_FIELD(rc.i_qp_min),
    QORA_FIELD(rc.i_qp_max),      QORA_FIELD(rc.i_bitrate),
    QORA_FIELD(rc.f_rf_constant), QORA_FIELD(rc.f_rate_tolerance),
    QORA_FIELD(rc.i_aq_mode),     QORA_FIELD(rc.f_qcompress),
    QORA_FIELD(b_annexb),         QORA_FIELD(i_fps_num),
    QORA_FIELD(i_fps_den),
};

// The fields stand in the block's order in every build, so a swapped row shows.
constexpr bool installedFieldsFit() {
  for (size_t field = 0; field < std::size(kInstalledFields); ++field) {
    if (kInstalledFields[field].size != sizeof(uint32_t)) return false;
    if (field > 0 && kInstalledFields[field].offset <= kInstalledFields[field - 1].offset)
      return false;
  }
  return std::size(kInstalledFields) == encoder::kParamFieldCount;
}
static_assert(installedFieldsFit());

// Later builds put formats between the old ones. Their header's names stand on the right, so the
// table fits whichever build is installed; its new formats have no number in build 142.
struct ColourSpace {
  int32_t legacy, installed;
};
constexpr ColourSpace kColourSpaces[] = {
    {encoder::kCspI420, X264_CSP_I420},
    {2, X264_CSP_YV12},
    {encoder::kCspNv12, X264_CSP_NV12},
    {4, X264_CSP_I422},
    {5, X264_CSP_YV16},
    {6, X264_CSP_NV16},
    {7, X264_CSP_V210},
    {8, X264_CSP_I444},
    {9, X264_CSP_YV24},
    {10, X264_CSP_BGR},
    {11, X264_CSP_BGRA},
    {12, X264_CSP_RGB},
};

// The bits outside the mask (upside down, 16 bits a sample) mean the same in both. A number that
// is in no row becomes "none", which the library refuses by itself.
int32_t translateColourSpace(int32_t value, int32_t ColourSpace::*from, int32_t ColourSpace::*to) {
  for (const ColourSpace& row : kColourSpaces) {
    if (row.*from == (value & X264_CSP_MASK)) return row.*to | (value & ~X264_CSP_MASK);
  }
  return X264_CSP_NONE;
}

int32_t installedColourSpace(int32_t legacy) {
  return translateColourSpace(legacy, &ColourSpace::legacy, &ColourSpace::installed);
}

int32_t legacyColourSpace(int32_t installed) {
  return translateColourSpace(installed, &ColourSpace::installed, &ColourSpace::legacy);
}

uint32_t& colourSpaceOf(ParamValues& values) {
  return values[static_cast<size_t>(ParamField::colourSpace)];
}

void storeValues(ParamValues values, ::x264_param_t& param) {
  colourSpaceOf(values) =
      static_cast<uint32_t>(installedColourSpace(static_cast<int32_t>(colourSpaceOf(values))));
  for (size_t field = 0; field < values.size(); ++field) {
    memcpy(reinterpret_cast<uint8_t*>(&param) + kInstalledFields[field].offset, &values[field],
           sizeof(uint32_t));
  }
}

ParamValues loadValues(const ::x264_param_t& param) {
  ParamValues values;
  for (size_t field = 0; field < values.size(); ++field) {
    memcpy(&values[field],
           reinterpret_cast<const uint8_t*>(&param) + kInstalledFields[field].offset,
           sizeof(uint32_t));
  }
  colourSpaceOf(values) =
      static_cast<uint32_t>(legacyColourSpace(static_cast<int32_t>(colourSpaceOf(values))));
  return values;
}

struct Library {
  decltype(&::x264_param_default_preset) defaultPreset;
  decltype(&::x264_param_apply_profile) applyProfile;
  decltype(&::x264_encoder_open) open;
  decltype(&::x264_encoder_close) close;
  decltype(&::x264_encoder_reconfig) reconfig;
  decltype(&::x264_encoder_parameters) parameters;
  decltype(&::x264_encoder_encode) encode;
  decltype(&::x264_encoder_invalidate_reference) invalidateReference;
};

// Whether `address` lies in the bridge itself. Names are no help: ours are the library's.
bool leadsBack(const void* address) {
  Dl_info ours, theirs;
  return dladdr(kLibraryName, &ours) != 0 && dladdr(address, &theirs) != 0 &&
         ours.dli_fbase == theirs.dli_fbase;
}

template <typename Function>
bool resolve(void* handle, const char* name, Function*& function) {
  void* address = dlsym(handle, name);
  if (address == nullptr) {
    complain("%s has no function '%s'", kLibraryName, name);
    return false;
  }
  if (leadsBack(address)) {
    complain("%s leads back to the bridge itself (function '%s')", kLibraryName, name);
    return false;
  }
  function = reinterpret_cast<Function*>(address);
  return true;
}

bool load(Library& library) {
  // Never closed: an encoder's worker threads may outlive the bridge's own unloading.
  void* handle = dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (handle == nullptr) {
    complain("cannot open %s: %s", kLibraryName, dlerror());
    return false;
  }
  return resolve(handle, "x264_param_default_preset", library.defaultPreset) &&
         resolve(handle, "x264_param_apply_profile", library.applyProfile) &&
         resolve(handle, QORA_QUOTE(x264_encoder_open), library.open) &&
         resolve(handle, "x264_encoder_close", library.close) &&
         resolve(handle, "x264_encoder_reconfig", library.reconfig) &&
         resolve(handle, "x264_encoder_parameters", library.parameters) &&
         resolve(handle, "x264_encoder_encode", library.encode) &&
         resolve(handle, "x264_encoder_invalidate_reference", library.invalidateReference);
}

// Null with a line when the library cannot be used; the next call tries again.
const Library* installedLibrary() {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  static Library library;
  static bool loaded = false;
  pthread_mutex_lock(&mutex);
  loaded = loaded || load(library);
  const bool usable = loaded;
  pthread_mutex_unlock(&mutex);
  return usable ? &library : nullptr;
}

// The installed build's whole block: its own preset and tune, the caller's values, its own profile.
int32_t rebuild(const Library& library, const LegacyParams& params, ::x264_param_t& param) {
  const Recipe& recipe = params.recipe;
  const int32_t result = library.defaultPreset(&param, recipe.preset.get(), recipe.tune.get());
  if (result < 0) return result;
  storeValues(params.values, param);
  return library.applyProfile(&param, recipe.profile.get());
}

// Place in the library's list, which runs from the strictest profile to the loosest.
size_t profileRank(const char* name) {
  size_t rank = 0;
  while (x264_profile_names[rank] != nullptr && strcasecmp(x264_profile_names[rank], name) != 0) {
    ++rank;
  }
  return rank;
}

}  // namespace

struct OpenEncoder {
  const Library* library;
  ::x264_t* encoder;
  Recipe recipe;
  int32_t lastQuantizer;
};

int32_t presetValues(const Recipe& recipe, ParamValues& values) {
  const Library* library = installedLibrary();
  if (library == nullptr) return -1;
  ::x264_param_t param;
  const int32_t result = library->defaultPreset(&param, recipe.preset.get(), recipe.tune.get());
  if (result >= 0) values = loadValues(param);
  return result;
}

int32_t applyProfile(LegacyParams& params, const char* profile) {
  const Library* library = installedLibrary();
  if (library == nullptr) return -1;
  ::x264_param_t param;
  int32_t result = rebuild(*library, params, param);
  if (result < 0) return result;
  result = library->applyProfile(&param, profile);
  if (result < 0 || profile == nullptr) return result;
  params.values = loadValues(param);
  // A profile only takes features away, so of two the stricter one is what counts.
  auto& kept = params.recipe.profile;
  if (kept.given != 0 && profileRank(kept.text) <= profileRank(profile)) return result;
  return kept.set(profile) == -1 ? -1 : result;
}

OpenEncoder* openEncoder(const LegacyParams& params) {
  const Library* library = installedLibrary();
  ::x264_param_t param;
  if (library == nullptr || rebuild(*library, params, param) < 0) return nullptr;
  auto* opened = static_cast<OpenEncoder*>(malloc(sizeof(OpenEncoder)));
  if (opened == nullptr) {
    complain("no memory for an encoder handle");
    return nullptr;
  }
  *opened = {library, library->open(&param), params.recipe, -1};
  if (opened->encoder == nullptr) {
    free(opened);
    return nullptr;
  }
  return opened;
}

void closeEncoder(OpenEncoder* opened) {
  assert(opened != nullptr);
  opened->library->close(opened->encoder);
  free(opened);
}

int32_t reconfigureEncoder(OpenEncoder& opened, const LegacyParams& params) {
  ::x264_param_t param;
  int32_t result = rebuild(*opened.library, params, param);
  if (result < 0) return result;
  result = opened.library->reconfig(opened.encoder, &param);
  if (result >= 0) opened.recipe = params.recipe;
  return result;
}

LegacyParams currentParams(const OpenEncoder& opened) {
  ::x264_param_t param;
  opened.library->parameters(opened.encoder, &param);
  return {opened.recipe, loadValues(param)};
}

int32_t encodePicture(OpenEncoder& opened, encoder::x264_nal_t** nals, int* count,
                      const encoder::x264_picture_t* picture, encoder::x264_picture_t* produced) {
  assert(nals != nullptr && count != nullptr && produced != nullptr);
  // The caller's picture is reused from frame to frame: translate a copy.
  ::x264_picture_t input;
  if (picture != nullptr) {
    memcpy(&input, picture, sizeof(input));
    input.param = nullptr;
    input.img.i_csp = installedColourSpace(input.img.i_csp);
  }
  // The library fills `produced` only when a picture comes out. Until then its colour space is
  // already a translated one.
  constexpr int32_t kNotFilled = -1;
  const int32_t previous = produced->img.i_csp;
  produced->img.i_csp = kNotFilled;
  const int32_t result = opened.library->encode(
      opened.encoder, reinterpret_cast<::x264_nal_t**>(nals), count,
      picture != nullptr ? &input : nullptr, reinterpret_cast<::x264_picture_t*>(produced));
  if (produced->img.i_csp == kNotFilled) {
    produced->img.i_csp = previous;
  } else {
    produced->img.i_csp = legacyColourSpace(produced->img.i_csp);
    opened.lastQuantizer = produced->i_qpplus1 - 1;
  }
  return result;
}

int32_t invalidateReference(OpenEncoder& opened, int64_t pts) {
  return opened.library->invalidateReference(opened.encoder, pts);
}

int32_t lastQuantizer(const OpenEncoder& opened) {
  return opened.lastQuantizer;
}

}  // namespace qora::bridge
