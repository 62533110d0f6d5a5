// vorak-model: encode, decode and check the kill model files.
//
// Exit status: 0 success; 1 the model lacks something the device needs
// (check, or encode without --allow-partial); 2 unreadable or unparseable
// input, unwritable output, or bad usage.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/text_format.h>

#include "Vorak.pb.h"
#include "VorakFeatureNames.h"

namespace {

namespace pb = google::protobuf;

constexpr const char* kProg = "vorak-model";
constexpr int kExitOk = 0;
constexpr int kExitIncomplete = 1;
constexpr int kExitBadInput = 2;

// Ends the command with a one-line message on stderr.
struct ToolError {
  int code;
  std::string message;
};

std::string displayName(const std::string& path) { return path == "-" ? "<stdin>" : path; }

std::string readAll(const std::string& path) {
  FILE* f = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  if (f == nullptr) throw ToolError{kExitBadInput, path + ": " + std::strerror(errno)};
  std::string data;
  char buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) data.append(buf, n);
  const bool failed = std::ferror(f) != 0;
  const int err = errno;
  if (f != stdin) std::fclose(f);
  if (failed) throw ToolError{kExitBadInput, displayName(path) + ": " + std::strerror(err)};
  return data;
}

void writeAll(const std::string& path, const std::string& data) {
  FILE* f = path == "-" ? stdout : std::fopen(path.c_str(), "wb");
  if (f == nullptr) throw ToolError{kExitBadInput, path + ": " + std::strerror(errno)};
  bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
  ok = (f == stdout ? std::fflush(f) : std::fclose(f)) == 0 && ok;
  if (!ok) throw ToolError{kExitBadInput, (path == "-" ? "<stdout>" : path) + ": " + std::strerror(errno)};
}

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

// Required fields are checked separately so that every gap can be reported
// by name rather than by the parser's first complaint.
void parseText(const std::string& path, const std::string& text, VorakModel& model) {
  FirstErrorCollector errors;
  pb::TextFormat::Parser parser;
  parser.AllowPartialMessage(true);
  parser.RecordErrorsTo(&errors);
  if (!parser.ParseFromString(text, &model)) {
    const std::string where = errors.first().empty() ? " not a valid text VorakModel" : errors.first();
    throw ToolError{kExitBadInput, displayName(path) + ":" + where};
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
    throw ToolError{kExitBadInput, displayName(path) + ": not a valid binary VorakModel" + hint};
  }
}

std::string formatFloat(float v) {
  std::ostringstream s;
  s << v;
  return s.str();
}

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

// Every missing required field, named as a path, in key order.
std::vector<std::string> missingPaths(const VorakModel& model) {
  std::vector<std::string> paths = missingRequired(model);
  const std::map<std::string, VorakModel::Feature> sorted(model.features().begin(), model.features().end());
  for (const auto& [key, feature] : sorted) {
    for (const auto& field : missingRequired(feature)) paths.push_back("features[\"" + key + "\"]." + field);
  }
  return paths;
}

std::string serialize(const VorakModel& model) {
  std::string out;
  {
    pb::io::StringOutputStream stream(&out);
    pb::io::CodedOutputStream coded(&stream);
    // Sorted map entries: the same model always encodes to the same bytes.
    coded.SetSerializationDeterministic(true);
    model.SerializePartialToCodedStream(&coded);
  }
  return out;
}

int runEncode(const std::string& in, const std::string& out, bool allowPartial) {
  VorakModel model;
  parseText(in, readAll(in), model);
  const auto missing = missingPaths(model);
  if (!missing.empty() && !allowPartial) {
    throw ToolError{kExitIncomplete, displayName(in) + ": missing required fields: " + join(missing)};
  }
  writeAll(out, serialize(model));
  return kExitOk;
}

int runDecode(const std::string& in, const std::string& out) {
  VorakModel model;
  parseBinary(in, readAll(in), model);
  const auto missing = missingPaths(model);
  if (!missing.empty()) {
    std::cerr << kProg << ": warning: " << displayName(in) << ": missing required fields: " << join(missing)
              << "\n";
  }
  std::string text;
  pb::TextFormat::PrintToString(model, &text);
  writeAll(out, text);
  return kExitOk;
}

int runCheck(const std::string& path, const std::string& format) {
  const std::string data = readAll(path);
  const bool text = format == "text" || (format == "auto" && looksLikeText(data));
  VorakModel model;
  if (text) {
    parseText(path, data, model);
  } else {
    parseBinary(path, data, model);
  }

  std::vector<std::string> problems;
  for (const auto& field : missingRequired(model)) problems.push_back("missing required field: " + field);

  const std::map<std::string, VorakModel::Feature> sorted(model.features().begin(), model.features().end());
  std::vector<std::string> notes;
  for (const auto& [key, feature] : sorted) {
    const auto missing = missingRequired(feature);
    if (!missing.empty()) {
      problems.push_back("feature \"" + key + "\": missing required field" + (missing.size() > 1 ? "s: " : ": ") +
                         join(missing));
    } else if (feature.min() == feature.max()) {
      problems.push_back("feature \"" + key + "\": min equals max (" + formatFloat(feature.min()) +
                         "), so the kill decision ignores it");
    }
  }
  const std::set<std::string_view> known(kVorakFeatureNames.begin(), kVorakFeatureNames.end());
  for (const auto name : kVorakFeatureNames) {
    if (model.features().count(std::string(name)) == 0) {
      problems.push_back("missing feature: \"" + std::string(name) + "\"");
    }
  }
  for (const auto& entry : sorted) {
    if (known.count(entry.first) == 0) notes.push_back("feature \"" + entry.first + "\" is not used by the kill decision");
  }

  const std::string name = displayName(path);
  std::cout << name << ": " << (text ? "text" : "binary") << " model, " << model.features_size() << " features\n";
  for (const auto& n : notes) std::cout << name << ": note: " << n << "\n";
  for (const auto& p : problems) std::cout << name << ": " << p << "\n";
  if (problems.empty()) {
    std::cout << name << ": complete\n";
    return kExitOk;
  }
  std::cout << name << ": " << problems.size() << (problems.size() == 1 ? " problem\n" : " problems\n");
  return kExitIncomplete;
}

std::string oneLine(std::string s) {
  for (char& c : s) {
    if (c == '\n') c = ' ';
  }
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  GOOGLE_PROTOBUF_VERIFY_VERSION;
  // Errors are reported by this program, one line each; the library's own
  // log lines would only repeat them.
  pb::SetLogHandler(nullptr);

  CLI::App app{"Encode, decode and check kill model files (VorakModel).", kProg};
  app.require_subcommand(1, 1);
  app.footer(
      "Exit status: 0 success, 1 model incomplete, 2 unreadable or unparseable input, "
      "unwritable output or bad usage. \"-\" stands for stdin or stdout.");

  std::string in;
  std::string out = "-";
  bool allowPartial = false;
  std::string format = "auto";

  auto* encode = app.add_subcommand("encode", "Encode a text model into the binary form the device reads.");
  encode->add_option("IN", in, "text model (\"-\" for stdin)")->required();
  encode->add_option("OUT", out, "binary output (\"-\" for stdout)")->required();
  encode->add_flag("--allow-partial", allowPartial, "encode even when required fields are missing");

  auto* decode = app.add_subcommand("decode", "Decode a binary model into protobuf text.");
  decode->add_option("IN", in, "binary model (\"-\" for stdin)")->required();
  decode->add_option("OUT", out, "text output (default \"-\", stdout)");

  auto* check = app.add_subcommand(
      "check",
      "Check that a model, binary or text, has every required field and an entry for every input of the kill "
      "decision whose min differs from its max.");
  check->add_option("FILE", in, "model file (\"-\" for stdin)")->required();
  check->add_option("--format", format, "input format")
      ->check(CLI::IsMember({"auto", "binary", "text"}))
      ->capture_default_str();

  // Without this a mistyped command would only be told that one is required.
  if (argc > 1 && argv[1][0] != '-' && app.get_subcommands([&](CLI::App* s) { return s->check_name(argv[1]); }).empty()) {
    std::cerr << kProg << ": unknown command '" << argv[1] << "' (see --help)\n";
    return kExitBadInput;
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << kProg << ": " << oneLine(e.what()) << " (see --help)\n";
    return kExitBadInput;
  }

  try {
    if (*encode) return runEncode(in, out, allowPartial);
    if (*decode) return runDecode(in, out);
    return runCheck(in, format);
  } catch (const ToolError& e) {
    std::cerr << kProg << ": " << oneLine(e.message) << "\n";
    return e.code;
  } catch (const std::exception& e) {
    std::cerr << kProg << ": " << oneLine(e.what()) << "\n";
    return kExitBadInput;
  }
}
