#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "lumen/values/Ipv4.h"
#include "lumen/values/Result.h"
#include "platform/Timer.h"
#include "platform/Watch.h"

struct ares_addrinfo;
struct ares_channeldata;

namespace lumen {

/// One query for the IPv4 address of a host, to the name servers of a resolv.conf(5). Each opens
/// its own sockets, and so uses its own random port, and reads the file again: name servers come
/// and go with the WAN side. It ends within `limit`, or when it is destroyed.
class Lookup {
 public:
  static constexpr std::chrono::milliseconds limit{950};
  /// The error after that.
  static constexpr const char* noAnswer = "name server does not answer";

  class Owner {
   public:
    virtual ~Owner() = default;
    /// The lookup of `name` has ended; it may be destroyed, and the references end with it.
    virtual void lookedUp(const std::string& name, const Result<Ipv4Address>& result) = 0;
  };

  /// `configuration` is the path of the resolv.conf; without one, 127.0.0.1 is asked. `owner` must
  /// outlive this.
  Lookup(Owner& owner, std::string name, std::string configuration);
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;
  ~Lookup();

  /// To be called once. May end it before it returns.
  void start();

 private:
  struct Destroy {
    void operator()(ares_channeldata* channel) const;
  };

  static void socketChanged(void* lookup, int fd, int readable, int writable);
  static void answered(void* lookup, int status, int timeouts, ares_addrinfo* found);
  void socketReady(int fd, unsigned flags);
  void askAgain();
  void late();
  void proceed();

  Owner& owner_;
  const std::string name_;
  std::string configuration_;
  std::optional<Result<Ipv4Address>> result_;
  lm::Timer limitTimer_;
  lm::Timer askAgainTimer_;
  std::map<int, lm::Watch> watches_;  // of the sockets that the channel opens and closes
  std::unique_ptr<ares_channeldata, Destroy> channel_;
};

}  // namespace lumen
