#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

void writeText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }
std::string readText(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path).rdbuf();
  return out.str();
}
// The value read; property_get must return its length.
std::string get(const char* key, const char* def = "dflt") {
  char value[PROPERTY_VALUE_MAX];
  memset(value, 'X', sizeof(value));
  const int len = property_get(key, value, def);
  EXPECT_EQ(strlen(value), static_cast<size_t>(len));
  return value;
}
std::string makeTempDir() {
  char tmpl[] = "/tmp/noxprops.XXXXXX";
  return mkdtemp(tmpl) != nullptr ? tmpl : "";
}

class PropertiesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir.empty());
    property_host_reset();
  }
  void TearDown() override {
    property_host_reset();
    fs::remove_all(dir);
  }
  std::string file(const char* name) const { return dir + "/" + name; }

  const std::string dir = makeTempDir();
};

TEST_F(PropertiesTest, ValuesDefaultsLimitsAndRefusals) {
  EXPECT_EQ("dflt", get("persist.nox.feature"));
  EXPECT_EQ("", get("persist.nox.feature", nullptr));
  ASSERT_EQ(0, property_set("persist.nox.feature", ""));
  EXPECT_EQ("dflt", get("persist.nox.feature"));  // empty reads as unset
  ASSERT_EQ(0, property_set("persist.nox.feature", "15"));
  EXPECT_EQ("15", get("persist.nox.feature"));
  const std::string longest(PROPERTY_VALUE_MAX - 1, 'v');
  EXPECT_EQ(-1, property_set("k", (longest + "w").c_str()));
  EXPECT_EQ(longest, get("unset", (longest + "dd").c_str()));  // a long default is cut
  // What would corrupt the file is refused.
  for (const char* key : {"", "a=b", "a\nb"}) EXPECT_EQ(-1, property_set(key, "1")) << key;
  EXPECT_EQ(-1, property_set("j", "1\n2"));
  EXPECT_EQ("dflt", get("j"));
}

TEST_F(PropertiesTest, AFileIsReadOnceAndKeepsEveryValueSet) {
  ASSERT_EQ(0, property_set("before", "1"));
  writeText(file("props"), "# feature mask\n\npersist.nox.feature=3\nurl=a=b\nno separator\n");
  ASSERT_EQ(0, property_host_use_file(file("props").c_str()));
  EXPECT_EQ("3", get("persist.nox.feature"));
  EXPECT_EQ("a=b", get("url"));
  EXPECT_EQ("dflt", get("before"));  // the file replaces the store
  ASSERT_EQ(0, property_set("persist.sys.noxd.nsrm", "2"));
  property_host_reset();
  ASSERT_EQ(0, property_host_use_file(file("props").c_str()));
  EXPECT_EQ("2", get("persist.sys.noxd.nsrm"));
  EXPECT_EQ("a=b", get("url"));
}

std::vector<std::string> gWatched;
void watch(const char* key, const char* value) { gWatched.push_back(std::string(key) + "=" + value); }

// A rewrite that fails keeps the old value, but a control message is still carried out.
TEST_F(PropertiesTest, ControlMessagesSurviveAFailedRewrite) {
  fs::create_directory(file("sub"));
  ASSERT_EQ(0, property_host_use_file(file("sub/props").c_str()));
  fs::remove_all(file("sub"));
  gWatched.clear();
  property_host_set_watcher(watch);
  EXPECT_EQ(-1, property_set("a", "3"));
  EXPECT_EQ(-1, property_set("ctl.stop", "noxd"));
  property_host_set_watcher(nullptr);
  EXPECT_EQ("dflt", get("a"));
  EXPECT_EQ(std::vector<std::string>{"ctl.stop=noxd"}, gWatched);
}

TEST_F(PropertiesTest, ConcurrentSettersAndGettersKeepTheirOwnKeys) {
  ASSERT_EQ(0, property_host_use_file(file("props").c_str()));
  std::vector<int> mismatches(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &mismatches] {
      const std::string key = "thread." + std::to_string(t);
      for (int i = 0; i < 200; ++i) {
        const std::string value = std::to_string(i);
        if (property_set(key.c_str(), value.c_str()) != 0 || get(key.c_str()) != value)
          ++mismatches[t];
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(std::vector<int>(4, 0), mismatches);
  EXPECT_EQ("thread.0=199\nthread.1=199\nthread.2=199\nthread.3=199\n", readText(file("props")));
}

}  // namespace
