#include "lumen/web/HttpServer.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdarg>
#include <optional>

#include "lumen/runtime/Log.h"
#include "lumen/runtime/Time.h"
#include "lumen/web/Responses.h"
#include "net/Sockets.h"

namespace lumen::web {

namespace {

// How often connections that take too long are looked for.
constexpr std::chrono::seconds overduePeriod(5);
// Of unsent bytes the kernel keeps no more for a host that does not read.
constexpr int sendBuffer = 128 * 1024;

// What hosts do wrong is no event of this router.
void dropLogLine(void* /*server*/, const char* /*format*/, va_list /*arguments*/) {}

int descriptorOf(MHD_Connection* connection) {
  const MHD_ConnectionInfo* const info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  return info == nullptr ? -1 : info->connect_fd;
}

Ipv4Address hostOf(MHD_Connection* connection) {
  const MHD_ConnectionInfo* const info =
      MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (info == nullptr || info->client_addr == nullptr) return {};
  const auto* const address = reinterpret_cast<const sockaddr_in*>(info->client_addr);
  return Ipv4Address::fromBytes(address->sin_addr.s_addr);
}

std::optional<std::string_view> header(MHD_Connection* connection, const char* name) {
  const char* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  if (value == nullptr) return std::nullopt;
  return value;
}

}  // namespace

bool HttpServer::open() {
  if (daemon_ != nullptr) return true;
  daemon_ = MHD_start_daemon(
      MHD_USE_EPOLL | MHD_USE_NO_LISTEN_SOCKET | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG, 0,
      nullptr, nullptr, &HttpServer::requested, this,  //
      MHD_OPTION_EXTERNAL_LOGGER, &dropLogLine, nullptr, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
      longestRequest, MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(2 * ConnectionBook::most),
      MHD_OPTION_CONNECTION_TIMEOUT, idleLimit,  //
      MHD_OPTION_NOTIFY_COMPLETED, &HttpServer::completed, this, MHD_OPTION_NOTIFY_CONNECTION,
      &HttpServer::connectionChanged, this, MHD_OPTION_STRICT_FOR_CLIENT, 1,
      MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1, MHD_OPTION_END);
  if (daemon_ == nullptr) {
    logLine("libmicrohttpd cannot be started");
    return false;
  }
  const MHD_DaemonInfo* const info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD);
  watch_.start<&HttpServer::ready>(info->epoll_fd, *this, lm::watchRead);
  overdue_.start<&HttpServer::endOverdue>(*this, timerDelay(overduePeriod));
  return true;
}

void HttpServer::close() {
  if (daemon_ == nullptr) return;
  watch_.stop();
  timer_.stop();
  overdue_.stop();
  MHD_stop_daemon(daemon_);
  daemon_ = nullptr;
}

void HttpServer::adopt(lm::Fd client, Ipv4Address host) {
  if (daemon_ == nullptr || !book_.admits(host)) return;
  if (const auto victim = book_.toClose()) {
    end(*victim);
    run();
    if (book_.toClose()) return;
  }
  setsockopt(client.get(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
  dropWhenUnread(client.get());
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = host.bytes();
  // It closes the descriptor when it fails, too.
  const int fd = client.release();
  book_.opened(fd, host, clock_.now());
  const MHD_Result added =
      MHD_add_connection(daemon_, fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (added != MHD_YES) book_.closed(fd);
  run();
}

void HttpServer::run() {
  if (daemon_ == nullptr || running_) return;
  running_ = true;
  MHD_run(daemon_);
  running_ = false;
  MHD_UNSIGNED_LONG_LONG wait = 0;
  if (MHD_get_timeout(daemon_, &wait) != MHD_YES) return timer_.stop();
  constexpr MHD_UNSIGNED_LONG_LONG longest = 60'000;
  timer_.start<&HttpServer::timeOver>(
      *this, timerDelay(std::chrono::milliseconds(std::min(wait, longest))));
}

void HttpServer::endOverdue() {
  for (const int fd : book_.overdue(clock_.now())) end(fd);
  run();
  overdue_.start<&HttpServer::endOverdue>(*this, timerDelay(overduePeriod));
}

// libmicrohttpd sees the end of the stream and closes it.
void HttpServer::end(int fd) { shutdown(fd, SHUT_RDWR); }

// Is called when the headers have come, for each part of a body, and at the end.
MHD_Result HttpServer::requested(void* server, MHD_Connection* connection, const char* path,
                                 const char* method, const char* /*version*/,
                                 const char* /*uploaded*/, size_t* uploadedSize, void** state) {
  static int begun;
  if (*uploadedSize != 0) return MHD_NO;
  if (*state == nullptr) {
    *state = &begun;
    const bool hasBody = header(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING).has_value() ||
                         header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH).value_or("0") != "0";
    if (!hasBody) return MHD_YES;
  }
  return static_cast<HttpServer*>(server)->respond(connection, path, method);
}

MHD_Result HttpServer::respond(MHD_Connection* connection, std::string_view path,
                               std::string_view method) {
  const bool isHead = method == MHD_HTTP_METHOD_HEAD;
  if (!isHead && method != MHD_HTTP_METHOD_GET) {
    return refuse(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "This page can only be read.");
  }
  if (header(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING) ||
      header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH).value_or("0") != "0") {
    return refuse(connection, MHD_HTTP_BAD_REQUEST, "A request has no body here.");
  }
  const auto host = header(connection, MHD_HTTP_HEADER_HOST);
  if (!host || !site_.isOwn(*host)) {
    return refuse(connection, MHD_HTTP_MISDIRECTED_REQUEST,
                  "Ask for this page by an address of the router, or by a name that was given to "
                  "lumenctl web on --name.");
  }
  return site_.answer({.connection = connection,
                       .fd = descriptorOf(connection),
                       .host = hostOf(connection),
                       .path = path,
                       .wantsBody = !isHead});
}

void HttpServer::completed(void* server, MHD_Connection* connection, void** /*state*/,
                           MHD_RequestTerminationCode /*how*/) {
  auto& self = *static_cast<HttpServer*>(server);
  self.book_.answered(descriptorOf(connection), self.clock_.now());
}

void HttpServer::connectionChanged(void* server, MHD_Connection* connection, void** /*state*/,
                                   MHD_ConnectionNotificationCode what) {
  if (what != MHD_CONNECTION_NOTIFY_CLOSED) return;
  static_cast<HttpServer*>(server)->book_.closed(descriptorOf(connection));
}

}  // namespace lumen::web
