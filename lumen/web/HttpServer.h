#pragma once

#include <microhttpd.h>

#include <memory>
#include <string_view>

#include "lumen/runtime/Clock.h"
#include "lumen/values/Ipv4.h"
#include "lumen/web/ConnectionBook.h"
#include "platform/Fd.h"
#include "platform/Timer.h"
#include "platform/Watch.h"

namespace lumen::web {

/// Speaks HTTP with the connections that it is given, in this program's loop. It answers GET and
/// HEAD of at most 8 KiB and refuses everything else itself; it bounds what a host can hold.
class HttpServer {
 public:
  struct Request {
    MHD_Connection* connection = nullptr;
    int fd = -1;
    Ipv4Address host;  ///< who asks
    std::string_view path;
    bool wantsBody = true;  ///< false for HEAD
  };

  class Site {
   public:
    virtual ~Site() = default;
    /// Whether the Host header names this router.
    [[nodiscard]] virtual bool isOwn(std::string_view hostHeader) const = 0;
    /// Queues an answer with libmicrohttpd, once.
    [[nodiscard]] virtual MHD_Result answer(const Request& request) = 0;
  };

  static constexpr size_t longestRequest = 8192;
  /// Seconds in which nothing comes or goes.
  static constexpr unsigned idleLimit = 10;

  /// `site` and `clock` must outlive this.
  HttpServer(Site& site, const lm::Clock& clock) : site_(site), clock_(clock) {}
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  ~HttpServer() { close(); }

  /// False, after a log line, when it cannot.
  [[nodiscard]] bool open();
  /// Ends all connections. No stream may be suspended.
  void close();

  /// A host has connected.
  void adopt(lm::Fd client, Ipv4Address host);
  /// Continues what can be continued, as after the resumption of a suspended connection.
  void run();
  /// The connection is answered by a stream, which has no time limit.
  void streams(int fd) { book_.streams(fd); }

  [[nodiscard]] size_t connections() const { return book_.size(); }

 private:
  static MHD_Result requested(void* server, MHD_Connection* connection, const char* path,
                              const char* method, const char* version, const char* uploaded,
                              size_t* uploadedSize, void** state);
  static void completed(void* server, MHD_Connection* connection, void** state,
                        MHD_RequestTerminationCode how);
  static void connectionChanged(void* server, MHD_Connection* connection, void** state,
                                MHD_ConnectionNotificationCode what);

  [[nodiscard]] MHD_Result respond(MHD_Connection* connection, std::string_view path,
                                   std::string_view method);
  void ready(int /*fd*/) { run(); }
  void timeOver() { run(); }
  void endOverdue();
  void end(int fd);

  Site& site_;
  const lm::Clock& clock_;
  ConnectionBook book_;
  MHD_Daemon* daemon_ = nullptr;  // owned
  bool running_ = false;          // inside of MHD_run
  lm::Watch watch_;
  lm::Timer timer_;
  lm::Timer overdue_;
};

}  // namespace lumen::web
