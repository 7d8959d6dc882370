#include "tests/support/transcript.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>

namespace qora::test {
namespace {

const std::regex kClock(R"(^\d\d:\d\d:\d\d \d\d\d\.\d\d\d )");
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
const char kArrow[] = " ->";

// The bytes of the log stream's prefix in front of the line; 0 when it is not there.
size_t prefixSize(const std::string& line) {
  const std::string who =
      std::to_string(::getpid()) + ' ' + std::to_string(::syscall(SYS_gettid)) + ' ';
  if (line.rfind(who, 0) != 0) return 0;
  std::smatch clock;
  const std::string rest = line.substr(who.size());
  return std::regex_search(rest, clock, kClock) ? who.size() + clock.str().size() : 0;
}

bool dropRights() {
  if (::geteuid() != 0) return true;
  constexpr int kNobodysId = 65534;
  return ::setgroups(0, nullptr) + ::setgid(kNobodysId) + ::setuid(kNobodysId) == 0;
}

std::string escaped(std::string_view text) {
  std::string out;
  for (const char character : text) {
    char code[5] = {character};
    if (character == '\n') strcpy(code, "\\n");
    if (character == '\t') strcpy(code, "\\t");
    if (code[1] == '\0' && (character < ' ' || character == '\x7F')) {
      snprintf(code, sizeof code, "\\x%02x", static_cast<uint8_t>(character));
    }
    out += code;
  }
  return out;
}

// Reads one character, escaped or not, and moves `at` behind it.
char unescape(const char*& at) {
  if (*at++ != '\\') return at[-1];
  switch (*at++) {
    case 'n':
      return '\n';
    case 't':
      return '\t';
    case 'x': {
      const std::string digits(at, 2);
      at += 2;
      return static_cast<char>(std::stoi(digits, nullptr, 16));
    }
    default:
      return at[-1];
  }
}

// Reads a text in quotes and how often it is repeated.
std::string readQuoted(const char*& at) {
  std::string text, out;
  for (++at; *at != '"' && *at != '\0';) text += unescape(at);
  if (*at != '\0') ++at;
  char* end = const_cast<char*>(at);
  for (long times = *at == '*' ? strtol(at + 1, &end, 10) : 1; times > 0; --times) out += text;
  at = end;
  return out;
}

}  // namespace

// Takes the first of the texts between commas; its last name.
std::string Transcript::nextName(std::string_view& names) {
  const size_t size = std::min(names.find(','), names.size());
  const std::string_view text = names.substr(0, size);
  names.remove_prefix(std::min(size + 1, names.size()));
  const char* const kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  const size_t last = text.find_last_of(kLetters);
  const size_t before = text.find_last_not_of(kLetters, last);
  return std::string(text.substr(before + 1, last - before));
}

void Transcript::addOperation(const std::string& name, Operation operation) {
  EXPECT_TRUE(operations_.emplace(name, std::move(operation)).second) << name << " twice";
}

std::string Transcript::quoted(std::string_view text) {
  const bool repeats = text.size() > 64 && text.find_first_not_of(text[0]) == text.npos;
  if (repeats) return '"' + escaped(text.substr(0, 1)) + "\"*" + std::to_string(text.size());
  return '"' + escaped(text) + '"';
}

char*& Transcript::slotToChange(const Word& word) {
  char*& slot = slots_[word.text];
  shown_.push_back({word.text, slot, slot != nullptr ? slot : ""});
  return slot;
}

int32_t& Transcript::numberToChange(const Word& word) {
  shown_.push_back({word.text, nullptr, ""});
  return numbers_[word.text];
}

const char* Transcript::textOf(const Word& word) {
  if (word.quoted) return words_[next_ - 1].text.c_str();
  return word.text == "null" ? nullptr : slots_[word.text];
}

int64_t Transcript::numberOf(const Word& word) {
  char* end;
  const int64_t number = strtoll(word.text.c_str(), &end, 0);
  if (*end == '\0') return number;
  const auto constant = constants_.find(word.text);
  if (constant != constants_.end()) return constant->second;
  return word.text == "null" ? 0 : numbers_[word.text];
}

void Transcript::writeResult(const std::string& result, int error) {
  std::string told = result;
  if (error != 0) told += std::string(" ") + strerrorname_np(error);
  for (const auto& [name, array, text] : shown_) {
    const auto slot = slots_.find(name);
    const bool same =
        slot != slots_.end() && slot->second == array && (array == nullptr || array == text);
    told += (told.empty() ? " " : ", ") + name + (same ? " " : " = ");
    told += slot != slots_.end() ? textOf(slot->second) : std::to_string(numbers_[name]);
  }
  if (!told.empty()) text_ += kArrow + told;
  text_ += '\n';
  writeLog();
}

void Transcript::writeLog() {
  std::istringstream lines(log_.take());
  for (std::string line; std::getline(lines, line);) {
    const size_t prefix = prefixSize(line);
    text_ += (prefix > 0 ? "| " : "> ") + escaped(line.substr(prefix)) +
             (!lines.eof()      ? "\n"
              : std::clog.bad() ? " (bad)\n"
                                : " (no newline)\n");
  }
  std::clog.clear();  // a null text may have left badbit behind
}

void Transcript::call(const std::string& line) {
  words_.clear();
  shown_.clear();
  next_ = 1;
  const char* at = line.c_str();
  while (*at != '\0' && strncmp(at, kArrow, strlen(kArrow)) != 0) {
    if (*at == ' ') {
      ++at;
    } else if (*at == '"') {
      words_.push_back({readQuoted(at), true});
    } else {
      const size_t size = strcspn(at, " ");
      words_.push_back({std::string(at, size), false});
      at += size;
    }
  }
  text_.append(line.c_str(), at);
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

// The lines up to `end`, in a child.
void Transcript::runChild(size_t end, bool drop) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    if (drop && !dropRights()) ::_exit(1);
    text_.clear();
    runLines(end);
    hideAll();
    ::_exit(::write(ends[1], text_.data(), text_.size()) == -1);
  }
  ::close(ends[1]);
  char part[4096];
  for (ssize_t size; (size = ::read(ends[0], part, sizeof part)) > 0;) {
    text_.append(part, static_cast<size_t>(size));
  }
  ::close(ends[0]);
  ::waitpid(child, nullptr, 0);
  line_ = end;
}

void Transcript::runLines(size_t end) {
  while (line_ < end) {
    const std::string& line = lines_[line_++];
    if (line.rfind("| ", 0) == 0 || line.rfind("> ", 0) == 0) continue;
    if (line.empty() || line[0] == '#' || line == "end") {
      text_ += line + '\n';
    } else if (line == "child" || line == "nobody" || line == "root" || line == "unsanitized") {
      const auto first = lines_.begin() + static_cast<ptrdiff_t>(line_);
      const auto size = static_cast<size_t>(std::find(first, lines_.end(), "end") - first);
      text_ += line + '\n';
      const bool skipped =
          (line == "root" && ::geteuid() != 0) || (line == "unsanitized" && kSanitized);
      if (!skipped)
        runChild(line_ + size, line == "nobody");
      else
        for (size_t left = size; left > 0; --left) text_ += lines_[line_++] + '\n';
    } else {
      call(line);
    }
  }
}

Transcript::~Transcript() {
  for (const auto& [name, slot] : slots_) delete[] slot;
}

void Transcript::run() {
  const std::string path = std::string(QORA_SOURCE_DIR "/") + file_;
  std::ifstream file(path);
  std::string expected;
  for (std::string line; std::getline(file, line);) {
    expected += line + '\n';
    lines_.push_back(line);
  }
  EXPECT_FALSE(lines_.empty()) << path;
  runLines(lines_.size());
  hideAll();
  if (getenv("QORA_WRITE_TRANSCRIPTS") != nullptr)
    std::ofstream(path) << text_;
  else
    EXPECT_EQ(text_, expected) << path;
}

}  // namespace qora::test
