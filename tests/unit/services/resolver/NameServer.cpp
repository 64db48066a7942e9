#include "services/resolver/NameServer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace lumen::test {

namespace {

constexpr size_t headerSize = 12;

std::string be16(unsigned value) {
  return {static_cast<char>(value >> 8), static_cast<char>(value & 0xFF)};
}

unsigned readBe16(const std::string& bytes, size_t place) {
  return static_cast<unsigned char>(bytes[place]) * 256U +
         static_cast<unsigned char>(bytes[place + 1]);
}

/// Labels with their lengths.
std::string wireName(const std::string& name) {
  std::string wire;
  size_t begin = 0;
  while (begin < name.size()) {
    const size_t end = std::min(name.find('.', begin), name.size());
    wire += static_cast<char>(end - begin);
    wire += name.substr(begin, end - begin);
    begin = end + 1;
  }
  return wire + '\0';
}

/// A pointer to the name in the question, or another name.
std::string ownerName(const std::string& name) {
  return name.empty() ? be16(0xC000 + headerSize) : wireName(name);
}

std::string record(const std::string& owner, unsigned type, const std::string& data) {
  constexpr unsigned internet = 1;
  const std::string secondsToLive = be16(0) + be16(60);
  return ownerName(owner) + be16(type) + be16(internet) + secondsToLive +
         be16(static_cast<unsigned>(data.size())) + data;
}

DnsQuestion readQuestion(const std::string& datagram) {
  DnsQuestion question;
  EXPECT_GT(datagram.size(), headerSize);
  if (datagram.size() <= headerSize) return question;
  question.id = static_cast<uint16_t>(readBe16(datagram, 0));
  size_t place = headerSize;
  while (const auto length = static_cast<unsigned char>(datagram.at(place))) {
    if (place > headerSize) question.name += '.';
    question.name += datagram.substr(place + 1, length);
    place += length + 1U;
  }
  // A newer c-ares adds a record of options, which an answer must not repeat among its records.
  constexpr size_t endAndTypeAndClass = 5;
  question.bytes = datagram.substr(headerSize, place - headerSize + endAndTypeAndClass);
  std::ranges::transform(question.name, question.name.begin(),
                         [](char c) { return static_cast<char>(tolower(c)); });
  return question;
}

lm::Fd bound(int type, const char* address) {
  lm::Fd fd(socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in place = {};
  place.sin_family = AF_INET;
  place.sin_addr.s_addr = inet_addr(address);
  place.sin_port = htons(53);
  EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&place), sizeof place), 0)
      << strerror(errno);
  return fd;
}

void sendTo(uint16_t port, const std::string& datagram, int fd) {
  sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = port;
  const ssize_t sent =
      sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
  EXPECT_EQ(sent, static_cast<ssize_t>(datagram.size())) << strerror(errno);
}

}  // namespace

namespace dns {

std::string head(const DnsQuestion& question, unsigned code, uint16_t answers, bool truncated) {
  constexpr unsigned response = 0x8180;  // with recursion
  constexpr unsigned cut = 0x0200;
  return be16(question.id) + be16(response | (truncated ? cut : 0) | code) + be16(1) +
         be16(answers) + be16(0) + be16(0) + question.bytes;
}

std::string addressRecord(const char* dotted, const std::string& owner) {
  const in_addr_t address = inet_addr(dotted);
  return record(owner, 1, std::string(reinterpret_cast<const char*>(&address), sizeof address));
}

std::string aliasRecord(const std::string& owner, const std::string& target) {
  return record(owner, 5, wireName(target));
}

std::string addresses(const DnsQuestion& question, const std::vector<const char*>& dotted) {
  std::string answer = head(question, 0, static_cast<uint16_t>(dotted.size()));
  for (const char* address : dotted) answer += addressRecord(address);
  return answer;
}

std::string failure(const DnsQuestion& question, unsigned code) { return head(question, code, 0); }

}  // namespace dns

NameServer::NameServer(const char* address)
    : udp_(bound(SOCK_DGRAM, address)), tcp_(bound(SOCK_STREAM, address)) {
  EXPECT_EQ(listen(tcp_.get(), 8), 0);
  udpWatch_.start<&NameServer::question>(udp_.get(), *this, lm::watchRead);
  tcpWatch_.start<&NameServer::client>(tcp_.get(), *this, lm::watchRead);
}

void NameServer::send(const DnsQuestion& to, const std::string& datagram) const {
  sendTo(to.port, datagram, udp_.get());
}

void NameServer::sendFromElsewhere(const DnsQuestion& to, const std::string& datagram) {
  const lm::Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sendTo(to.port, datagram, fd.get());
}

void NameServer::question(int fd) {
  std::array<char, 2048> buffer = {};
  sockaddr_in from = {};
  socklen_t length = sizeof from;
  const ssize_t got =
      recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
  if (got < 0) return;
  asked.push_back(readQuestion(std::string(buffer.data(), static_cast<size_t>(got))));
  asked.back().port = from.sin_port;
  for (const std::string& datagram : answerTo(asked.back())) send(asked.back(), datagram);
}

void NameServer::client(int fd) {
  client_.reset(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  clientWatch_.start<&NameServer::clientQuestion>(client_.get(), *this, lm::watchRead);
}

void NameServer::clientQuestion(int fd) {
  std::array<char, 2048> buffer = {};
  const ssize_t got = read(fd, buffer.data(), buffer.size());
  if (got > 2) {
    const DnsQuestion question =
        readQuestion(std::string(buffer.data() + 2, static_cast<size_t>(got) - 2));
    for (const std::string& message : answerByTcp ? answerByTcp(question) : answerTo(question)) {
      const std::string framed = be16(static_cast<unsigned>(message.size())) + message;
      EXPECT_EQ(write(fd, framed.data(), framed.size()), static_cast<ssize_t>(framed.size()));
    }
    return;
  }
  clientWatch_.stop();
  client_.reset();
}

std::vector<std::string> NameServer::answerTo(const DnsQuestion& question) const {
  if (answer) return answer(question);
  const auto host = hosts.find(question.name);
  if (host == hosts.end()) return {dns::failure(question, dns::noSuchName)};
  return {dns::addresses(question, {host->second})};
}

}  // namespace lumen::test
