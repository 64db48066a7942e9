#include "upnp/Event.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/Log.h"
#include "http/HTTPMessage.h"
#include "net/Sockets.h"

Service::Event::Event(Service& owner, lm::Fd connection, uint64_t number, std::string sidText,
                      std::string variableName)
    : service(owner),
      socket(std::move(connection)),
      serial(number),
      sid(std::move(sidText)),
      variable(std::move(variableName)) {
  watch_.start<&Event::send>(socket.get(), *this, lm::watchWrite);
  timer_.start<&Event::timeout>(*this, NOTIFY_TIMEOUT);
}

void Service::Event::send(int /*fd*/, unsigned /*flags*/) {
  watch_.stop();
  service.deliver(*this);
}

bool Service::Event::write(const std::string& notify) {
  const int flags = fcntl(socket.get(), F_GETFL);
  if (flags < 0 || fcntl(socket.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
    logLine("fcntl 0: ", strerror(errno));
    return false;
  }
  if (!writeOnce(socket.get(), notify)) {
    logLine("write failed");
    return false;
  }
  watch_.start<&Event::readReply>(socket.get(), *this, lm::watchRead);
  return true;
}

bool Service::Event::readReply(int fd, unsigned /*flags*/) {
  std::array<char, BUFLEN> bytes;
  const ssize_t size = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return true;
  if (size <= 0) {
    logLine("notify reply read failed");
    return false;
  }
  const HTTPMessage reply(std::string_view(bytes.data(), static_cast<size_t>(size)));
  const std::string& line = reply.startLine;
  if (line.size() < 9 || line.compare(9, 3, "200") != 0) logLine("bad notify reply: ", line);
  service.endEvent(*this);  // destroys *this
  return true;
}

void Service::Event::timeout() {
  logLine("notify timeout");
  dropWhenUnread(socket.get());
  service.endEvent(*this);  // destroys *this
}
