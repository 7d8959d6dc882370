// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/serve_options.h"

#include "qora/tools/option_table.h"

namespace qora::serve {
namespace {

using tools::OptionTable;

constexpr char kAbout[] =
    R"(Shows a live X screen in browsers: open the address that it prints. Who has the
address sees the screen; nobody else does.)";
constexpr char kFooter[] =
    R"(Exit status: 0 stopped by a signal, 1 it failed, 2 the command line is wrong.)";

// Whether an address is reached from this machine only.
bool isLocal(const std::string& address) {
  return address.starts_with("127.") || address == "::1" || address == "localhost";
}

OptionTable tableFor(ServeOptions& options) {
  OptionTable table("qora-serve", "[options]", kAbout, kFooter);
  table.string(options.screen.display, {"display", 0, "NAME", "the X server (default: $DISPLAY)"});
  table.number(options.fps, {"fps", 0, "N", "pictures a second at most (default 30)"}, 1, 120);
  table.number(
      options.quality,
      {"quality", 0, "OFFSET", "quantizer offset of still parts, -12 (finest) to 44 (default 8)"},
      client::kFinestOffset, client::kCoarsestOffset);
  table.number(options.maxRate,
               {"max-rate", 0, "KBPS",
                "most that a viewer's line is given, 100 to 1000000\n(default 50000)"},
               100, 1'000'000);
  table.number(options.threads, {"threads", 0, "N", "encoder threads, 1 to 16 (default 1)"}, 1, 16);
  table.string(options.web.address, {"listen", 0, "ADDRESS",
                                     "address to be reached at (default 127.0.0.1: this machine);\n"
                                     "another one needs --cert, or --plain"});
  table.number(options.web.port, {"port", 0, "N", "port; 0: a free one (default)"}, 0, 65535);
  table.string(options.web.certificate,
               {"cert", 0, "FILE.pem", "certificate chain: serve by https"});
  table.string(options.web.key, {"key", 0, "FILE.pem", "the certificate's private key"});
  table.flag(options.plain, {"plain", 0, nullptr,
                             "serve without a certificate on an address that others reach:\n"
                             "they can read all of it on the way"});
  table.custom({"host", 0, "NAME[:PORT]",
                "a name that browsers reach it by, as behind a proxy; may be\n"
                "given several times"},
               [&options](const char* value) {
                 options.web.hosts.push_back(value);
                 return std::string(*value == '\0' ? "a name" : "");
               });
  table.number(options.web.connections, {"viewers", 0, "N", "at most, 1 to 256 (default 16)"}, 1,
               256);
  table.flag(options.control,
             {"control", 0, nullptr, "print a second address, whose viewer types and points"});
  table.string(options.tokens, {"tokens", 0, "FILE",
                                "keep the addresses' secrets in this file, so that they stay\n"
                                "good; it is made when it is not there"});
  tools::addServiceOptions(table, options.service);
  table.flag(options.service.sandbox,
             {"sandbox", 0, nullptr, "run the service under its system call filter"});
  return table;
}

// Empty when nothing is wrong.
std::string checkTogether(const std::vector<std::string>& operands, const ServeOptions& options) {
  if (!operands.empty()) return "'" + operands[0] + "' is no option";
  if (options.web.certificate.empty() != options.web.key.empty()) {
    return "--cert and --key go together";
  }
  if (!isLocal(options.web.address) && options.web.certificate.empty() && !options.plain) {
    return "--listen " + options.web.address + " needs --cert and --key, or --plain";
  }
  return "";
}

}  // namespace

int32_t parseServeOptions(int argc, char* const argv[], ServeOptions& options, std::string& text) {
  return tableFor(options).parse(
      argc, argv, text, [&](const auto& operands) { return checkTogether(operands, options); });
}

}  // namespace qora::serve
