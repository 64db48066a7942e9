#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/Fd.h"
#include "platform/Watch.h"

namespace lumen::test {

/// What a name server was asked (RFC 1035, section 4.1).
struct DnsQuestion {
  uint16_t id = 0;
  uint16_t port = 0;  ///< that it came from, in network byte order
  std::string name;   ///< in small letters
  std::string bytes;  ///< the question section as it came
};

/// Answers as they go over the wire.
namespace dns {

inline constexpr unsigned formatError = 1;
inline constexpr unsigned serverFailure = 2;
inline constexpr unsigned noSuchName = 3;
inline constexpr unsigned notImplemented = 4;
inline constexpr unsigned refused = 5;

/// A header and the question, with this many answer records to follow.
[[nodiscard]] std::string head(const DnsQuestion& question, unsigned code, uint16_t answers,
                               bool truncated = false);
/// An A record of the queried name, or of `owner`.
[[nodiscard]] std::string addressRecord(const char* dotted, const std::string& owner = "");
/// A CNAME record.
[[nodiscard]] std::string aliasRecord(const std::string& owner, const std::string& target);

/// A complete answer with these addresses.
[[nodiscard]] std::string addresses(const DnsQuestion& question,
                                    const std::vector<const char*>& dotted);
/// A complete answer without records.
[[nodiscard]] std::string failure(const DnsQuestion& question, unsigned code);

}  // namespace dns

/// A name server on port 53 of an address of the private network, UDP and TCP, on the loop of the
/// test. It answers what `answer` gives, datagram by datagram, and stays silent when that is
/// nothing; without a script it knows `hosts`, and answers that no others exist.
class NameServer {
 public:
  using Script = std::function<std::vector<std::string>(const DnsQuestion&)>;

  explicit NameServer(const char* address = "127.0.0.1");
  NameServer(const NameServer&) = delete;
  NameServer& operator=(const NameServer&) = delete;

  /// Sends an answer by UDP at any time.
  void send(const DnsQuestion& to, const std::string& datagram) const;
  /// The same from another port.
  static void sendFromElsewhere(const DnsQuestion& to, const std::string& datagram);

  std::map<std::string, const char*> hosts;
  Script answer;
  /// What it answers over TCP, after its length; the same as by UDP when there is no such script.
  Script answerByTcp;
  std::vector<DnsQuestion> asked;  ///< by UDP

 private:
  void question(int fd);
  void client(int fd);
  void clientQuestion(int fd);
  [[nodiscard]] std::vector<std::string> answerTo(const DnsQuestion& question) const;

  lm::Fd udp_;
  lm::Fd tcp_;
  lm::Fd client_;
  lm::Watch udpWatch_;
  lm::Watch tcpWatch_;
  lm::Watch clientWatch_;
};

}  // namespace lumen::test
