// SPDX-License-Identifier: BSD-2-Clause
// qora/tools/serve/web_server.h -- The page and its WebSocket connections, by libwebsockets.
//
// Everything runs in run(), on one thread; callbacks come from there. Who a connection is, and what
// it may do, is the listener's business: here it is only bounded in size and rate, and let in only
// from the server's own pages.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct lws;
struct lws_context;

namespace qora::serve {

struct WebOptions {
  std::string address = "127.0.0.1";
  int32_t port = 0;                // 0: a free one, see port()
  std::string certificate;         // PEM; empty: no TLS
  std::string key;                 // PEM
  std::vector<std::string> hosts;  // further names that the pages are asked for by, with the port
  int32_t connections = 16;
};

// A message with room in front for the connection's framing. One is shared by all who get it.
class Message {
 public:
  Message(bool binary, std::string_view head, std::string_view body = {});
  bool isBinary() const { return binary_; }
  size_t size() const;
  uint8_t* data() const;

 private:
  bool binary_;
  mutable std::vector<uint8_t> bytes_;
};
using SharedMessage = std::shared_ptr<const Message>;

// One connection. Ends with the callback closed().
class Connection {
 public:
  explicit Connection(lws* socket) : socket_(socket) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Puts a message behind those that wait already.
  void send(SharedMessage message);
  void send(std::string_view text) { send(std::make_shared<const Message>(false, text)); }
  size_t waiting() const { return queue_.size(); }
  // Ends it; what waits is dropped. `reason` goes to the log, with the peer's address.
  void cut(const std::string& reason);
  const std::string& peer() const { return peer_; }

  void* owner = nullptr;  // the listener's

 private:
  friend struct WebCallbacks;
  lws* socket_;
  std::string peer_;
  std::deque<SharedMessage> queue_;
  std::string received_;  // fragments of a message that is not whole yet
  bool cut_ = false;
  int64_t second_ = 0;  // messages are counted within this one
  int32_t messages_ = 0;
};

class WebListener {
 public:
  virtual void opened(Connection& connection) = 0;
  virtual void received(Connection& connection, std::string_view text) = 0;
  virtual void closed(Connection& connection) = 0;

 protected:
  ~WebListener() = default;
};

class WebServer {
 public:
  static constexpr size_t kLargestMessage = 4096;     // bytes that a page may send at once
  static constexpr int32_t kMessagesPerSecond = 400;  // and how often
  static constexpr int64_t kLoginTime = 5000000;      // microseconds, for a listener's timer

  explicit WebServer(WebListener& listener) : listener_(listener) {}
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  // 1, or -1 with a line of words in `problem`.
  [[nodiscard]] int32_t open(const WebOptions& options, std::string& problem);
  int32_t port() const { return port_; }
  // Calls `readable` in the loop whenever the descriptor is readable. 1 or -1.
  [[nodiscard]] int32_t watch(int32_t descriptor, void (*readable)(void*), void* argument);
  // One round: waits for something to happen and handles it. -1 when the loop cannot go on.
  int32_t run();

 private:
  friend struct WebCallbacks;
  bool isOurs(lws* socket, bool withOrigin) const;

  WebListener& listener_;
  lws_context* context_ = nullptr;
  int32_t port_ = 0;
  std::vector<std::string> hosts_;
  std::vector<std::unique_ptr<Connection>> connections_;
  size_t limit_ = 0;
  void (*readable_)(void*) = nullptr;
  void* argument_ = nullptr;
};

}  // namespace qora::serve
