#ifndef NOX_BASE_CONFIG_H
#define NOX_BASE_CONFIG_H

// Tagged configuration files for the plug-ins: one "tag:value" per line, "#" starts
// a comment line.

#include <map>
#include <string>

#include "NoxUtils.h"

struct NoxConfigParseControl {
  std::string fileName;
  std::map<std::string, int> tags;  // accepted tag text -> tag id
};

class NoxBaseConfig {
 public:
  virtual ~NoxBaseConfig();

  // Reads control.fileName in chunks of at most 256 characters (a longer line counts
  // as several). Each chunk is trimmed of blanks and tabs only, so a value keeps its
  // newline; the tag is the text before the first ':' and must match exactly; the
  // first line of a tag wins. Returns NOX_RET_OK and replaces `result` when a tag
  // matched, NOX_RET_PARSER_NO_MATCH or NOX_RET_ERR_OPENING_FILE (result untouched).
  NoxRetType parseConfigFile(const NoxConfigParseControl& control,
                             std::map<int, std::string>& result) const;
};

#endif  // NOX_BASE_CONFIG_H
