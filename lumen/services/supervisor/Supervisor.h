#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lumen/runtime/Clock.h"
#include "lumen/services/broker/Services.h"
#include "lumen/services/supervisor/Service.h"
#include "lumen/services/supervisor/ServiceFile.h"
#include "lumen/services/system/processes/Processes.h"
#include "platform/Timer.h"

namespace lumen {

/// Starts the services, waits for their ends and starts them again.
class Supervisor : public Services, public Processes::Observer {
 public:
  class RequestListener {
   public:
    virtual ~RequestListener() = default;
    /// A request for the service is about to be passed on to it.
    virtual void asked(const ServiceDefinition& service) = 0;
  };

  /// `definitions` come in rising order of number. `processes` and `clock` must outlive this.
  Supervisor(std::vector<ServiceDefinition> definitions, Processes& processes,
             const lm::Clock& clock, const std::string& runDirectory);

  /// Must be called before anything else; the observer must live until the last call.
  void setObserver(Services::Observer& observer);
  /// `listener` must outlive this.
  void listenToRequests(RequestListener& listener) { requests_ = &listener; }

  /// Starts what starts at boot.
  void boot();
  /// Kills the service's process, if it has one.
  void end(uint32_t number, const std::string& why);
  /// Asks every process to end and kills those that are left after 5 seconds. Starts no more.
  void shutDown();
  /// Whether the shutdown is complete.
  [[nodiscard]] bool isShutDown() const;

  [[nodiscard]] bool isDefined(uint32_t number) const override;
  [[nodiscard]] std::string nameOf(uint32_t number) const override;
  [[nodiscard]] std::vector<uint32_t> servicesOf(uid_t user) const override;
  [[nodiscard]] bool mayAsk(uint32_t number) const override;
  [[nodiscard]] bool mayRead(uint32_t number) const override;
  [[nodiscard]] std::optional<PortGrant> portsOf(uint32_t number) const override;
  void asked(uint32_t number) override;
  bool need(uint32_t number, bool administrator) override;
  void registered(uint32_t number) override;
  void unregistered(uint32_t number) override;
  void lost(uint32_t number) override;
  [[nodiscard]] std::vector<lm::message> list() const override;
  [[nodiscard]] uint64_t residentMemory() const override;

  void processEnded(pid_t pid, int status) override;

 private:
  [[nodiscard]] Service* find(uint32_t number) const;
  void killRemaining();
  void giveUpRemaining();

  Processes& processes_;
  std::vector<std::unique_ptr<Service>> services_;
  Services::Observer* observer_ = nullptr;
  RequestListener* requests_ = nullptr;  // not owned; may be missing
  bool shuttingDown_ = false;
  bool stuck_ = false;  // not even killing has ended a process
  lm::Timer shutDownTimer_;
};

}  // namespace lumen
