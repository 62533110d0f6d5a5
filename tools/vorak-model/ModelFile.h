// Reading, writing and checking kill model files (VorakModel), in the binary
// form the device reads and in protobuf text.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "Vorak.pb.h"

namespace vmodel {

// Exit status of the tool for an error: 1 the model lacks something the
// device needs, 2 unreadable or unparseable input, unwritable output.
constexpr int kExitIncomplete = 1;
constexpr int kExitBadInput = 2;

// Ends a command with a one-line message on stderr and `code` as exit status.
class ModelError : public std::runtime_error {
 public:
  ModelError(int code, const std::string& message) : std::runtime_error(message), mCode(code) {}
  int code() const { return mCode; }

 private:
  int mCode;
};

// "-" is stdin / stdout; both throw ModelError(kExitBadInput).
std::string readAll(const std::string& path);
void writeAll(const std::string& path, const std::string& data);
std::string displayName(const std::string& path);

// Partial parses: required fields are checked by missingPaths(), so that
// every gap can be named.
void parseText(const std::string& path, const std::string& text, VorakModel& model);
void parseBinary(const std::string& path, const std::string& bytes, VorakModel& model);
bool looksLikeText(const std::string& data);
// Either form, told apart by its bytes.
VorakModel loadModel(const std::string& path);

// Sorted map entries: the same model always encodes to the same bytes and text.
std::string encode(const VorakModel& model);
std::string toText(const VorakModel& model);

// Every missing required field, named as a path, in key order.
std::vector<std::string> missingPaths(const VorakModel& model);

struct CheckResult {
  std::vector<std::string> problems;  // what the device would get wrong
  std::vector<std::string> notes;     // worth knowing, harmless
};
// Required fields, finite numbers, a safeload in (0, 1), and an entry whose
// min differs from its max for every input of the kill decision.
CheckResult checkModel(const VorakModel& model);

}  // namespace vmodel
