#include "NoxConfig.h"

#include <cutils/properties.h>

#include <cstdlib>

#include "NoxLog.h"

NoxConfig::NoxConfig() {
  char value[PROPERTY_VALUE_MAX] = {};
  property_get("persist.nox.feature", value, "0");
  nFeatureEnableMask_ = static_cast<int>(strtol(value, nullptr, 0));
  NOX_LOG(NOX_LOG_DEBUG, NOX_MOD_CONFIG, "NoxConfig::NoxConfig nFeatureEnableMask_ %d",
          nFeatureEnableMask_);
}

bool NoxConfig::isEnabled(NoxFeatureType feature) const {
  NOX_LOG(NOX_LOG_INFO, NOX_MOD_CONFIG, "NoxConfig::isEnabled: feature %d", feature);
  switch (feature) {
    case NOX_FEATURE_FDMGR:
    case NOX_FEATURE_CTMGR:
    case NOX_FEATURE_NSRM:
      return (nFeatureEnableMask_ >> feature) & 1;
  }
  NOX_LOG(NOX_LOG_ERROR, NOX_MOD_CONFIG, "NoxConfig::isEnabled: Feature %d not known", feature);
  return false;
}
