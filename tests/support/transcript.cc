#include "tests/support/transcript.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace qora::test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
const char kArrow[] = " -> ";

bool dropRights() {
  constexpr int kNobodysId = 65534;
  if (::geteuid() != 0) return true;
  return ::setgroups(0, nullptr) + ::setgid(kNobodysId) + ::setuid(kNobodysId) == 0;
}

std::string escaped(std::string_view text) {
  std::string out;
  for (const uint8_t byte : text) {
    char code[5];
    snprintf(code, sizeof code, isprint(byte) != 0 ? "%c" : "\\x%02x", byte);
    out += byte == '\n' ? "\\n" : code;
  }
  return out;
}

std::string unescaped(const std::string& text) {
  std::string out;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\\') {
      out += text[at];
    } else if (text[++at] == 'n') {
      out += '\n';
    } else {
      out += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
      at += 2;
    }
  }
  return out;
}

}  // namespace

// Takes the first of the texts between commas; its last name.
std::string Transcript::nextName(std::string_view& names) {
  static const std::regex kLastName(R"(.*\b(\w+)\W*)");
  const std::string first(names.substr(0, names.find(',')));
  names.remove_prefix(std::min(first.size() + 1, names.size()));
  return std::regex_replace(first, kLastName, "$1");
}

std::string Transcript::quoted(std::string_view text) {
  const bool repeats = text.size() > 64 && text.find_first_not_of(text[0]) == text.npos;
  if (repeats) return '"' + escaped(text.substr(0, 1)) + "\"*" + std::to_string(text.size());
  return '"' + escaped(text) + '"';
}

int64_t Transcript::numberOf(const std::string& text) {
  char* end;
  const int64_t number = strtoll(text.c_str(), &end, 0);
  if (*end == '\0') return number;
  const auto constant = constants_.find(text);
  return constant != constants_.end() ? constant->second : numbers_[text];
}

void Transcript::writeResult(std::string result, int error) {
  const bool failed =
      result.empty() || result == "-1" || result == "0" || result == "null" || result == "bad";
  if (failed && error != 0)
    result += std::string(result.empty() ? "" : " ") + strerrorname_np(error);
  for (const std::string& name : changed_) {
    const auto slot = slots_.find(name);
    result += (result.empty() ? "" : ", ") + name + " = ";
    result += slot != slots_.end() ? textOf(slot->second) : std::to_string(numbers_[name]);
  }
  text_ += (result.empty() ? "" : kArrow) + result + '\n';
  writeLog();
}

void Transcript::writeLog() {
  const std::string who = std::to_string(::getpid()) + ' ' + std::to_string(::gettid());
  std::istringstream lines(replaceTimePrefixes(log_.take(), "| ", who));
  for (std::string line; std::getline(lines, line);) {
    text_ += (line.starts_with("| ") ? "" : "> ") + escaped(line);
    text_ += !lines.eof() ? "\n" : std::clog.bad() ? " (bad)\n" : " (no newline)\n";
  }
  std::clog.clear();  // a null text may have left badbit behind
}

void Transcript::call(const std::string& line) {
  static const std::regex kWord(R"re("([^"]*)"(\*(\d+))?|(\S+))re");
  const std::string asked = line.substr(0, line.find(kArrow));
  words_.clear();
  changed_.clear();
  next_ = 1;
  for (auto word = std::sregex_iterator(asked.begin(), asked.end(), kWord);
       word != std::sregex_iterator(); ++word) {
    words_.push_back({(*word)[4], !(*word)[4].matched});
    const int times = (*word)[3].matched ? std::stoi((*word)[3]) : words_.back().quoted;
    for (int n = 0; n < times; ++n) words_.back().text += unescaped((*word)[1]);
  }
  text_ += asked;
  const auto operation = operations_.find(words_[0].text);
  if (operation != operations_.end())
    operation->second(*this);
  else
    text_ += " -> no such operation\n";
}

void Transcript::hideAll() {
  for (const auto& [text, name] : hidden_) {
    for (size_t at = 0; (at = text_.find(text, at)) != std::string::npos; at += name.size()) {
      text_.replace(at, text.size(), name);
    }
  }
}

// The lines up to "end", in a child, up to the end of the last that it leaves behind.
void Transcript::runBlock(const std::string& kind) {
  const auto first = lines_.begin() + static_cast<ptrdiff_t>(line_);
  const auto end = std::find(first, lines_.end(), "end");
  line_ = static_cast<size_t>(end - lines_.begin());
  if ((kind == "root" && ::geteuid() != 0) || (kind == "unsanitized" && kSanitized)) {
    for (auto line = first; line != end; ++line) text_ += *line + '\n';
    return;
  }
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  std::ifstream written("/proc/self/fd/" + std::to_string(ends[0]));
  const pid_t child = ::fork();
  if (child == 0) {
    if (kind == "nobody" && !dropRights()) ::_exit(1);
    text_.clear();
    lines_ = {first, end};
    line_ = 0;
    runLines();
    hideAll();
    ::_exit(::write(ends[1], text_.data(), text_.size()) == -1);
  }
  ::close(ends[1]);
  text_.append(std::istreambuf_iterator<char>(written), {});
  ::close(ends[0]);
  ::waitpid(child, nullptr, 0);
}

void Transcript::runLines() {
  while (line_ < lines_.size()) {
    const std::string line = lines_[line_++];
    const bool block =
        line == "child" || line == "nobody" || line == "root" || line == "unsanitized";
    if (block || line.empty() || line[0] == '#' || line == "end")
      text_ += line + '\n';
    else if (!line.starts_with("| ") && !line.starts_with("> "))
      call(line);
    if (block) runBlock(line);
  }
}

Transcript::~Transcript() {
  for (const auto& [name, slot] : slots_) delete[] slot;
}

void Transcript::run() {
  const std::string path = std::string(QORA_SOURCE_DIR "/") + file_;
  std::ifstream file(path);
  std::string expected;
  for (std::string line; std::getline(file, line); expected += line + '\n') lines_.push_back(line);
  EXPECT_FALSE(lines_.empty()) << path;
  runLines();
  hideAll();
  if (getenv("QORA_WRITE_TRANSCRIPTS") != nullptr)
    std::ofstream(path) << text_;
  else
    EXPECT_EQ(text_, expected) << path;
}

}  // namespace qora::test
