#include "lumen/web/EventStreams.h"

#include <algorithm>
#include <utility>

#include "lumen/web/Responses.h"

namespace lumen::web {

namespace {

constexpr size_t blockSize = 4096;

}  // namespace

EventStreams::~EventStreams() = default;

bool EventStreams::admits(Ipv4Address host) const {
  const auto ofHost = std::count_if(streams_.begin(), streams_.end(), [host](const auto& entry) {
    return entry.second->host == host;
  });
  return streams_.size() < most && static_cast<size_t>(ofHost) < mostPerHost;
}

MHD_Result EventStreams::open(MHD_Connection* connection, Ipv4Address host) {
  auto stream =
      std::make_unique<Stream>(Stream{.owner = *this, .connection = connection, .host = host});
  stream->queue = source_.beginning();
  const Response response(MHD_create_response_from_callback(
      MHD_SIZE_UNKNOWN, blockSize, &EventStreams::read, stream.get(), &EventStreams::ended));
  if (!response) return MHD_NO;
  addHeaders(response.get(), "text/event-stream");
  const void* const key = stream.get();
  streams_.emplace(key, std::move(stream));
  // When it fails, the end of the response removes the stream.
  return MHD_queue_response(connection, MHD_HTTP_OK, response.get());
}

ssize_t EventStreams::read(void* stream, uint64_t /*position*/, char* buffer, size_t size) {
  auto& self = *static_cast<Stream*>(stream);
  if (self.dropped) return MHD_CONTENT_READER_END_WITH_ERROR;
  if (self.queue.empty() && !self.complete) {
    self.queue = self.owner.source_.portion(self.cursor);
    self.complete = self.queue.empty();
    if (self.complete) self.queue = self.owner.source_.ending();
  }
  if (self.queue.empty()) {
    self.suspended = true;
    MHD_suspend_connection(self.connection);
    return 0;
  }
  const size_t length = std::min(size, self.queue.size());
  std::copy_n(self.queue.begin(), length, buffer);
  self.queue.erase(0, length);
  // Erasing keeps the memory: a thousand ports that change at once take megabytes for all streams.
  if (self.queue.empty()) std::string().swap(self.queue);
  return static_cast<ssize_t>(length);
}

void EventStreams::ended(void* stream) {
  static_cast<Stream*>(stream)->owner.streams_.erase(stream);
}

void EventStreams::send(std::string_view event) {
  for (const auto& [key, stream] : streams_) {
    if (stream->queue.size() + event.size() > longestQueue) stream->dropped = true;
    if (!stream->dropped) stream->queue += event;
    resume(*stream);
  }
}

void EventStreams::endAll() {
  for (const auto& [key, stream] : streams_) {
    stream->dropped = true;
    resume(*stream);
  }
}

void EventStreams::resume(Stream& stream) {
  if (!stream.suspended) return;
  stream.suspended = false;
  MHD_resume_connection(stream.connection);
}

}  // namespace lumen::web
