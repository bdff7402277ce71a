#ifndef NOX_CONFIG_H
#define NOX_CONFIG_H

#include "NoxBaseConfig.h"
#include "NoxTypes.h"

// The feature switches: bit n of "persist.nox.feature" turns feature n on.
class NoxConfig : public NoxBaseConfig {
 public:
  // Reads the property once (strtol base 0: "7", "0x7" and "07" all work; an unset
  // or non-numeric value gives 0). A later change takes effect at the next start.
  NoxConfig();

  // Bit `feature` of the mask for the three known features; false (and an error
  // line) for any other value.
  bool isEnabled(NoxFeatureType feature) const;
  // The mask as read, without a log line.
  int featureMask() const { return nFeatureEnableMask_; }

 private:
  int nFeatureEnableMask_;
};

#endif  // NOX_CONFIG_H
