#include "NoxBaseConfig.h"

#include <cstdio>
#include <cstring>

#include "NoxLog.h"

namespace {
// One chunk of a line: 256 characters and the terminator.
constexpr int kLineChunk = 257;
}  // namespace

NoxBaseConfig::~NoxBaseConfig() = default;

NoxRetType NoxBaseConfig::parseConfigFile(const NoxConfigParseControl& control,
                                          std::map<int, std::string>& result) const {
  FILE* file = fopen(control.fileName.c_str(), "r");
  if (file == nullptr) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_CONFIG, "NoxConfig::parseConfigFile: Failed to open file %s",
            control.fileName.c_str());
    return NOX_RET_ERR_OPENING_FILE;
  }
  std::map<int, std::string> found;
  char buf[kLineChunk];
  while (fgets(buf, sizeof(buf), file) != nullptr) {
    // Only blanks and tabs are trimmed: plug-ins rely on values keeping their newline.
    const std::string raw(buf);
    const size_t first = raw.find_first_not_of(" \t");
    // A chunk of nothing but blanks and tabs is skipped like an empty line.
    if (first == std::string::npos) continue;
    const std::string line = raw.substr(first, raw.find_last_not_of(" \t") - first + 1);
    if (line[0] == '#') continue;
    const size_t colon = line.find(':');
    const std::string tag = line.substr(0, colon);
    auto it = control.tags.find(tag);
    if (it == control.tags.end()) continue;
    found.emplace(it->second, colon == std::string::npos ? line : line.substr(colon + 1));
  }
  fclose(file);
  if (found.empty()) {
    NOX_LOG(NOX_LOG_WARN, NOX_MOD_CONFIG,
            "NoxConfig::parseConfigFile: Couldn't find any valid tag from file %s",
            control.fileName.c_str());
    return NOX_RET_PARSER_NO_MATCH;
  }
  result = std::move(found);
  return NOX_RET_OK;
}
