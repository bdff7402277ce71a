#include "Radio.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace modemsim {

namespace {

struct Field {
  const char* name;
  int64_t RadioParams::*value;
  int64_t max;
};

const Field kFields[] = {
    {"inactivity_ms", &RadioParams::inactivityMs, 3600000},
    {"promotion_ms", &RadioParams::promotionMs, 3600000},
    {"promotion_mw", &RadioParams::promotionMw, 100000},
    {"connected_mw", &RadioParams::connectedMw, 100000},
    {"idle_mw", &RadioParams::idleMw, 100000},
};

}  // namespace

bool RadioParams::load(const std::string& path, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = path + ": cannot be read";
    return false;
  }
  RadioParams read = *this;
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    line = line.substr(0, line.find('#'));
    std::istringstream words(line);
    std::string name, value, extra;
    if (!(words >> name)) continue;
    const std::string where = path + ":" + std::to_string(number) + ": ";
    const auto field = std::find_if(std::begin(kFields), std::end(kFields),
                                    [&](const Field& f) { return name == f.name; });
    if (field == std::end(kFields)) {
      *error = where + "unknown setting '" + name + "'";
      return false;
    }
    char* end = nullptr;
    errno = 0;
    const long long v = (words >> value) ? strtoll(value.c_str(), &end, 10) : -1;
    if (value.empty() || *end != '\0' || errno != 0 || v < 0 || v > field->max ||
        (words >> extra)) {
      *error = where + name + " takes a whole number from 0 to " + std::to_string(field->max);
      return false;
    }
    read.*(field->value) = v;
  }
  *this = read;
  return true;
}

std::string RadioParams::describe() const {
  std::ostringstream s;
  s << "inactivity timer " << inactivityMs << " ms, promotion " << promotionMs << " ms at "
    << promotionMw << " mW, connected " << connectedMw << " mW, idle " << idleMw << " mW";
  return s.str();
}

RadioTotals& RadioTotals::operator+=(const RadioTotals& other) {
  idleMs += other.idleMs;
  connectedMs += other.connectedMs;
  promotionMs += other.promotionMs;
  promotions += other.promotions;
  energyUj += other.energyUj;
  return *this;
}

void Radio::account(int64_t to) {
  if (to <= since_) return;
  if (connected_) {
    sum_.promotionMs += std::max<int64_t>(0, std::min(to, promotionEnd_) - since_);
    sum_.connectedMs += to - since_;
  } else {
    sum_.idleMs += to - since_;
  }
  since_ = to;
}

bool Radio::packet(int64_t now, const RadioParams& params) {
  const bool promoted = connect(now, params);
  releaseAt_ = std::max(now, promotionEnd_) + params.inactivityMs;
  return promoted;
}

bool Radio::connect(int64_t now, const RadioParams& params) {
  account(now);
  if (connected_) return false;
  connected_ = true;
  promotionEnd_ = now + params.promotionMs;
  releaseAt_ = -1;
  ++sum_.promotions;
  return true;
}

bool Radio::release(int64_t now) {
  account(now);
  releaseAt_ = -1;
  if (!connected_) return false;
  connected_ = false;
  return true;
}

RadioTotals Radio::totals(int64_t now, const RadioParams& params) const {
  Radio upToNow = *this;
  upToNow.account(now);
  RadioTotals t = upToNow.sum_;
  t.energyUj = static_cast<uint64_t>(t.idleMs * params.idleMw + t.promotionMs * params.promotionMw +
                                     (t.connectedMs - t.promotionMs) * params.connectedMw);
  return t;
}

void Radio::resetTotals(int64_t now) {
  account(now);
  sum_ = RadioTotals();
}

}  // namespace modemsim
