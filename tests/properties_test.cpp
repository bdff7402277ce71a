// The host property store, as far as the daemon uses it: values and defaults, a property
// file that keeps what is set, and a stop request that reaches init whatever the file does.

#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

// The value read; property_get must return its length.
std::string get(const char* key) {
  char value[PROPERTY_VALUE_MAX];
  const int len = property_get(key, value, "dflt");
  EXPECT_EQ(strlen(value), static_cast<size_t>(len));
  return value;
}

std::vector<std::string> gWatched;
void watch(const char* key, const char* value) { gWatched.push_back(std::string(key) + "=" + value); }

TEST(PropertiesTest, AFileKeepsEveryValueSetAndAStopOutlivesAFailedRewrite) {
  char tmpl[] = "/tmp/noxprops.XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(tmpl));
  const std::string dir = tmpl, file = dir + "/props";
  property_host_reset();
  ASSERT_EQ(0, property_set("before", "1"));
  std::ofstream(file) << "# feature mask\n\npersist.nox.feature=3\nurl=a=b\nno separator\n";
  ASSERT_EQ(0, property_host_use_file(file.c_str()));
  EXPECT_EQ("3", get("persist.nox.feature"));
  EXPECT_EQ("a=b", get("url"));
  EXPECT_EQ("dflt", get("before"));  // the file replaces the store
  ASSERT_EQ(0, property_set("persist.nox.feature", ""));
  EXPECT_EQ("dflt", get("persist.nox.feature"));  // empty reads as unset
  ASSERT_EQ(0, property_set("persist.sys.noxd.nsrm", "2"));
  property_host_reset();
  ASSERT_EQ(0, property_host_use_file(file.c_str()));
  EXPECT_EQ("2", get("persist.sys.noxd.nsrm"));
  EXPECT_EQ("a=b", get("url"));

  // The file cannot be rewritten: the old value stays, but ctl.stop is still carried out.
  std::filesystem::remove_all(dir);
  gWatched.clear();
  property_host_set_watcher(watch);
  EXPECT_EQ(-1, property_set("url", "3"));
  EXPECT_EQ(-1, property_set("ctl.stop", "noxd"));
  property_host_set_watcher(nullptr);
  EXPECT_EQ("a=b", get("url"));
  EXPECT_EQ(std::vector<std::string>{"ctl.stop=noxd"}, gWatched);
  property_host_reset();
}

}  // namespace
