#include "core/GatewayFixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>

#include "net/Address.h"
#include "platform/Keys.h"

namespace {

const lm::test::Path interfaceTable = {20, 0};
const lm::test::Path addressTable = {20, 1};

Lines splitLines(const std::string& text) {
  std::istringstream in(text);
  Lines lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string field(const std::string& message, const std::string& name) {
  const size_t start = message.find("\r\n" + name + ": ");
  if (start == std::string::npos) return "no " + name;
  const size_t value = start + name.size() + 4;
  return message.substr(value, message.find("\r\n", value) - value);
}

void searchFor(const lm::Fd& socket, const std::string& target) {
  const std::string text =
      "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\n"
      "ST: " +
      target + "\r\n\r\n";
  sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_port = htons(1900);
  to.sin_addr.s_addr = inet_addr("239.255.255.250");
  const in_addr from = {inet_addr("192.168.88.10")};
  ASSERT_EQ(setsockopt(socket.get(), IPPROTO_IP, IP_MULTICAST_IF, &from, sizeof from), 0);
  ASSERT_GT(sendto(socket.get(), text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to),
                   sizeof to),
            0);
}

bool isReadable(const lm::Fd& socket) {
  char byte = 0;
  return recv(socket.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
}

}  // namespace

const Lines GatewayTest::rootTargets = {
    "upnp:rootdevice",
    "urn:schemas-microsoft-com:service:OSInfo:1",
    "urn:schemas-upnp-org:device:InternetGatewayDevice:1",
    "uuid:UUID-KESTRAVA-INTERNET-GATEWAY-DEVICE-TEST",
};

Lines GatewayTest::wanTargets(uint32_t interface) {
  return {
      "urn:schemas-upnp-org:device:WANConnectionDevice:1",
      "urn:schemas-upnp-org:device:WANDevice:1",
      "urn:schemas-upnp-org:service:WANCommonInterfaceConfig:1",
      "urn:schemas-upnp-org:service:WANIPConnection:1",
      "uuid:UUID-KESTRAVA-WAN-CONNECTION-DEVICE-TEST-" + std::to_string(interface),
      "uuid:UUID-KESTRAVA-WAN-DEVICE-TEST-" + std::to_string(interface),
  };
}

Lines GatewayTest::allTargets(uint32_t interface) {
  Lines all = rootTargets;
  for (const std::string& target : wanTargets(interface)) all.push_back(target);
  std::sort(all.begin(), all.end());
  return all;
}

Lines GatewayTest::marked(const std::string& mark, const Lines& targets) {
  Lines result;
  for (const std::string& target : targets) result.push_back((mark + " ").append(target));
  return result;
}

GatewayTest::GatewayTest() {
  PrivateRouter::get().emptyStores();
  lm::message identity;
  identity.insert_string(1, "TEST");
  platform.answer({65}, lm::cmd::get, identity);
  platform.onRequest({20, 5}, lm::cmd::addObject, [](const lm::message&) {
    lm::message rule;
    rule.insert_u32(lm::key::objectId, 77);
    return rule;
  });
  platform.answer({20, 5}, lm::cmd::removeObject, {});
  platformHasInterface(lan, {});
  platformHasInterface(wan, {});
  platformHasAddress(lanAddress, addressRecord(lanAddress, lan, "192.168.88.1"));
  platformHasAddress(wanAddress, addressRecord(wanAddress, wan, "45.45.45.2"));
  testing::internal::CaptureStdout();
}

GatewayTest::~GatewayTest() {
  stop();
  logged_ += testing::internal::GetCapturedStdout();
  // With the messages of the failures.
  if (HasFailure()) std::fputs(logged_.c_str(), stdout);
}

lm::message GatewayTest::interfaceRecord(uint32_t id) const {
  lm::message record;
  record.insert_u32(lm::key::objectId, id);
  record.insert_u32(0x10001, 1);
  record.insert_u32(0x10003, 0);
  record.insert_u32(0x10004, id == lan ? PrivateRouter::get().lanIndex() : 1000 + id);
  record.insert_string(0x10005, id == lan ? "lan0" : "wan" + std::to_string(id));
  record.insert_string(0x10006, id == lan ? "LAN" : "WAN");
  record.insert_bool(lm::key::disabled, false);
  record.insert_bool(0x1000e, true);
  return record;
}

lm::message GatewayTest::goneRecord(uint32_t id) const {
  lm::message record = interfaceRecord(id);
  record.insert_u32(0x10003, 0x80);
  return record;
}

lm::message GatewayTest::addressRecord(uint32_t id, uint32_t interface, const std::string& address,
                                       bool disabled) {
  lm::message record;
  record.insert_u32(lm::key::objectId, id);
  record.insert_u32(5, interface);
  record.insert_be32(1, strtoip(address));
  record.insert_bool(lm::key::disabled, disabled);
  return record;
}

void GatewayTest::platformHasInterface(uint32_t id, const lm::message& record) {
  interfaces[id] = record.get_u32(lm::key::objectId) == 0 ? interfaceRecord(id) : record;
  serveTables();
}

void GatewayTest::platformHasAddress(uint32_t id, const lm::message& record) {
  addresses[id] = record;
  serveTables();
}

void GatewayTest::platformForgetsAddress(uint32_t id) {
  addresses.erase(id);
  serveTables();
}

void GatewayTest::serveTables() {
  platform.serveTable(interfaceTable, lm::cmd::list, interfaces);
  platform.serveTable(interfaceTable, lm::cmd::readAll, interfaces);
  platform.serveTable(addressTable, lm::cmd::readAll, addresses);
}

void GatewayTest::tellOfInterface(const lm::message& record) {
  platform.notify(lm::cmd::interfaceChanged, interfaceTable, record);
}

void GatewayTest::tellStates(const std::vector<lm::message>& records) {
  lm::message change;
  change.insert_message_array(lm::key::records, records);
  platform.notify(lm::cmd::changed, interfaceTable, change);
}

void GatewayTest::tellAddresses(const std::vector<lm::message>& records) {
  lm::message change;
  change.insert_message_array(lm::key::records, records);
  platform.notify(lm::cmd::changed, addressTable, change);
}

lm::message GatewayTest::addObject(uint32_t interface, uint32_t type, bool disabled) {
  lm::message fields;
  fields.insert_bool(lm::key::disabled, disabled);
  fields.insert_u32(1, interface);
  fields.insert_u32(2, type);
  return platform.request(0, lm::cmd::addObject, fields);
}

lm::message GatewayTest::setObject(uint32_t id, const lm::message& fields) {
  lm::message request = fields;
  request.insert_u32(lm::key::objectId, id);
  return platform.request(0, lm::cmd::setObject, request);
}

lm::message GatewayTest::removeObject(uint32_t id) {
  lm::message request;
  request.insert_u32(lm::key::objectId, id);
  return platform.request(0, lm::cmd::removeObject, request);
}

lm::message GatewayTest::settings(std::optional<bool> enabled, std::optional<bool> allowDisable,
                                  std::optional<bool> showDummy) {
  lm::message result;
  if (enabled) result.insert_bool(1, *enabled);
  if (allowDisable) result.insert_bool(2, *allowDisable);
  if (showDummy) result.insert_bool(3, *showDummy);
  return result;
}

lm::message GatewayTest::write(const lm::message& newSettings) {
  return platform.request(0, lm::cmd::set, newSettings);
}

void GatewayTest::start() {
  looper.emplace(platform.makeRuntime());
  gateway = std::make_unique<Gateway>();
  theGateway = gateway.get();
  looper->addHandler(0, *gateway);
  gateway->init();
}

void GatewayTest::serve() {
  start();
  addObject(lan, internal);
  addObject(wan, external);
  enable();
  platform.forgetSent();
  (void)log();
}

void GatewayTest::stop() {
  gateway.reset();
  looper.reset();
}

Lines GatewayTest::log() {
  const std::string text = testing::internal::GetCapturedStdout();
  testing::internal::CaptureStdout();
  logged_ += text;
  return splitLines(text);
}

void GatewayTest::showLog() { dup2(STDERR_FILENO, STDOUT_FILENO); }

Lines GatewayTest::announced() {
  Lines result;
  for (const std::string& text : PrivateRouter::get().received(group)) {
    result.push_back(field(text, "NTS") + " " + field(text, "NT"));
  }
  return result;
}

Lines GatewayTest::found(const std::string& target) {
  const PrivateRouter& router = PrivateRouter::get();
  const lm::Fd asker = router.hostSocket(SOCK_DGRAM);
  searchFor(asker, target);
  // Searches are answered in the order in which they come.
  const lm::Fd later = router.hostSocket(SOCK_DGRAM);
  searchFor(later, "upnp:rootdevice");
  EXPECT_TRUE(platform.turnUntil([&] { return isReadable(later); }));
  Lines result;
  for (const std::string& reply : router.received(asker)) result.push_back(field(reply, "ST"));
  return result;
}

lm::Fd GatewayTest::connectToGateway() {
  lm::Fd client = PrivateRouter::get().hostSocket(SOCK_STREAM);
  sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_port = htons(2828);
  to.sin_addr.s_addr = inet_addr("192.168.88.1");
  const timeval limit = {2, 0};
  setsockopt(client.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  if (connect(client.get(), reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) client.reset();
  return client;
}

void GatewayTest::send(const lm::Fd& client, const std::string& bytes) {
  ASSERT_EQ(::send(client.get(), bytes.data(), bytes.size(), 0),
            static_cast<ssize_t>(bytes.size()));
}

std::string GatewayTest::readToEnd(const lm::Fd& client) {
  std::string received;
  EXPECT_TRUE(platform.turnUntil([&] {
    std::array<char, 65536> bytes;
    const ssize_t size = recv(client.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size > 0) received.append(bytes.data(), static_cast<size_t>(size));
    return size == 0;
  }));
  return received;
}

std::string GatewayTest::exchange(const std::string& request) {
  const lm::Fd client = connectToGateway();
  if (!client.valid()) return "refused";
  send(client, request);
  return readToEnd(client);
}

std::string GatewayTest::status(const std::string& requestLine, const std::string& fields) {
  const std::string reply = exchange(requestLine + " HTTP/1.1\r\n" + fields + "\r\n");
  return reply.substr(0, reply.find("\r\n"));
}

std::string GatewayTest::invoke(const std::string& controlUrl, const std::string& action,
                                const std::string& arguments) {
  const std::string body =
      "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
      "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:" +
      action + ">" + arguments + "</u:" + action + "></s:Body></s:Envelope>";
  return exchange("POST " + controlUrl +
                  " HTTP/1.1\r\nHOST: 192.168.88.1:2828\r\nCONTENT-TYPE: text/xml\r\n"
                  "SOAPACTION: \"urn:any#" +
                  action + "\"\r\nCONTENT-LENGTH: " + std::to_string(body.size()) + "\r\n\r\n" +
                  body);
}

void GatewayTest::openPort(uint32_t interface) {
  const std::string reply =
      invoke("/upnp/control/wanipconn-" + std::to_string(interface), "AddPortMapping",
             "<NewRemoteHost></NewRemoteHost><NewExternalPort>8080</NewExternalPort>"
             "<NewProtocol>TCP</NewProtocol><NewInternalPort>80</NewInternalPort>"
             "<NewInternalClient>192.168.88.10</NewInternalClient><NewEnabled>1</NewEnabled>"
             "<NewPortMappingDescription>test</NewPortMappingDescription>"
             "<NewLeaseDuration>0</NewLeaseDuration>");
  ASSERT_EQ(reply.substr(0, reply.find("\r\n")), "HTTP/1.1 200 OK");
}
