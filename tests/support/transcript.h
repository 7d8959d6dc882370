// tests/support/transcript.h -- A file of calls and what each of them gave.
//
//     Transcript told("tests/base/socket.transcript");
//     ADD_OPERATIONS(told, setNoDelay, setCork);
//     told.add("close", [](int32_t fd) { return ::close(fd); });
//     told.run();
//
// In the file:
//     # a comment
//     setNoDelay -1 1 -> -1 EBADF
//     | Socket: ERROR! Can't set no-delay mode on FD#-1 to 1. Error is 9 'Bad file descriptor'.
//     > Error: Can't set no-delay mode on FD#-1 to 1. Error is 9 'Bad file descriptor'.
//
// run() makes each call, of which a line has the operation and its arguments, and writes down anew
// what comes behind: the result, with the name of errno when it looks like a failure (-1, 0, null,
// or none at all); the variables that the call was given to change; and the lines that reached
// std::clog, behind "| " those with the log stream's time prefix, which is checked and left out,
// behind "> " all others; an unfinished one says so, and whether std::clog went bad. The outcome
// must equal the file. QORA_WRITE_TRANSCRIPTS=1 writes the file: a new case is a line with a call.
// The file is what we want, not what we got: read it again before it is committed.
//
// Arguments are numbers, texts in quotes (\n, other bytes as \x1f, "x"*1000 repeats one), null,
// names of constants, or else variables: a slot where a text is asked for, a number where one is.
// What is left out at the end is 0 or null.
//
// From a line "child" to "end" the calls are made in a child of the process. "nobody" is a child
// that has no rights, "root" one that has them all and is skipped for want of these, "unsanitized"
// one that the address and the thread sanitizer skip.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/captured_log.h"

// Adds functions and lambdas, each under the last name in its text: f, a::f, wrapped(&A::f) as "f".
#define ADD_OPERATIONS(transcript, ...) (transcript).addAll(#__VA_ARGS__, __VA_ARGS__)

namespace qora::test {

class Transcript {
 public:
  explicit Transcript(std::string file, std::map<std::string, int64_t> constants = {})
      : file_(std::move(file)), constants_(std::move(constants)) {}
  ~Transcript();
  Transcript(const Transcript&) = delete;
  Transcript& operator=(const Transcript&) = delete;

  template <typename Callable>
  void add(const std::string& name, const Callable& callable) {
    operations_[name] = bind(std::function(callable));
  }
  template <typename... Callables>
  void addAll(std::string_view names, const Callables&... callables) {
    (add(nextName(names), callables), ...);
  }
  // In the whole transcript `text` reads `name`: for what differs from run to run.
  void hide(const std::string& text, const std::string& name) { hidden_.emplace_back(text, name); }
  void run();

 private:
  struct Word {
    std::string text;
    bool quoted;
  };
  using Operation = std::function<void(Transcript&)>;

  static std::string nextName(std::string_view& names);
  template <typename Result, typename... Parameters>
  static Operation bind(std::function<Result(Parameters...)> function) {
    return [function](Transcript& told) {
      std::tuple<Parameters...> arguments{told.argument<Parameters>()...};
      errno = 0;
      if constexpr (std::is_void_v<Result>) {
        std::apply(function, arguments);
        told.writeResult("", errno);
      } else {
        auto&& result = std::apply(function, arguments);
        const int error = errno;
        told.writeResult(textOf(result), error);
      }
    };
  }

  template <typename Parameter>
  Parameter argument() {
    const Word word = next_ < words_.size() ? words_[next_++] : Word{"null", false};
    constexpr bool kNumber =
        std::is_same_v<Parameter, int32_t&> || std::is_same_v<Parameter, int32_t*>;
    if constexpr (kNumber || std::is_convertible_v<Parameter, char*>) changed_.push_back(word.text);
    if constexpr (std::is_same_v<Parameter, int32_t*>)
      return &numbers_[word.text];
    else if constexpr (kNumber)
      return numbers_[word.text];
    else if constexpr (std::is_convertible_v<Parameter, char*>)
      return slots_[word.text];
    else if constexpr (std::is_same_v<Parameter, const char*>)
      return word.quoted ? words_[next_ - 1].text.c_str() : slots_[word.text];
    else if constexpr (std::is_pointer_v<Parameter>)
      return reinterpret_cast<Parameter>(numberOf(word.text));
    else
      return static_cast<Parameter>(numberOf(word.text));
  }
  int64_t numberOf(const std::string& text);

  template <typename Value>
  static std::string textOf(const Value& value) {
    if constexpr (requires { value.get(); })  // an owner: what it owns
      return textOf(value.get());
    else if constexpr (std::is_convertible_v<const Value*, const std::ostream*>)
      return value.good() ? "good" : value.bad() ? "bad" : "fail";
    else if constexpr (std::is_convertible_v<Value, const char*>)
      return value == nullptr ? "null" : quoted(value);
    else if constexpr (std::is_convertible_v<Value, std::string>)
      return quoted(value);
    else if constexpr (std::is_pointer_v<Value>)
      return value == nullptr ? "null" : "not null";
    else
      return std::to_string(value);
  }
  static std::string quoted(std::string_view text);

  void runLines();
  void runBlock(const std::string& kind);
  void call(const std::string& line);
  void writeResult(std::string result, int error);
  void writeLog();
  void hideAll();

  const std::string file_;
  const std::map<std::string, int64_t> constants_;
  std::map<std::string, Operation> operations_;
  std::vector<std::pair<std::string, std::string>> hidden_;
  std::map<std::string, char*> slots_;
  std::map<std::string, int32_t> numbers_;

  std::vector<std::string> lines_;  // of the file
  size_t line_ = 0;                 // the one to read next
  std::vector<Word> words_;         // of the present call
  size_t next_ = 0;
  std::vector<std::string> changed_;  // variables that it may change
  CapturedLog log_;
  std::string text_;  // what came out so far
};

}  // namespace qora::test
