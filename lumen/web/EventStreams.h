#pragma once

#include <microhttpd.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "lumen/values/Ipv4.h"

namespace lumen::web {

/// The streams of events to browsers. A new one gets a picture of everything first, in portions, as
/// it reads; one that does not read is dropped.
class EventStreams {
 public:
  static constexpr size_t most = 32;
  static constexpr size_t mostPerHost = 4;
  /// Unsent bytes at which a stream counts as one that does not read.
  static constexpr size_t longestQueue = 256UL * 1024;

  /// How much of the picture a stream has got: the ids of the last of each.
  struct Cursor {
    uint32_t port = 0;
    uint32_t pinhole = 0;
  };

  class Source {
   public:
    virtual ~Source() = default;
    /// The events with which a stream begins.
    [[nodiscard]] virtual std::string beginning() = 0;
    /// The next ports or pinholes with ids above `cursor`, which moves; empty: there are none.
    [[nodiscard]] virtual std::string portion(Cursor& cursor) = 0;
    /// After the last portion.
    [[nodiscard]] virtual std::string ending() = 0;
  };

  /// `source` must outlive this.
  explicit EventStreams(Source& source) : source_(source) {}
  EventStreams(const EventStreams&) = delete;
  EventStreams& operator=(const EventStreams&) = delete;
  ~EventStreams();

  [[nodiscard]] bool admits(Ipv4Address host) const;
  /// Answers the request with a stream.
  [[nodiscard]] MHD_Result open(MHD_Connection* connection, Ipv4Address host);

  // After these the server must run.
  /// To all.
  void send(std::string_view event);
  void endAll();

  [[nodiscard]] size_t size() const { return streams_.size(); }

 private:
  struct Stream {
    EventStreams& owner;
    MHD_Connection* connection = nullptr;
    Ipv4Address host;
    std::string queue = {};
    Cursor cursor = {};
    bool complete = false;   // all portions are sent
    bool suspended = false;  // libmicrohttpd waits until there is something to send
    bool dropped = false;
  };

  static ssize_t read(void* stream, uint64_t position, char* buffer, size_t size);
  static void ended(void* stream);
  static void resume(Stream& stream);

  Source& source_;
  std::map<const void*, std::unique_ptr<Stream>> streams_;
};

}  // namespace lumen::web
