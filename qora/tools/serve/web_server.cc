// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/serve/web_server.h"

#include <libwebsockets.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "qora/tools/serve/page_files.h"
#include "qora/tools/serve/reactor.h"

namespace qora::serve {
namespace {

constexpr char kProtocol[] = "qora-screen";
// A viewer's delay must not hide in buffers: what the socket holds cannot be taken back.
constexpr int kSendBuffer = 256 << 10;
constexpr int kUnsentLimit = 64 << 10;

struct Header {
  const char* name;
  const char* value;
};
constexpr Header kHeaders[] = {
    {"content-security-policy:",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
     "connect-src 'self'; worker-src 'self'; base-uri 'none'; form-action 'none'; "
     "frame-ancestors 'none'"},
    {"x-content-type-options:", "nosniff"},
    {"referrer-policy:", "no-referrer"},
    {"cross-origin-opener-policy:", "same-origin"},
    {"cache-control:", "no-cache"},
};

const PageFile* findPage(const char* path) {
  for (const PageFile* page = kPageFiles; page->path != nullptr; ++page) {
    if (std::strcmp(page->path, path) == 0) return page;
  }
  return nullptr;
}

std::string headerOf(lws* socket, lws_token_indexes token) {
  char text[256];
  const int length = lws_hdr_copy(socket, text, sizeof text, token);
  return length > 0 ? std::string(text, static_cast<size_t>(length)) : "";
}

void boundBuffers(lws* socket) {
  const int descriptor = lws_get_socket_fd(socket);
  ::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  ::setsockopt(descriptor, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &kUnsentLimit, sizeof kUnsentLimit);
}

void logFromLibrary(int, const char* line) {
  std::fprintf(stderr, "qora-serve: %s", line);
}

int sendPageHead(lws* socket, const PageFile* page) {
  uint8_t buffer[LWS_PRE + 2048];
  uint8_t* const start = buffer + LWS_PRE;
  uint8_t* at = start;
  uint8_t* const end = buffer + sizeof buffer - 1;
  if (lws_add_http_common_headers(socket, HTTP_STATUS_OK, page->type, page->size, &at, end) != 0) {
    return -1;
  }
  for (const Header& header : kHeaders) {
    const auto* value = reinterpret_cast<const unsigned char*>(header.value);
    if (lws_add_http_header_by_name(socket, reinterpret_cast<const unsigned char*>(header.name),
                                    value, static_cast<int>(std::strlen(header.value)), &at,
                                    end) != 0) {
      return -1;
    }
  }
  if (lws_finalize_write_http_header(socket, start, &at, end) != 0) return -1;
  lws_callback_on_writable(socket);
  return 0;
}

int sendPageBody(lws* socket, const PageFile* page) {
  const Message body(true, {reinterpret_cast<const char*>(page->bytes), page->size});
  if (lws_write(socket, body.data(), body.size(), LWS_WRITE_HTTP_FINAL) < 0) return -1;
  return lws_http_transaction_completed(socket) != 0 ? -1 : 0;
}

}  // namespace

Message::Message(bool binary, std::string_view head, std::string_view body) : binary_(binary) {
  bytes_.resize(LWS_PRE + head.size() + body.size());
  std::copy(head.begin(), head.end(), bytes_.begin() + LWS_PRE);
  std::copy(body.begin(), body.end(),
            bytes_.begin() + LWS_PRE + static_cast<std::ptrdiff_t>(head.size()));
}

size_t Message::size() const {
  return bytes_.size() - LWS_PRE;
}

uint8_t* Message::data() const {
  return bytes_.data() + LWS_PRE;
}

void Connection::send(SharedMessage message) {
  if (cut_) return;
  queue_.push_back(std::move(message));
  lws_callback_on_writable(socket_);
}

void Connection::cut(const std::string& reason) {
  if (cut_) return;
  cut_ = true;
  queue_.clear();
  std::fprintf(stderr, "qora-serve: %s is cut off: %s\n", peer_.c_str(), reason.c_str());
  lws_set_timeout(socket_, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
}

bool WebServer::isOurs(lws* socket, bool withOrigin) const {
  const std::string host = headerOf(socket, WSI_TOKEN_HOST);
  if (std::find(hosts_.begin(), hosts_.end(), host) == hosts_.end()) return false;
  if (!withOrigin) return true;
  const std::string origin = headerOf(socket, WSI_TOKEN_ORIGIN);
  return std::any_of(hosts_.begin(), hosts_.end(), [&](const std::string& name) {
    return origin == "http://" + name || origin == "https://" + name;
  });
}

// What libwebsockets calls back.
struct WebCallbacks {
  static WebServer& serverOf(lws* socket) {
    return *static_cast<WebServer*>(lws_context_user(lws_get_context(socket)));
  }

  static int page(lws* socket, lws_callback_reasons reason, void* user, void* in, size_t length) {
    auto* const page = static_cast<const PageFile**>(user);
    switch (reason) {
      case LWS_CALLBACK_HTTP:
        *page = findPage(static_cast<const char*>(in));
        if (!serverOf(socket).isOurs(socket, false) || *page == nullptr) {
          const unsigned status = *page == nullptr ? HTTP_STATUS_NOT_FOUND : HTTP_STATUS_FORBIDDEN;
          return lws_return_http_status(socket, status, nullptr) != 0 ||
                         lws_http_transaction_completed(socket) != 0
                     ? -1
                     : 0;
        }
        return sendPageHead(socket, *page);
      case LWS_CALLBACK_HTTP_WRITEABLE:
        return page != nullptr && *page != nullptr ? sendPageBody(socket, *page) : 0;
      default:
        return lws_callback_http_dummy(socket, reason, user, in, length);
    }
  }

  static int screen(lws* socket, lws_callback_reasons reason, void* user, void* in, size_t length) {
    WebServer& server = serverOf(socket);
    auto* const slot = static_cast<Connection**>(user);
    switch (reason) {
      case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:
        return admit(server, socket);
      case LWS_CALLBACK_ESTABLISHED:
        *slot = open(server, socket);
        return 0;
      case LWS_CALLBACK_RECEIVE:
        receive(server, **slot, {static_cast<const char*>(in), length});
        return 0;
      case LWS_CALLBACK_SERVER_WRITEABLE:
        return writeNext(**slot);
      case LWS_CALLBACK_CLOSED:
        close(server, *slot);
        return 0;
      default:
        return 0;
    }
  }

  static int watched(lws* socket, lws_callback_reasons reason, void*, void*, size_t) {
    const WebServer& server = serverOf(socket);
    if (reason == LWS_CALLBACK_RAW_RX_FILE) server.readable_(server.argument_);
    return 0;
  }

  // Anything but 0 ends the connection before it is one.
  static int admit(WebServer& server, lws* socket) {
    const char* problem = nullptr;
    if (!server.isOurs(socket, true)) problem = "the request is from another site";
    if (server.connections_.size() >= server.limit_) problem = "there are too many viewers";
    if (problem == nullptr) return 0;
    char peer[64] = "";
    lws_get_peer_simple(socket, peer, sizeof peer);
    std::fprintf(stderr, "qora-serve: %s is refused: %s\n", peer, problem);
    return 1;
  }

  static Connection* open(WebServer& server, lws* socket) {
    boundBuffers(socket);
    auto connection = std::make_unique<Connection>(socket);
    char peer[64] = "";
    lws_get_peer_simple(socket, peer, sizeof peer);
    connection->peer_ = peer;
    Connection* const opened = connection.get();
    server.connections_.push_back(std::move(connection));
    server.listener_.opened(*opened);
    return opened;
  }

  static void receive(WebServer& server, Connection& connection, std::string_view part) {
    if (connection.cut_) return;
    if (lws_frame_is_binary(connection.socket_) != 0) return connection.cut("binary message");
    if (connection.received_.size() + part.size() > WebServer::kLargestMessage) {
      return connection.cut("message too long");
    }
    connection.received_ += part;
    if (lws_is_final_fragment(connection.socket_) == 0 ||
        lws_remaining_packet_payload(connection.socket_) != 0) {
      return;
    }
    const int64_t second = Reactor::now() / 1000000;
    if (second != connection.second_) connection.messages_ = 0;
    connection.second_ = second;
    if (++connection.messages_ > WebServer::kMessagesPerSecond) {
      return connection.cut("too many messages");
    }
    const std::string text = std::move(connection.received_);
    connection.received_.clear();
    server.listener_.received(connection, text);
  }

  static int writeNext(Connection& connection) {
    if (connection.queue_.empty() || connection.cut_) return 0;
    const SharedMessage message = connection.queue_.front();
    connection.queue_.pop_front();
    const auto kind = message->isBinary() ? LWS_WRITE_BINARY : LWS_WRITE_TEXT;
    const int written = lws_write(connection.socket_, message->data(), message->size(), kind);
    if (written < static_cast<int>(message->size())) return -1;
    if (!connection.queue_.empty()) lws_callback_on_writable(connection.socket_);
    return 0;
  }

  static void close(WebServer& server, Connection* connection) {
    if (connection == nullptr) return;
    server.listener_.closed(*connection);
    std::erase_if(server.connections_, [&](const auto& one) { return one.get() == connection; });
  }
};

namespace {

// A message leaves in one piece whatever its size; the library would cut it otherwise.
constexpr size_t kPieces = 8 << 20;
const lws_protocols kProtocols[] = {
    {"http", WebCallbacks::page, sizeof(const PageFile*), 0, 0, nullptr, 0},
    {kProtocol, WebCallbacks::screen, sizeof(Connection*), WebServer::kLargestMessage, 0, nullptr,
     kPieces},
    {"watched", WebCallbacks::watched, 0, 0, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

}  // namespace

int32_t WebServer::open(const WebOptions& options, std::string& problem) {
  lws_set_log_level(LLL_ERR, logFromLibrary);
  lws_context_creation_info info{};
  info.iface = options.address.c_str();
  info.port = options.port;
  info.protocols = kProtocols;
  info.user = this;
  info.gid = static_cast<gid_t>(-1);
  info.uid = static_cast<uid_t>(-1);
  info.options = LWS_SERVER_OPTION_DISABLE_IPV6 | LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
  if (options.address.find(':') != std::string::npos) {
    info.options &= ~static_cast<uint64_t>(LWS_SERVER_OPTION_DISABLE_IPV6);
  }
  if (!options.certificate.empty()) {
    info.options |= LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
    info.ssl_cert_filepath = options.certificate.c_str();
    info.ssl_private_key_filepath = options.key.c_str();
    info.alpn = "http/1.1";  // the newer one has a window of its own, under which frames would wait
  }
  limit_ = static_cast<size_t>(options.connections);
  context_ = lws_create_context(&info);
  lws_vhost* const vhost =
      context_ == nullptr ? nullptr : lws_get_vhost_by_name(context_, "default");
  if (vhost == nullptr) {
    problem = "cannot listen on " + options.address + " port " + std::to_string(options.port);
    return -1;
  }
  port_ = lws_get_vhost_listen_port(vhost);
  const std::string suffix = std::string(":").append(std::to_string(port_));
  for (const std::string& name : {options.address, std::string("localhost")}) {
    const bool isNumeric6 = name.find(':') != std::string::npos;
    std::string host = isNumeric6 ? "[" : "";
    host.append(name).append(isNumeric6 ? "]" : "").append(suffix);
    hosts_.push_back(std::move(host));
  }
  hosts_.insert(hosts_.end(), options.hosts.begin(), options.hosts.end());
  return 1;
}

int32_t WebServer::watch(int32_t descriptor, void (*readable)(void*), void* argument) {
  readable_ = readable;
  argument_ = argument;
  lws_sock_file_fd_type own;
  own.filefd = ::dup(descriptor);  // the library closes it
  lws_vhost* const host = lws_get_vhost_by_name(context_, "default");
  const lws* const adopted =
      lws_adopt_descriptor_vhost(host, LWS_ADOPT_RAW_FILE_DESC, own, "watched", nullptr);
  return adopted == nullptr ? -1 : 1;
}

int32_t WebServer::run() {
  return lws_service(context_, 0) < 0 ? -1 : 1;
}

WebServer::~WebServer() {
  if (context_ != nullptr) lws_context_destroy(context_);
}

}  // namespace qora::serve
