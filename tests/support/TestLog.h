#ifndef NOX_TESTS_TESTLOG_H
#define NOX_TESTS_TESTLOG_H

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

  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Line> lines() const;
  // The number of lines so far (cheap: no copy).
  size_t size() const;
  // True if some line's text equals `text` exactly ("|TAG| message").
  bool has(const std::string& text) const;
  // Number of lines whose text contains `needle`.
  int count(const std::string& needle) const;
  // Lines whose text contains `needle`, in order.
  std::vector<std::string> matching(const std::string& needle) const;
  void clear();

 private:
  static int record(int priority, const char* tag, const char* format, ...);

  NoxLogAdb adb_;
  NoxLog* savedLog_;
  int savedLevel_;
  NoxLog::LogPrintFn savedFn_;
  static std::mutex mutex_;
  static std::vector<Line>* sink_;
};

#endif  // NOX_TESTS_TESTLOG_H
