// Parses arbitrary bytes as a plug-in's tagged configuration file and checks the values.

#include <diag_channel.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "NoxBaseConfig.h"
#include "NoxLog.h"

namespace {
void discardLine(const diag_msg_descriptor*, const char*) {}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = [] {
    msg_host_set_sink(discardLine);
    char name[] = "/tmp/noxconfig-fuzz-XXXXXX";
    const int fd = mkstemp(name);
    if (fd >= 0) close(fd);
    return std::string(name);
  }();
  FILE* file = fopen(path.c_str(), "wb");
  if (file == nullptr) return 0;
  fwrite(data, 1, size, file);
  fclose(file);

  NoxConfigParseControl control;
  control.fileName = path;
  control.tags = {{"grace_period_ms", 1}, {"allow_v4", 2}, {"allow_v6", 3}, {"a b", 4}, {"", 5}};
  std::map<int, std::string> result = {{9, "kept unless a tag matches"}};
  const NoxRetType rc = NoxBaseConfig().parseConfigFile(control, result);
  if (rc != NOX_RET_OK && rc != NOX_RET_PARSER_NO_MATCH) abort();
  if (rc == NOX_RET_PARSER_NO_MATCH && (result.size() != 1 || result.count(9) != 1)) abort();
  for (const auto& value : result) {
    // A value comes from one chunk of at most 256 characters of one line.
    if (value.second.size() > 256) abort();
    if (rc == NOX_RET_OK && (value.first < 1 || value.first > 5)) abort();
  }
  return 0;
}
