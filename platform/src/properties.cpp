#include <cutils/properties.h>

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

constexpr size_t kValueMax = PROPERTY_VALUE_MAX - 1;
// A property file is small; anything bigger is not one.
constexpr off_t kMaxFileSize = 1 << 20;

// Held only around a look-up or a rewrite, never while anything waits: readers take it
// without a system call, as a device's reads do.
class SpinLock {
 public:
  void lock() {
    while (flag_.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
  }
  void unlock() { flag_.clear(std::memory_order_release); }

 private:
  std::atomic_flag flag_ = ATOMIC_FLAG_INIT;
};

typedef std::map<std::string, std::string> Values;

struct Store {
  SpinLock lock;
  Values values;  // in the order the file is written
  // The same values by name, for property_get: one hash and one compare. Views into
  // `values`, made again after every change.
  std::unordered_map<std::string_view, std::string_view> byName;
  std::string path;  // empty: memory only
};

std::atomic<property_host_watcher_fn> gWatcher{nullptr};

// Never destroyed: other threads may still read properties while the process exits.
Store& store() {
  static Store* const s = new Store;
  return *s;
}

// Whether the directory of `path` takes a new file (the atomic rewrite needs that).
bool directoryWritable(const std::string& path) {
  std::string copy = path;
  return access(dirname(&copy[0]), W_OK | X_OK) == 0;
}

// Reads `path` into `out`: a regular file of at most kMaxFileSize bytes, or a missing
// one in a writable directory (an empty store). Anything else fails with errno set:
// never a read that could block (a FIFO) or a file it could not rewrite.
bool loadFile(const std::string& path, Values* out) {
  out->clear();
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return errno == ENOENT && directoryWritable(path);
  struct stat st;
  int err = 0;
  if (fstat(fd, &st) != 0)
    err = errno;
  else if (S_ISDIR(st.st_mode))
    err = EISDIR;
  else if (!S_ISREG(st.st_mode))
    err = EINVAL;
  else if (st.st_size > kMaxFileSize)
    err = EFBIG;
  else if (access(path.c_str(), W_OK) != 0 || !directoryWritable(path))
    err = errno;
  if (err != 0) {
    close(fd);
    errno = err;
    return false;
  }
  std::string text;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof(buf))) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  err = errno;
  close(fd);
  if (n < 0) {
    errno = err;
    return false;
  }
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
bool saveFile(const std::string& path, const Values& values) {
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

void reindex(Store& s) {
  s.byName.clear();
  for (const auto& kv : s.values) s.byName.emplace(kv.first, kv.second);
}

// Adopts `path` (null or empty: memory only). On failure the store is left as it was.
bool useFile(Store& s, const char* path) {
  Values loaded;
  if (path != nullptr && path[0] != '\0' && !loadFile(path, &loaded)) return false;
  s.values.swap(loaded);
  reindex(s);
  s.path = path != nullptr ? path : "";
  return true;
}


}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
  if (value == nullptr) return -1;
  // Copied under the lock, straight into the caller's buffer: a device's read is a
  // look-up in shared memory, and this one allocates nothing either.
  auto copy = [value](const char* src, size_t len) {
    if (len > kValueMax) len = kValueMax;
    memcpy(value, src, len);
    value[len] = '\0';
    return static_cast<int>(len);
  };
  if (key != nullptr) {
    Store& s = store();
    std::lock_guard<SpinLock> guard(s.lock);
    const auto it = s.byName.find(std::string_view(key));
    if (it != s.byName.end() && !it->second.empty())
      return copy(it->second.data(), it->second.size());
  }
  const char* src = default_value != nullptr ? default_value : "";
  return copy(src, strlen(src));
}

namespace {
bool storeValue(const char* key, const char* value) {
  Store& s = store();
  std::lock_guard<SpinLock> guard(s.lock);
  if (s.path.empty()) {
    s.values[key] = value;
    reindex(s);
    return true;
  }
  Values next = s.values;
  next[key] = value;
  if (!saveFile(s.path, next)) return false;
  s.values.swap(next);
  reindex(s);
  return true;
}
}  // namespace

extern "C" int property_set(const char* key, const char* value) {
  // '=' and newlines would corrupt the backing file; a device refuses such names too.
  if (key == nullptr || value == nullptr || key[0] == '\0' || strpbrk(key, "=\n") != nullptr ||
      strchr(value, '\n') != nullptr || strlen(value) > kValueMax) {
    return -1;
  }
  const bool stored = storeValue(key, value);
  // "ctl." keys are messages to init, not values: carried out also when the file cannot
  // be rewritten. Outside the lock: the watcher may read properties itself.
  property_host_watcher_fn watcher = gWatcher.load();
  if (watcher != nullptr && (stored || strncmp(key, "ctl.", 4) == 0)) watcher(key, value);
  return stored ? 0 : -1;
}

extern "C" void property_host_set_watcher(property_host_watcher_fn watcher) {
  gWatcher.store(watcher);
}

extern "C" void property_host_reset(void) {
  Store& s = store();
  std::lock_guard<SpinLock> guard(s.lock);
  s.values.clear();
  s.byName.clear();
  s.path.clear();
}

extern "C" int property_host_use_file(const char* path) {
  Store& s = store();
  std::lock_guard<SpinLock> guard(s.lock);
  return useFile(s, path) ? 0 : -1;
}
