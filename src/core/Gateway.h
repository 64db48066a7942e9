#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "core/Addr.h"
#include "core/DevObj.h"
#include "core/Device.h"
#include "core/Paths.h"
#include "description/UpnpRootDevice.h"
#include "http/HTTPServer.h"
#include "http/HTTPStore.h"
#include "http/RequestHandler.h"
#include "igd/OSInfo.h"
#include "platform/Map.h"
#include "platform/Store.h"

/// The Internet Gateway Device: the platform's handler for the configured interfaces and the
/// settings, the root of the device tree, and the owner of everything that serves it.
///
/// While enabled, it follows the platform's interfaces and addresses. Each configured internal
/// interface that has an address is served. Each configured external interface adds a sub-tree with
/// two services to the root device.
///
/// An interface that disappears is forgotten but not stopped. What it had started remains until the
/// same interface returns, which retires it silently before starting anything itself, or until the
/// gateway is disabled. A search or a connection that still reaches its sockets ends the process.
class Gateway : public lm::Map<DevObj>, public UpnpRootDevice, private RequestHandler {
 public:
  Gateway();
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;
  /// Disables an enabled gateway.
  ~Gateway() override;

  /// Reads the router's identity, the configured interfaces and the settings, and starts
  /// accordingly. A gateway that is not enabled asks the loop to end.
  void init();

  [[nodiscard]] lm::message cmdGet(const lm::message& request) override;
  [[nodiscard]] lm::message cmdSet(const lm::message& request) override;
  [[nodiscard]] lm::message cmdUnknown(const lm::message& request, uint32_t command) override;
  /// The settings for the id lm::none, a configured interface for any other.
  [[nodiscard]] lm::message getObject(uint32_t id) override;

  /// Answers a search on a discovery socket that is ready.
  void handleSearch(int socket);
  /// Accepts a connection from a listening socket that is ready. Returns whether there was one.
  bool acceptHttp(int listenFd) { return httpServer_.acceptHttp(listenFd); }
  /// Announces the whole tree on an internal interface.
  void advertise(const Device& device) const;

 protected:
  [[nodiscard]] lm::message objectAdded(DevObj& added) override;
  [[nodiscard]] lm::message objectSet(DevObj& before, DevObj& after) override;
  [[nodiscard]] lm::message objectRemoved(DevObj& removed) override;

 private:
  // Gateway.cpp: lifecycle and settings.
  void describeRoot();
  void enable();
  void disable();
  /// Takes the settings present in the message; the others keep their values.
  void readSettings(const lm::message& from);
  void writeSettings(lm::message& to) const;

  // GatewayObjects.cpp: the configured interfaces.
  void applyObject(const DevObj& object);
  void withdrawObject(const DevObj& object);

  // GatewayTracking.cpp: the platform's interfaces and addresses.
  void refreshDevices();
  void deviceChanged(const lm::message& record);
  void addDevice(const lm::message& record);
  void devicesStatus(const lm::message& change);
  void deviceStatus(const lm::message& record);
  void addrsChanged(const lm::message& change);
  void addrChanged(const lm::message& record);
  void setDevAddr(uint32_t interface, uint32_t address, bool add);
  /// Null when the platform has not reported such an interface, or has reported it gone.
  [[nodiscard]] Device* knownDevice(uint32_t interface) const;

  // GatewayInterfaces.cpp: starting and stopping an interface, on the LAN side and the WAN side.
  /// Starts what the interface's type requires, unless it is started.
  void start(Device& device);
  /// Ends what start began.
  void stop(Device& device);
  void startInternal(Device& device);
  void stopInternal(Device& device);
  void startExternal(Device& device);
  void stopExternal(Device& device);
  /// Ends everything started on the interface, without notice to the LAN.
  void retire(Device& device);
  void registerService(Service& service, const UpnpServiceDescr& urls);
  void unregisterService(const Service* service);
  /// Adds a sub-tree to the embedded devices, or removes it.
  void embed(const UpnpDevice& wanDevice);
  void removeEmbedded(std::list<UpnpDevice>::iterator wanDevice);
  /// The interface's sub-tree among the embedded devices, or their end when it has none.
  [[nodiscard]] std::list<UpnpDevice>::iterator findWanDevice(const Device& device);
  void destroyServices(Device& device);
  void rebuildSearchTargets();
  /// On every internal interface that is started.
  void sendAdvertsEverywhere(const SearchTargets& targets, bool byebye) const;

  // GatewayRequests.cpp: searches and requests from the LAN.
  /// The interface that owns this discovery socket; ends the process with exit status 1 when none
  /// does.
  [[nodiscard]] const Device& findDevice(int socket) const;
  [[nodiscard]] std::shared_ptr<ServedInterface> findListener(int listenFd) override;
  [[nodiscard]] HTTPMessage handleHttpRequest(const ServedInterface& device,
                                              const HTTPMessage& request, const std::string& method,
                                              const std::string& url) override;
  [[nodiscard]] HTTPMessage describe(const ServedInterface& device, const HTTPMessage& request);

  lm::Store store{path::settingsStore, 5};                ///< record 0: the settings
  std::map<uint32_t, std::shared_ptr<Device>> devices;    ///< by interface id; never null
  std::map<uint32_t, std::shared_ptr<Device>> departed_;  ///< gone, with something still started
  std::map<uint32_t, Addr> addrs;                         ///< by address object id
  SearchTargets searchTargets;                            ///< of the whole tree
  std::string description_;   ///< the document last served; empty: not since the tree changed
  uint32_t describedAt_ = 0;  ///< the address in it
  HTTPStore httpStore{path::servedFiles};
  HTTPServer httpServer_{*this};
  std::map<std::string, Service*> eventServices;    ///< by eventSubURL
  std::map<std::string, Service*> controlServices;  ///< by controlURL
  OSInfo osInfo;
  bool enabled = false;
  bool allowDisableExternalInterface = true;
  bool showDummyRule = true;
  std::string identity;  ///< the router's, part of every UDN and USN
};

/// The process's gateway; null when there is none. For callbacks that only have their own record.
extern Gateway* theGateway;
