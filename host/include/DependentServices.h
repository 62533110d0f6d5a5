// Framework service that knows which services an application depends on.
#pragma once

#include <string>
#include <vector>

#include "Hidl.h"

class DependentServices {
 public:
  // Names of the services that `app` depends on (appended to `out`).
  void getServices(std::string& app, std::vector<std::string>& out);
  // One pid per name, in order: -1 for an empty, unknown or dead service.
  void getServicePIDs(hidl_vec<hidl_string> names, hidl_vec<int>& pids);
  // Pids of every known service whose process is alive.
  void getAllActiveServicePIDs(std::vector<int>& pids);
};

namespace kxhost {

// Host side of DependentServices: filled by the host runner and by tests.
class ServiceRegistry {
 public:
  static ServiceRegistry& instance();
  void setAppServices(const std::string& app, const std::vector<std::string>& services);
  void setServicePid(const std::string& service, int pid);
  void removeService(const std::string& service);
  void clear();
  std::vector<std::string> servicesOf(const std::string& app) const;
  int pidOf(const std::string& service) const;  // -1 when unknown
  std::vector<int> allPids() const;
};

}  // namespace kxhost
