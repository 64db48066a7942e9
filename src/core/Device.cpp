#include "core/Device.h"

#include "core/Gateway.h"
#include "http/HTTPServer.h"
#include "http/Server.h"
#include "net/Sockets.h"
#include "platform/Keys.h"
#include "platform/wire/Interfaces.h"
#include "ssdp/Advertiser.h"

void Device::openSockets(Gateway& gateway) {
  discoverySocket.reset(
      makeDiscoverySocket(interfaceName(), record.get_u32(lm::interfaces::key::index), address));
  discoveryWatch_.start<&Gateway::handleSearch>(discoverySocket.get(), gateway, lm::watchRead);
  listenSocket.reset(makeTcpSocket(interfaceName(), HTTP_PORT));
  if (listenSocket.valid() && !HTTPServer::prepareListener(listenSocket.get())) {
    listenSocket.reset();
  }
  listenWatch_.start<&Gateway::acceptHttp>(listenSocket.get(), gateway, lm::watchAccept);
  timer_.start<&Device::advertTimer>(*this, ADVERT_INTERVAL);
}

void Device::closeSockets() {
  timer_.stop();
  discoveryWatch_.stop();
  listenWatch_.stop();
  discoverySocket.reset();
  listenSocket.reset();
}

uint32_t Device::currentAddress() const {
  if (addresses.contains(address)) return address;
  return addresses.empty() ? 0 : *addresses.begin();
}

WANIPConnection::Status Device::connectionStatus() const {
  if (disabled) return WANIPConnection::STATUS_DISCONNECTED;
  return running ? WANIPConnection::STATUS_CONNECTED : WANIPConnection::STATUS_CONNECTING;
}

uint32_t Device::id() const { return record.get_u32(lm::key::objectId); }

std::string Device::displayName() const {
  return record.get_string(lm::interfaces::key::displayName);
}

std::string Device::interfaceName() const { return record.get_string(lm::interfaces::key::name); }

void Device::advertTimer() {
  theGateway->advertise(*this);
  timer_.start<&Device::advertTimer>(*this, ADVERT_INTERVAL);
}
