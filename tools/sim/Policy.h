// Who frees memory ahead of a launch in a run: the plug-in with its shipped
// model ("vorak"), the plug-in with its model's safeload replaced
// ("vorak:safeload=0.25"), nobody but the device's low-memory killer
// ("none"), or the omniscient reference ("oracle").
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vsim {

struct Policy {
  enum class Kind { Vorak, None, Oracle };
  Kind kind = Kind::Vorak;
  std::optional<float> safeload;  // Vorak only: replaces the model's

  // As written on the command line: "vorak", "vorak:safeload=0.25", "none", "oracle".
  std::string name() const;
  // A directory name for the policy's run: "vorak-safeload-0.25".
  std::string dirName() const;
  // Whether the plug-in is enabled in the run.
  bool pluginActs() const { return kind == Kind::Vorak; }
};

class PolicyError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// Throws PolicyError naming what is wrong.
Policy parsePolicy(const std::string& text);
// A comma-separated list; each policy at most once.
std::vector<Policy> parsePolicies(const std::string& list);

}  // namespace vsim
