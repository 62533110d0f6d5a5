#include "ModelFile.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/text_format.h>

#include "VorakFeatureNames.h"

namespace vmodel {
namespace {

namespace pb = google::protobuf;

// Keeps the first error of a text parse, with 1-based line and column.
class FirstErrorCollector : public pb::io::ErrorCollector {
 public:
  void AddError(int line, pb::io::ColumnNumber column, const std::string& message) override {
    if (mFirst.empty()) mFirst = std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " + message;
  }
  const std::string& first() const { return mFirst; }

 private:
  std::string mFirst;
};

std::vector<std::string> missingRequired(const pb::Message& msg) {
  std::vector<std::string> missing;
  const pb::Descriptor* d = msg.GetDescriptor();
  const pb::Reflection* r = msg.GetReflection();
  for (int i = 0; i < d->field_count(); ++i) {
    const pb::FieldDescriptor* f = d->field(i);
    if (f->is_required() && !r->HasField(msg, f)) missing.push_back(f->name());
  }
  return missing;
}

std::string join(const std::vector<std::string>& parts) {
  std::string out;
  for (const auto& p : parts) out += (out.empty() ? "" : ", ") + p;
  return out;
}

std::string formatFloat(float v) {
  std::ostringstream s;
  s << v;
  return s.str();
}

std::map<std::string, VorakModel::Feature> sortedFeatures(const VorakModel& model) {
  return {model.features().begin(), model.features().end()};
}

// A NaN or infinite figure poisons every sum it enters: the kill decision's
// checked arithmetic then yields 0 and the model silently stops killing.
void checkNumbers(const VorakModel& model, std::vector<std::string>& problems) {
  auto finite = [&](bool has, float v, const std::string& what) {
    if (has && !std::isfinite(v)) problems.push_back(what + " is not a finite number (" + formatFloat(v) + ")");
    return has && std::isfinite(v);
  };
  finite(model.has_bias(), model.bias(), "bias");
  if (finite(model.has_safeload(), model.safeload(), "safeload") && !(model.safeload() > 0 && model.safeload() < 1)) {
    problems.push_back("safeload " + formatFloat(model.safeload()) +
                       " lies outside (0, 1): it is the share of memory to keep free after a launch");
  }
  for (const auto& [key, f] : sortedFeatures(model)) {
    const std::string name = "feature \"" + key + "\": ";
    finite(f.has_min(), f.min(), name + "min");
    finite(f.has_max(), f.max(), name + "max");
    finite(f.has_weight(), f.weight(), name + "weight");
  }
}

}  // namespace

std::string displayName(const std::string& path) { return path == "-" ? "<stdin>" : path; }

std::string readAll(const std::string& path) {
  FILE* f = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  if (f == nullptr) throw ModelError(kExitBadInput, path + ": " + std::strerror(errno));
  std::string data;
  char buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) data.append(buf, n);
  const bool failed = std::ferror(f) != 0;
  const int err = errno;
  if (f != stdin) std::fclose(f);
  if (failed) throw ModelError(kExitBadInput, displayName(path) + ": " + std::strerror(err));
  return data;
}

void writeAll(const std::string& path, const std::string& data) {
  FILE* f = path == "-" ? stdout : std::fopen(path.c_str(), "wb");
  if (f == nullptr) throw ModelError(kExitBadInput, path + ": " + std::strerror(errno));
  bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
  ok = (f == stdout ? std::fflush(f) : std::fclose(f)) == 0 && ok;
  if (!ok) throw ModelError(kExitBadInput, (path == "-" ? "<stdout>" : path) + ": " + std::strerror(errno));
}

void parseText(const std::string& path, const std::string& text, VorakModel& model) {
  FirstErrorCollector errors;
  pb::TextFormat::Parser parser;
  parser.AllowPartialMessage(true);
  parser.RecordErrorsTo(&errors);
  if (!parser.ParseFromString(text, &model)) {
    const std::string where = errors.first().empty() ? " not a valid text VorakModel" : errors.first();
    throw ModelError(kExitBadInput, displayName(path) + ":" + where);
  }
}

// An encoded model always carries tag bytes below 0x20 (0x15 for bias, 0x1d
// for safeload, 0x12 for a feature's value); text never has such bytes other
// than white space.
bool looksLikeText(const std::string& data) {
  if (data.empty()) return false;
  for (unsigned char c : data) {
    if (c < 0x20 && c != '\t' && c != '\n' && c != '\v' && c != '\f' && c != '\r') return false;
    if (c == 0x7f) return false;
  }
  return true;
}

void parseBinary(const std::string& path, const std::string& bytes, VorakModel& model) {
  if (!model.ParsePartialFromString(bytes)) {
    const char* hint = looksLikeText(bytes) ? " (this looks like text)" : "";
    throw ModelError(kExitBadInput, displayName(path) + ": not a valid binary VorakModel" + hint);
  }
}

VorakModel loadModel(const std::string& path) {
  const std::string data = readAll(path);
  VorakModel model;
  if (looksLikeText(data)) parseText(path, data, model);
  else parseBinary(path, data, model);
  return model;
}

std::string encode(const VorakModel& model) {
  std::string out;
  {
    pb::io::StringOutputStream stream(&out);
    pb::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    model.SerializePartialToCodedStream(&coded);
  }
  return out;
}

std::string toText(const VorakModel& model) {
  // The printer sorts map entries by key.
  std::string text;
  pb::TextFormat::PrintToString(model, &text);
  return text;
}

std::vector<std::string> missingPaths(const VorakModel& model) {
  std::vector<std::string> paths = missingRequired(model);
  for (const auto& [key, feature] : sortedFeatures(model)) {
    for (const auto& field : missingRequired(feature)) paths.push_back("features[\"" + key + "\"]." + field);
  }
  return paths;
}

CheckResult checkModel(const VorakModel& model) {
  CheckResult r;
  for (const auto& field : missingRequired(model)) r.problems.push_back("missing required field: " + field);
  checkNumbers(model, r.problems);
  const auto sorted = sortedFeatures(model);
  for (const auto& [key, feature] : sorted) {
    const auto missing = missingRequired(feature);
    if (!missing.empty()) {
      r.problems.push_back("feature \"" + key + "\": missing required field" + (missing.size() > 1 ? "s: " : ": ") +
                           join(missing));
    } else if (feature.min() == feature.max()) {
      r.problems.push_back("feature \"" + key + "\": min equals max (" + formatFloat(feature.min()) +
                           "), so the kill decision ignores it");
    }
  }
  const std::set<std::string_view> known(kVorakFeatureNames.begin(), kVorakFeatureNames.end());
  for (const auto name : kVorakFeatureNames) {
    if (model.features().count(std::string(name)) == 0) r.problems.push_back("missing feature: \"" + std::string(name) + "\"");
  }
  for (const auto& entry : sorted) {
    if (known.count(entry.first) == 0) r.notes.push_back("feature \"" + entry.first + "\" is not used by the kill decision");
  }
  return r;
}

}  // namespace vmodel
