#include "lumen/services/supervisor/Supervisor.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "lumen/runtime/Time.h"

namespace lumen {

namespace {

constexpr std::chrono::seconds shutDownLimit(5);
constexpr std::chrono::seconds killLimit(1);

}  // namespace

Supervisor::Supervisor(std::vector<ServiceDefinition> definitions, Processes& processes,
                       const lm::Clock& clock, const std::string& runDirectory)
    : processes_(processes) {
  for (ServiceDefinition& definition : definitions) {
    services_.push_back(
        std::make_unique<Service>(std::move(definition), processes, clock, runDirectory));
  }
  processes.setObserver(*this);
}

void Supervisor::setObserver(Services::Observer& observer) {
  observer_ = &observer;
  for (const auto& service : services_) service->setObserver(observer);
}

void Supervisor::boot() {
  for (const auto& service : services_) {
    if (service->definition().boot) service->boot();
  }
}

void Supervisor::end(uint32_t number, const std::string& why) {
  if (Service* const service = find(number)) service->end(why);
}

void Supervisor::shutDown() {
  if (shuttingDown_) return;
  shuttingDown_ = true;
  for (const auto& service : services_) service->shutDown();
  shutDownTimer_.start<&Supervisor::killRemaining>(*this, timerDelay(shutDownLimit));
}

void Supervisor::killRemaining() {
  for (const auto& service : services_) service->kill();
  shutDownTimer_.start<&Supervisor::giveUpRemaining>(*this, timerDelay(killLimit));
}

void Supervisor::giveUpRemaining() { stuck_ = true; }

bool Supervisor::isShutDown() const {
  const auto hasProcess = [](const auto& service) { return service->pid() != 0; };
  return shuttingDown_ && (stuck_ || std::none_of(services_.begin(), services_.end(), hasProcess));
}

Service* Supervisor::find(uint32_t number) const {
  const auto matches = [&](const auto& service) { return service->definition().number == number; };
  const auto found = std::find_if(services_.begin(), services_.end(), matches);
  return found == services_.end() ? nullptr : found->get();
}

bool Supervisor::isDefined(uint32_t number) const { return find(number) != nullptr; }

std::string Supervisor::nameOf(uint32_t number) const {
  const Service* const service = find(number);
  return service == nullptr ? std::string() : service->definition().name;
}

std::vector<uint32_t> Supervisor::servicesOf(uid_t user) const {
  std::vector<uint32_t> numbers;
  for (const auto& service : services_) {
    if (service->definition().user == user) numbers.push_back(service->definition().number);
  }
  return numbers;
}

bool Supervisor::mayAsk(uint32_t number) const {
  const Service* const service = find(number);
  return service != nullptr && !service->definition().answersOnly && !service->definition().reads;
}

bool Supervisor::mayRead(uint32_t number) const {
  const Service* const service = find(number);
  return service != nullptr && service->definition().reads;
}

std::optional<PortGrant> Supervisor::portsOf(uint32_t number) const {
  const Service* const service = find(number);
  return service == nullptr ? std::nullopt : service->definition().ports;
}

void Supervisor::asked(uint32_t number) {
  const Service* const service = find(number);
  if (service != nullptr && requests_ != nullptr) requests_->asked(service->definition());
}

bool Supervisor::need(uint32_t number, bool administrator) {
  Service* const service = find(number);
  return service != nullptr && service->need(administrator);
}

void Supervisor::registered(uint32_t number) {
  if (Service* const service = find(number)) service->registered();
}

void Supervisor::unregistered(uint32_t number) {
  if (Service* const service = find(number)) service->unregistered();
}

void Supervisor::lost(uint32_t number) {
  if (Service* const service = find(number)) service->lost();
}

std::vector<lm::message> Supervisor::list() const {
  std::vector<lm::message> records;
  for (const auto& service : services_) records.push_back(service->record());
  return records;
}

uint64_t Supervisor::residentMemory() const { return processes_.residentMemory(getpid()); }

void Supervisor::processEnded(pid_t pid, int status) {
  observer_->drainConnections(pid);
  for (const auto& service : services_) {
    if (service->pid() == pid) return service->ended(status);
  }
}

}  // namespace lumen
