#include "TestLog.h"

#include <cstdarg>
#include <cstdio>

std::mutex LogCapture::mutex_;
std::vector<LogCapture::Line>* LogCapture::sink_ = nullptr;

LogCapture::LogCapture()
    : savedLog_(NoxMsg::nox_log_class_ptr),
      savedLevel_(NoxLog::logLevel),
      savedFn_(NoxLog::_libnoxlog_log_handle) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sink_ = new std::vector<Line>();
  }
  NoxLog::_libnoxlog_log_handle = &LogCapture::record;
  NoxLog::logLevel = 0;
  NoxMsg::nox_log_class_ptr = &adb_;
}

LogCapture::~LogCapture() {
  NoxMsg::nox_log_class_ptr = savedLog_;
  NoxLog::logLevel = savedLevel_;
  NoxLog::_libnoxlog_log_handle = savedFn_;
  std::lock_guard<std::mutex> lock(mutex_);
  delete sink_;
  sink_ = nullptr;
}

int LogCapture::record(int priority, const char* tag, const char* format, ...) {
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  std::lock_guard<std::mutex> lock(mutex_);
  if (sink_ != nullptr) sink_->push_back({priority, text, tag != nullptr ? tag : ""});
  return 0;
}

std::vector<LogCapture::Line> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return *sink_;
}

size_t LogCapture::size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sink_->size();
}

bool LogCapture::has(const std::string& text) const {
  for (const Line& l : lines())
    if (l.text == text) return true;
  return false;
}

int LogCapture::count(const std::string& needle) const {
  return static_cast<int>(matching(needle).size());
}

std::vector<std::string> LogCapture::matching(const std::string& needle) const {
  std::vector<std::string> out;
  for (const Line& l : lines())
    if (l.text.find(needle) != std::string::npos) out.push_back(l.text);
  return out;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  sink_->clear();
}
