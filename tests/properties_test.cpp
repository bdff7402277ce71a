#include <cutils/properties.h>

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
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

// A scratch directory for backing files, removed with whatever is left in it.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/noxprops.XXXXXX";
    path_ = mkdtemp(tmpl) != nullptr ? tmpl : "";
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& entry : fs::directory_iterator(path_)) out.push_back(entry.path().filename());
    std::sort(out.begin(), out.end());
    return out;
  }

 private:
  std::string path_;
};

void writeText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

std::string readText(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path).rdbuf();
  return out.str();
}

std::string get(const char* key, const char* def = "dflt", int* len = nullptr) {
  char value[PROPERTY_VALUE_MAX];
  memset(value, 'X', sizeof(value));
  const int n = property_get(key, value, def);
  if (len != nullptr) *len = n;
  return value;
}

class PropertiesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    property_host_reset();
  }
  void TearDown() override { property_host_reset(); }

  TempDir dir_;
};

TEST_F(PropertiesTest, UnsetOrEmptyYieldsTheDefault) {
  int len = -1;
  EXPECT_EQ("dflt", get("persist.nox.feature", "dflt", &len));
  EXPECT_EQ(4, len);
  EXPECT_EQ("", get("persist.nox.feature", nullptr, &len));
  EXPECT_EQ(0, len);

  ASSERT_EQ(0, property_set("persist.nox.feature", ""));
  EXPECT_EQ("dflt", get("persist.nox.feature"));
  EXPECT_EQ("dflt", get(nullptr));
}

TEST_F(PropertiesTest, SetGetOverwriteAndReset) {
  ASSERT_EQ(0, property_set("persist.nox.feature", "7"));
  int len = -1;
  EXPECT_EQ("7", get("persist.nox.feature", "0", &len));
  EXPECT_EQ(1, len);
  ASSERT_EQ(0, property_set("persist.nox.feature", "15"));
  EXPECT_EQ("15", get("persist.nox.feature"));
  EXPECT_EQ("dflt", get("persist.nox.featur"));

  property_host_reset();
  EXPECT_EQ("dflt", get("persist.nox.feature"));
}

TEST_F(PropertiesTest, ValueLengthLimits) {
  const std::string longest(PROPERTY_VALUE_MAX - 1, 'v');
  ASSERT_EQ(0, property_set("k", longest.c_str()));
  int len = -1;
  EXPECT_EQ(longest, get("k", "", &len));
  EXPECT_EQ(PROPERTY_VALUE_MAX - 1, len);

  EXPECT_EQ(-1, property_set("k", (longest + "w").c_str()));
  EXPECT_EQ(longest, get("k"));

  const std::string longDefault(200, 'd');
  EXPECT_EQ(longDefault.substr(0, PROPERTY_VALUE_MAX - 1), get("unset", longDefault.c_str(), &len));
  EXPECT_EQ(PROPERTY_VALUE_MAX - 1, len);

  const std::string longKey(3 * PROPERTY_KEY_MAX, 'k');
  ASSERT_EQ(0, property_set(longKey.c_str(), "1"));
  EXPECT_EQ("1", get(longKey.c_str()));
}

TEST_F(PropertiesTest, RejectsKeysAndValuesTheFileCannotHold) {
  EXPECT_EQ(-1, property_set(nullptr, "1"));
  EXPECT_EQ(-1, property_set("k", nullptr));
  EXPECT_EQ(-1, property_set("", "1"));
  EXPECT_EQ(-1, property_set("a=b", "1"));
  EXPECT_EQ(-1, property_set("a\nb", "1"));
  EXPECT_EQ(-1, property_set("k", "1\n2"));
  EXPECT_EQ("dflt", get("k"));
  EXPECT_EQ("dflt", get("a"));
}

TEST_F(PropertiesTest, LoadedFileReplacesTheStore) {
  ASSERT_EQ(0, property_set("before", "1"));
  writeText(dir_.file("props"),
            "# feature mask\n"
            "\n"
            "persist.nox.feature=3\n"
            "persist.nox.loglevel=1\n"
            "url=a=b\n"
            "no separator\n"
            "=orphan\n"
            "  # not a comment=x\n"
            "last=9");
  ASSERT_EQ(0, property_host_use_file(dir_.file("props").c_str()));
  EXPECT_EQ("3", get("persist.nox.feature"));
  EXPECT_EQ("1", get("persist.nox.loglevel"));
  EXPECT_EQ("a=b", get("url"));
  EXPECT_EQ("x", get("  # not a comment"));
  EXPECT_EQ("9", get("last"));
  EXPECT_EQ("dflt", get("no separator"));
  EXPECT_EQ("dflt", get("before"));
}

TEST_F(PropertiesTest, EverySetRewritesTheWholeFile) {
  writeText(dir_.file("props"), "# header\nz=26\n");
  ASSERT_EQ(0, property_host_use_file(dir_.file("props").c_str()));
  ASSERT_EQ(0, property_set("b", "2"));
  ASSERT_EQ(0, property_set("a", "1"));
  ASSERT_EQ(0, property_set("b", "two"));
  EXPECT_EQ("a=1\nb=two\nz=26\n", readText(dir_.file("props")));
  EXPECT_EQ(std::vector<std::string>{"props"}, dir_.names());  // no temporary left behind
}

TEST_F(PropertiesTest, MissingFileIsCreatedOnFirstSet) {
  ASSERT_EQ(0, property_host_use_file(dir_.file("new").c_str()));
  EXPECT_TRUE(dir_.names().empty());
  ASSERT_EQ(0, property_set("persist.sys.noxd.nsrm", "1"));
  EXPECT_EQ("persist.sys.noxd.nsrm=1\n", readText(dir_.file("new")));
}

TEST_F(PropertiesTest, ResetForgetsTheFileButLeavesIt) {
  ASSERT_EQ(0, property_host_use_file(dir_.file("props").c_str()));
  ASSERT_EQ(0, property_set("a", "1"));
  property_host_reset();
  ASSERT_EQ(0, property_set("a", "2"));
  EXPECT_EQ("a=1\n", readText(dir_.file("props")));
}

TEST_F(PropertiesTest, UnreadableFileLeavesTheStoreAlone) {
  ASSERT_EQ(0, property_set("a", "1"));
  EXPECT_EQ(-1, property_host_use_file(dir_.path().c_str()));  // a directory
  EXPECT_EQ("1", get("a"));
  ASSERT_EQ(0, property_set("a", "2"));  // still memory only
  EXPECT_TRUE(dir_.names().empty());
}

TEST_F(PropertiesTest, FailedRewriteKeepsTheOldValue) {
  ASSERT_EQ(0, property_host_use_file(dir_.file("gone/props").c_str()));
  EXPECT_EQ(-1, property_set("a", "1"));
  EXPECT_EQ("dflt", get("a"));
}

TEST_F(PropertiesTest, ConcurrentSettersAndGettersKeepTheirOwnKeys) {
  ASSERT_EQ(0, property_host_use_file(dir_.file("props").c_str()));
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &mismatches] {
      const std::string key = "thread." + std::to_string(t);
      for (int i = 0; i < kRounds; ++i) {
        const std::string value = std::to_string(i);
        if (property_set(key.c_str(), value.c_str()) != 0 || get(key.c_str()) != value) {
          ++mismatches[t];
        }
      }
    });
  }
  for (std::thread& th : threads) th.join();
  EXPECT_EQ(std::vector<int>(kThreads, 0), mismatches);
  EXPECT_EQ("thread.0=199\nthread.1=199\nthread.2=199\nthread.3=199\n", readText(dir_.file("props")));
  EXPECT_EQ(std::vector<std::string>{"props"}, dir_.names());
}

// Meant for a fresh process, where this is the store's first use. Returns what went
// wrong, or null.
const char* adoptEnvironmentFile() {
  TempDir dir;
  const std::string path = dir.file("env.props");
  writeText(path, "persist.nox.feature=5\n");
  setenv("NOX_PROPERTY_FILE", path.c_str(), 1);
  if (get("persist.nox.feature") != "5") return "file not loaded";
  if (property_set("persist.nox.loglevel", "2") != 0) return "set failed";
  if (readText(path) != "persist.nox.feature=5\npersist.nox.loglevel=2\n") return "file not rewritten";
  property_host_reset();
  if (get("persist.nox.feature") != "dflt") return "reset re-read the environment";
  return nullptr;
}

void exitWithAdoptionResult() {
  const char* error = adoptEnvironmentFile();
  if (error != nullptr) fprintf(stderr, "%s\n", error);
  exit(error != nullptr ? 1 : 0);
}

TEST(PropertiesEnvTest, FirstUseAdoptsNoxPropertyFile) {
  // "threadsafe" re-executes the test binary, so the child's store is untouched.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exitWithAdoptionResult(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
