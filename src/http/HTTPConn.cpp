#include "http/HTTPConn.h"

#include <utility>

#include "base/Log.h"
#include "http/HTTPServer.h"

HTTPConn::HTTPConn(lm::Fd socket, uint32_t clientAddress, uint64_t number,
                   std::shared_ptr<ServedInterface> servedInterface, HTTPServer& owner)
    : fd(std::move(socket)),
      client(clientAddress),
      serial(number),
      device(std::move(servedInterface)),
      server_(owner) {
  watch_.start<&HTTPServer::readHttp>(fd.get(), server_, lm::watchRead);
  timer_.start<&HTTPConn::timeout>(*this, timeLimit);
}

void HTTPConn::timeout() {
  server_.drop(fd.get());  // destroys *this
  logLine("http request timeout");
}
