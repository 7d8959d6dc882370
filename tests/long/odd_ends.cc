// The lines that no parent can bring about through the service's commands: one a run, by name.
#include <cstdio>
#include <cstring>
#include <fstream>

#include "qora/base/logger.h"
#include "qora/encoder/encoder_api.h"
#include "qora/encoder/fill_parameters.h"
#include "qora/service/fatal.h"
#include "qora/service/loop.h"

namespace {

using qora::encoder::FillParameters;

bool everyBuildIsUnknown = false;
bool noQuantizerIsKnown = false;
FillParameters realFiller = nullptr;

const FillParameters forgetQuantizer = [](auto... arguments) {
  qora::encoder::encoderApi().x264_encoder_get_last_quantizer = nullptr;
  return realFiller(arguments...);
};

struct End {
  const char* name;
  int (*run)();
};

constexpr End kEnds[] = {
    {"option",
     [] {
       qora::service::fatalOption("width", nullptr, "A");
       return 0;
     }},
    {"option value",
     [] {
       qora::service::fatalOptionValue("width", "many");
       return 0;
     }},
    {"library without a path", [] { return qora::encoder::resolveEncoderApi() == -1 ? 0 : 1; }},
    {"unknown build",
     [] {
       everyBuildIsUnknown = true;
       return qora::service::runService();
     }},
    {"no quantizer",
     [] {
       noQuantizerIsKnown = true;
       return qora::service::runService();
     }},
    {"error file",
     [] {
       qora::logger().configurable = 1;
       return qora::logger().setErrorFile("/dev", "stderr") == 1 ? 0 : 1;
     }},
    {"error stream",
     [] {
       qora::logger().configurable = 1;
       return qora::logger().setErrorStream(new std::ofstream("/dev/stderr")) == 1 ? 0 : 1;
     }},
};

}  // namespace

// The linker sends the encoder layer's calls here, see CMakeLists.txt: a build that is probed but
// has no layout, and an encoder that does not tell its quantizer, cannot be had otherwise.
extern "C" {
FillParameters realFillParametersFor(int32_t build) asm(
    "__real__ZN4qora7encoder17fillParametersForEi");
FillParameters wrappedFillParametersFor(int32_t build) asm(
    "__wrap__ZN4qora7encoder17fillParametersForEi");
FillParameters wrappedFillParametersFor(int32_t build) {
  realFiller = everyBuildIsUnknown ? nullptr : realFillParametersFor(build);
  return noQuantizerIsKnown ? forgetQuantizer : realFiller;
}
}

int main(int count, char** arguments) {
  for (const End& end : kEnds) {
    if (count == 2 && strcmp(end.name, arguments[1]) == 0) return end.run();
  }
  fprintf(stderr, "odd_ends: no such end\n");
  return 64;
}
