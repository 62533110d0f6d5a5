// Reference dependent-services source: what the host runner or a test
// registered, with liveness checked at the time of each query.
#include "DependentServices.h"

#include <cerrno>
#include <csignal>

namespace kxhost {

bool processAlive(int pid) {
  if (pid <= 0) return false;
  // Signal 0 only checks that the process exists; nothing is delivered.
  return kill(pid, 0) == 0 || errno == EPERM;
}

ServiceRegistry& ServiceRegistry::instance() {
  // Never destroyed: feature threads may query services at exit.
  static ServiceRegistry* registry = new ServiceRegistry();
  return *registry;
}

void ServiceRegistry::setAppServices(const std::string& app, const std::vector<std::string>& services) {
  std::lock_guard<std::mutex> lock(mMutex);
  mAppServices[app] = services;
}

void ServiceRegistry::setServicePid(const std::string& service, int pid) {
  std::lock_guard<std::mutex> lock(mMutex);
  mServicePids[service] = pid;
}

void ServiceRegistry::removeService(const std::string& service) {
  std::lock_guard<std::mutex> lock(mMutex);
  mServicePids.erase(service);
}

void ServiceRegistry::clear() {
  std::lock_guard<std::mutex> lock(mMutex);
  mAppServices.clear();
  mServicePids.clear();
}

std::vector<std::string> ServiceRegistry::servicesOf(const std::string& app) const {
  std::lock_guard<std::mutex> lock(mMutex);
  auto it = mAppServices.find(app);
  return it == mAppServices.end() ? std::vector<std::string>() : it->second;
}

int ServiceRegistry::pidOf(const std::string& service) const {
  std::lock_guard<std::mutex> lock(mMutex);
  auto it = mServicePids.find(service);
  return it == mServicePids.end() ? -1 : it->second;
}

std::vector<int> ServiceRegistry::allPids() const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<int> pids;
  pids.reserve(mServicePids.size());
  for (const auto& entry : mServicePids) pids.push_back(entry.second);
  return pids;
}

}  // namespace kxhost

void DependentServices::getServices(std::string& app, std::vector<std::string>& out) {
  for (std::string& name : kxhost::ServiceRegistry::instance().servicesOf(app)) out.push_back(std::move(name));
}

void DependentServices::getServicePIDs(hidl_vec<hidl_string> names, hidl_vec<int>& pids) {
  const auto& registry = kxhost::ServiceRegistry::instance();
  pids.resize(names.size());
  for (size_t i = 0; i < names.size(); ++i) {
    int pid = names[i].empty() ? -1 : registry.pidOf(names[i]);
    pids[i] = kxhost::processAlive(pid) ? pid : -1;
  }
}

void DependentServices::getAllActiveServicePIDs(std::vector<int>& pids) {
  pids.clear();
  for (int pid : kxhost::ServiceRegistry::instance().allPids())
    if (kxhost::processAlive(pid)) pids.push_back(pid);
}
