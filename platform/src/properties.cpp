#include <cutils/properties.h>

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

namespace {

constexpr size_t kValueMax = PROPERTY_VALUE_MAX - 1;

struct Store {
  std::mutex lock;
  std::map<std::string, std::string> values;
  std::string path;  // empty: memory only
  bool envChecked = false;
};

std::atomic<property_host_watcher_fn> gWatcher{nullptr};

// Never destroyed: other threads may still read properties while the process exits.
Store& store() {
  static Store* const s = new Store;
  return *s;
}

// Reads `path` into `out`; a missing file is an empty store.
bool loadFile(const std::string& path, std::map<std::string, std::string>* out) {
  out->clear();
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT;
  std::string text;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof(buf))) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  if (n < 0) return false;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    const size_t eq = line.find('=');
    if (line.empty() || line[0] == '#' || eq == std::string::npos || eq == 0) continue;
    (*out)[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return true;
}

bool writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Replaces the file in one rename, so a reader in another process sees either the
// old content or the new, never a partial file.
bool saveFile(const std::string& path, const std::map<std::string, std::string>& values) {
  std::string text;
  for (const auto& kv : values) text += kv.first + "=" + kv.second + "\n";
  const std::string tmp = path + ".tmp." + std::to_string(getpid());
  const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool written = writeAll(fd, text);
  if (close(fd) == 0 && written && rename(tmp.c_str(), path.c_str()) == 0) return true;
  unlink(tmp.c_str());
  return false;
}

// Adopts `path` (null or empty: memory only). On failure the store is left as it was.
bool useFile(Store& s, const char* path) {
  std::map<std::string, std::string> loaded;
  if (path != nullptr && path[0] != '\0' && !loadFile(path, &loaded)) return false;
  s.values.swap(loaded);
  s.path = path != nullptr ? path : "";
  return true;
}

// Caller holds s.lock.
void checkEnvOnce(Store& s) {
  if (s.envChecked) return;
  s.envChecked = true;
  const char* path = getenv("NOX_PROPERTY_FILE");
  if (path != nullptr && path[0] != '\0') useFile(s, path);
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
  if (value == nullptr) return -1;
  std::string found;
  if (key != nullptr) {
    Store& s = store();
    std::lock_guard<std::mutex> guard(s.lock);
    checkEnvOnce(s);
    const auto it = s.values.find(key);
    if (it != s.values.end()) found = it->second;
  }
  const char* src = !found.empty() ? found.c_str() : (default_value != nullptr ? default_value : "");
  size_t len = strlen(src);
  if (len > kValueMax) len = kValueMax;
  memcpy(value, src, len);
  value[len] = '\0';
  return static_cast<int>(len);
}

namespace {
bool storeValue(const char* key, const char* value) {
  Store& s = store();
  std::lock_guard<std::mutex> guard(s.lock);
  checkEnvOnce(s);
  if (s.path.empty()) {
    s.values[key] = value;
    return true;
  }
  std::map<std::string, std::string> next = s.values;
  next[key] = value;
  if (!saveFile(s.path, next)) return false;
  s.values.swap(next);
  return true;
}
}  // namespace

extern "C" int property_set(const char* key, const char* value) {
  // '=' and newlines would corrupt the backing file; a device refuses such names too.
  if (key == nullptr || value == nullptr || key[0] == '\0' || strpbrk(key, "=\n") != nullptr ||
      strchr(value, '\n') != nullptr || strlen(value) > kValueMax) {
    return -1;
  }
  if (!storeValue(key, value)) return -1;
  // Outside the lock: the watcher may read properties itself.
  property_host_watcher_fn watcher = gWatcher.load();
  if (watcher != nullptr) watcher(key, value);
  return 0;
}

extern "C" void property_host_set_watcher(property_host_watcher_fn watcher) {
  gWatcher.store(watcher);
}

extern "C" void property_host_reset(void) {
  Store& s = store();
  std::lock_guard<std::mutex> guard(s.lock);
  s.values.clear();
  s.path.clear();
  s.envChecked = true;
}

extern "C" int property_host_use_file(const char* path) {
  Store& s = store();
  std::lock_guard<std::mutex> guard(s.lock);
  s.envChecked = true;
  return useFile(s, path) ? 0 : -1;
}
