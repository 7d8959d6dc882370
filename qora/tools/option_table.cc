// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/option_table.h"

#include <getopt.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "qora/tools/numbers.h"

namespace qora::tools {
namespace {

constexpr int kFirstLong = 256;  // an option is known to getopt_long by this and its row
constexpr size_t kHelpColumn = 24;

// What every program has as well, in the order of --help.
std::array<OptionText, 3> commonOptions() {
  return {{{"help", 'h', nullptr, "this text"},
           {"version", 0, nullptr, "the version"},
           {"completion", 0, "SHELL", "a script that completes these options in bash or zsh"}}};
}

std::string helpLine(const OptionText& text) {
  std::string line = text.letter != 0 ? std::string("  -") + text.letter + ", " : "      ";
  line += std::string("--") + text.name;
  if (text.value != nullptr) line += std::string(" ") + text.value;
  if (line.size() + 2 > kHelpColumn) {
    line += "\n" + std::string(kHelpColumn, ' ');
  } else {
    line.resize(kHelpColumn, ' ');
  }
  for (const char c : text.help) {
    line += c;
    if (c == '\n') line.append(kHelpColumn, ' ');
  }
  return line + "\n";
}

// A long option is its word; a letter can stand anywhere in a word.
std::string unknownOption(const std::string& word) {
  return word.starts_with("--") ? word : std::string("-") + static_cast<char>(optopt);
}

std::string joined(const std::vector<std::string>& words, const char* separator) {
  std::string all;
  for (const std::string& word : words) all += (all.empty() ? "" : separator) + word;
  return all;
}

// Inside a quoted description of zsh's. Brackets and colons have a meaning there.
std::string zshText(const std::string& help) {
  std::string text;
  for (const char c : help) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') text += '\\';
    if (c == '\'') {
      text += "'\\''";
    } else {
      text += c == '\n' ? ' ' : c;
    }
  }
  return text;
}

}  // namespace

OptionTable::OptionTable(std::string program, std::string usage, std::string about,
                         std::string footer)
    : program_(std::move(program)),
      usage_(std::move(usage)),
      about_(std::move(about)),
      footer_(std::move(footer)) {}

void OptionTable::flag(bool& target, const OptionText& text) {
  custom(text, [&target](const char*) {
    target = true;
    return std::string();
  });
}

void OptionTable::string(std::string& target, const OptionText& text) {
  custom(text, [&target](const char* value) {
    target = value;
    return std::string(*value == '\0' ? "a value" : "");
  });
}

void OptionTable::number(int32_t& target, const OptionText& text, int32_t lowest, int32_t highest) {
  custom(text, [&target, lowest, highest](const char* value) -> std::string {
    if (parseNumber(value, lowest, highest, target) == 1) return "";
    const std::string from = "a number from " + std::to_string(lowest);
    return (highest == kNoLimit ? from + " on" : from + " to " + std::to_string(highest)) +
           ", not '" + value + "'";
  });
}

void OptionTable::choice(int32_t& target, const OptionText& text, std::vector<std::string> words) {
  custom(text, [&target, words](const char* value) -> std::string {
    const auto found = std::find(words.begin(), words.end(), value);
    if (found == words.end()) return joined(words, " or ") + ", not '" + value + "'";
    target = static_cast<int32_t>(found - words.begin());
    return "";
  });
  rows_.back().words = std::move(words);
}

void OptionTable::custom(const OptionText& text, Reader reader) {
  rows_.push_back({text, std::move(reader), {}});
}

int32_t OptionTable::parse(int argc, char* const argv[], std::string& text,
                           const Check& check) const {
  std::vector<option> names;
  std::string letters = ":h";
  for (const Row& row : rows_) {
    const int argument = row.text.value == nullptr ? no_argument : required_argument;
    const int key = kFirstLong + static_cast<int>(names.size());
    names.push_back({row.text.name, argument, nullptr, key});
    if (row.text.letter != 0) letters += row.text.letter;
    if (row.text.letter != 0 && argument == required_argument) letters += ':';
  }
  const int special = kFirstLong + static_cast<int>(names.size());
  const auto [helpOption, versionOption, completionOption] = commonOptions();
  names.push_back({helpOption.name, no_argument, nullptr, 'h'});
  names.push_back({versionOption.name, no_argument, nullptr, special});
  names.push_back({completionOption.name, required_argument, nullptr, special + 1});
  names.push_back({});

  optind = 0;  // a new vector
  opterr = 0;  // one line, ours
  for (int key; (key = ::getopt_long(argc, argv, letters.c_str(), names.data(), nullptr)) != -1;) {
    if (key == 'h') return text = help(), 0;
    if (key == special) return text = program_ + " " QORA_VERSION "\n", 0;
    if (key == special + 1) {
      text = completion(optarg);
      if (!text.empty()) return 0;
      text = optionProblem(std::string("--completion needs bash or zsh, not '") + optarg + "'");
      return -1;
    }
    if (key == '?' || key == ':') {
      const std::string word = argv[optind - 1];
      text = optionProblem(key == ':' ? word + " needs a value"
                                      : "unknown option '" + unknownOption(word) + "'");
      return -1;
    }
    const auto row = std::find_if(rows_.begin(), rows_.end(), [&](const Row& candidate) {
      return candidate.text.letter == key || kFirstLong + (&candidate - rows_.data()) == key;
    });
    const std::string wanted = row->reader(optarg);
    if (wanted.empty()) continue;
    text = optionProblem(std::string("--") + row->text.name + " needs " + wanted);
    return -1;
  }
  const std::string problem = check({argv + optind, argv + argc});
  if (problem.empty()) return 1;
  text = optionProblem(problem);
  return -1;
}

std::string OptionTable::help() const {
  std::string text = "usage: " + program_ + " " + usage_ + "\n\n" + about_ + "\n\n";
  for (const Row& row : rows_) text += helpLine(row.text);
  for (const OptionText& option : commonOptions()) text += helpLine(option);
  return footer_.empty() ? text : text + "\n" + footer_ + "\n";
}

std::string OptionTable::completion(const std::string& shell) const {
  std::vector<Row> all = rows_;
  for (const OptionText& text : commonOptions()) all.push_back({text, {}, {}});
  all.back().words = {"bash", "zsh"};
  if (shell == "bash") {
    std::string names, cases;
    for (const Row& row : all) {
      names += std::string(names.empty() ? "" : " ") + "--" + row.text.name;
      if (row.text.letter != 0) names += std::string(" -") + row.text.letter;
      if (row.words.empty()) continue;
      cases += std::string("    --") + row.text.name + ") COMPREPLY=($(compgen -W \"" +
               joined(row.words, " ") + "\" -- \"$word\")); return ;;\n";
    }
    // The sign in --option=word is a word of its own. Without an answer the shell completes a
    // file's name, spaces and all.
    return "_" + program_ +
           "() {\n  local word=${COMP_WORDS[COMP_CWORD]} at=$((COMP_CWORD - 1))\n" +
           "  COMPREPLY=()\n  [[ ${COMP_WORDS[at]} != = ]] || ((at -= 1))\n  [[ $word != = ]] || "
           "word=\n" +
           "  case ${COMP_WORDS[at]} in\n" + cases + "  esac\n" +
           "  [[ $word != -* ]] || COMPREPLY=($(compgen -W \"" + names + "\" -- \"$word\"))\n}\n" +
           "complete -o default -F _" + program_ + " " + program_ + "\n";
  }
  if (shell != "zsh") return "";
  std::string script = "#compdef " + program_ + "\n_arguments -s \\\n";
  for (const Row& row : all) {
    const std::string value = row.text.value == nullptr ? ""
                              : row.words.empty() ? std::string(":") + row.text.value + ":_files"
                                                  : ":" + std::string(row.text.value) + ":(" +
                                                        joined(row.words, " ") + ")";
    const std::string rest = "[" + zshText(row.text.help) + "]" + value + "' \\\n";
    script += std::string("  '--") + row.text.name + (row.text.value == nullptr ? "" : "=") + rest;
    if (row.text.letter != 0) script += std::string("  '-") + row.text.letter + rest;
  }
  return script + "  '*:file:_files'\n";
}

std::string optionProblem(const std::string& problem) {
  return problem + " (see --help)";
}

int32_t beginProgram(const char* program, int32_t parsed, const std::string& text) {
  if (parsed == 1) return -1;
  if (parsed == 0) return std::fputs(text.c_str(), stdout) == EOF ? 1 : 0;
  std::fprintf(stderr, "%s: %s\n", program, text.c_str());
  return 2;
}

}  // namespace qora::tools
