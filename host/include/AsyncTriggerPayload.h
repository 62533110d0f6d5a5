// Trigger record that the framework hands to features and actions.
#pragma once

#include <cstdint>
#include <string>

struct AsyncTriggerPayload {
  int32_t hintID = 0;    // trigger code (4162, 4163, 4225, 4242, 4243, ...)
  int32_t hintType = 0;  // sub-kind of the trigger; for 4225: 2 launch, 101/102 launch completed
  std::string appName;   // package name of the application concerned
  int32_t pid = 0;       // process id that goes with the trigger
  int32_t data[6] = {};  // further trigger data, copied unchanged
};
