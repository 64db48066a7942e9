#include "http/HTTPConn.h"

#include <utility>

#include "base/Log.h"
#include "http/HTTPServer.h"

HTTPConn::HTTPConn(lm::Fd socket, std::shared_ptr<ServedInterface> servedInterface,
                   HTTPServer& owner)
    : fd(std::move(socket)), device(std::move(servedInterface)), server(owner) {
  watch.start<&HTTPServer::readHttp>(fd.get(), server, lm::watchRead);
  timer.start<&HTTPConn::timeout>(*this, timeLimit);
}

void HTTPConn::timeout() {
  server.drop(fd.get());  // destroys *this
  logLine("http request timeout");
}
