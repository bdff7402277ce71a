// placeholder, replaced by the host property store
#include <cutils/properties.h>
#include <cstring>
extern "C" int property_get(const char*, char* value, const char* def) {
  strcpy(value, def ? def : "");
  return (int)strlen(value);
}
extern "C" int property_set(const char*, const char*) { return 0; }
extern "C" void property_host_reset(void) {}
extern "C" int property_host_use_file(const char*) { return 0; }
