#ifndef NOX_TESTS_TESTLOG_H
#define NOX_TESTS_TESTLOG_H

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "NoxLog.h"

// Captures the log: installs a NoxLogAdb whose log-print function records
// (priority, text, tag) and lowers the threshold to verbose; restores both on
// destruction. Thread-safe: lines may come from any thread.
class LogCapture {
 public:
  struct Line {
    int priority;
    std::string text, tag;
  };

  LogCapture() {
    std::lock_guard<std::mutex> lock(mutex_);
    sink_ = &lines_;
    NoxLog::_libnoxlog_log_handle = &LogCapture::record;
    NoxLog::logLevel = 0;
    NoxMsg::nox_log_class_ptr = &adb_;
  }
  ~LogCapture() {
    std::lock_guard<std::mutex> lock(mutex_);
    NoxMsg::nox_log_class_ptr = savedLog_;
    NoxLog::logLevel = savedLevel_;
    NoxLog::_libnoxlog_log_handle = savedFn_;
    sink_ = nullptr;
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Line> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  // The number of lines so far (cheap: no copy).
  size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_.size();
  }
  // True if some line's text equals `text` exactly ("|TAG| message").
  bool has(const std::string& text) const {
    for (const Line& l : lines())
      if (l.text == text) return true;
    return false;
  }
  // Number of lines whose text contains `needle`.
  int count(const std::string& needle) const { return static_cast<int>(matching(needle).size()); }
  // Lines whose text contains `needle`, in order.
  std::vector<std::string> matching(const std::string& needle) const {
    std::vector<std::string> out;
    for (const Line& l : lines())
      if (l.text.find(needle) != std::string::npos) out.push_back(l.text);
    return out;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  static int record(int priority, const char* tag, const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(mutex_);
    if (sink_ != nullptr) sink_->push_back({priority, text, tag != nullptr ? tag : ""});
    return 0;
  }

  NoxLogAdb adb_;
  NoxLog* const savedLog_ = NoxMsg::nox_log_class_ptr;
  const int savedLevel_ = NoxLog::logLevel;
  const NoxLog::LogPrintFn savedFn_ = NoxLog::_libnoxlog_log_handle;
  std::vector<Line> lines_;
  static inline std::mutex mutex_;
  static inline std::vector<Line>* sink_ = nullptr;
};

#endif  // NOX_TESTS_TESTLOG_H
