// Framework service that knows which services an application depends on.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Hidl.h"

class DependentServices {
 public:
  // Names of the services that `app` depends on (appended to `out`).
  void getServices(std::string& app, std::vector<std::string>& out);
  // One pid per name, in order: -1 for an empty, unknown or dead service.
  void getServicePIDs(hidl_vec<hidl_string> names, hidl_vec<int>& pids);
  // Replaces `pids` with the pid of every registered service whose process
  // is alive (one entry per service, by service name).
  void getAllActiveServicePIDs(std::vector<int>& pids);
};

namespace kxhost {

// Host side of DependentServices: filled by the host runner and by tests.
class ServiceRegistry {
 public:
  static ServiceRegistry& instance();
  // Replaces the service list of `app` (in dependency order).
  void setAppServices(const std::string& app, const std::vector<std::string>& services);
  void setServicePid(const std::string& service, int pid);
  // Forgets the service's pid; app lists that name it keep the name.
  void removeService(const std::string& service);
  void clear();
  std::vector<std::string> servicesOf(const std::string& app) const;
  int pidOf(const std::string& service) const;  // -1 when unknown
  // Every registered service's pid, by service name, alive or not.
  std::vector<int> allPids() const;

 private:
  ServiceRegistry() = default;

  // Guards mAppServices and mServicePids.
  mutable std::mutex mMutex;
  std::map<std::string, std::vector<std::string>> mAppServices;
  std::map<std::string, int> mServicePids;
};

// Whether `pid` names a live process. A process we may not signal (EPERM)
// is alive too: only its absence counts.
bool processAlive(int pid);

}  // namespace kxhost
