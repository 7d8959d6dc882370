// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/option_table.h -- The options of a program: one table that the command line is read
// by, and that --help and the shells' completions are made from.
//
//     OptionTable table("qora-encode", "[options] INPUT -o OUTPUT", "Encodes a clip ...");
//     table.number(options.bitrate, {"bitrate", 0, "KBPS", "average bitrate"}, 1, 65535);
//     table.flag(options.quiet, {"quiet", 0, nullptr, "no progress line"});
//     const int32_t parsed = table.parse(argc, argv, text, check);
//
// Every program has --help, --version and --completion as well. A table refers to the variables
// that it fills and must not outlive them. One thread: the C library's parser keeps its place in
// globals.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qora::tools {

// How one option is written and explained.
struct OptionText {
  const char* name;   // a literal, without the dashes
  char letter;        // 0: it has only the name
  const char* value;  // a literal that stands for the value in --help; null for a flag
  std::string help;   // '\n' begins the next line
};

class OptionTable {
 public:
  // Takes a value; returns what is wrong with it, empty when nothing is.
  using Reader = std::function<std::string(const char* value)>;

  // `usage` follows the program's name in the first line of --help, `about` below it, `footer` at
  // the end.
  OptionTable(std::string program, std::string usage, std::string about, std::string footer);

  void flag(bool& target, const OptionText& text);
  void string(std::string& target, const OptionText& text);
  // A decimal number from `lowest` to `highest`; kNoLimit: any above.
  static constexpr int32_t kNoLimit = INT32_MAX;
  void number(int32_t& target, const OptionText& text, int32_t lowest, int32_t highest);
  // One of a few words; `target` becomes the index.
  void choice(int32_t& target, const OptionText& text, std::vector<std::string> words);
  void custom(const OptionText& text, Reader reader);

  // 1: read. 0: the user asked for `text`, to be printed on standard output. -1: `text` says what
  // is wrong, in one line. `check` gets the words that are no options when all options were taken,
  // and returns what is wrong with the whole, empty when nothing is.
  using Check = std::function<std::string(const std::vector<std::string>& operands)>;
  int32_t parse(int argc, char* const argv[], std::string& text, const Check& check) const;

  const std::string& program() const { return program_; }
  std::string help() const;
  // A script for "bash" or "zsh"; empty for another shell.
  std::string completion(const std::string& shell) const;

 private:
  struct Row {
    OptionText text;
    Reader reader;
    std::vector<std::string> words;  // of a choice, for completions
  };

  std::string program_, usage_, about_, footer_;
  std::vector<Row> rows_;
};

// What a program prints after a command line that is wrong; ends with "(see --help)".
std::string optionProblem(const std::string& problem);

// The main() of every tool: reads the line with `table` and gives the status to end with at once,
// after printing what there is to print; -1 to go on.
int32_t beginProgram(const char* program, int32_t parsed, const std::string& text);

}  // namespace qora::tools
