#ifndef BENCH_NOXLOAD_UTIL_H
#define BENCH_NOXLOAD_UTIL_H

// The load client's plumbing: clocks, blocking socket I/O, and what it reads of the
// server process from /proc. Errors end the process with one line and status 1.

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace noxload {

[[noreturn]] void fail(const std::string& what);
int64_t nowNs();
void sleepUs(int us);

// A blocking connection to the Unix stream socket at `path`.
int connectTo(const std::string& path);
// Writes all of `len` bytes.
void writeAll(int fd, const void* data, size_t len);
// Reads exactly `len` bytes; false at end of stream.
bool readAll(int fd, void* data, size_t len);
// Reads one framed record from the control socket into `body`; false at end of stream.
bool readRecord(int fd, std::vector<uint8_t>& body);

// The CPU time of every thread of `pid`, in nanoseconds (from schedstat); -1 when unknown.
int64_t cpuNs(pid_t pid);
// The number of descriptors `pid` holds; -1 when unknown.
int countFds(pid_t pid);
// Its resident anonymous memory (RssAnon) in KiB; -1 when unknown.
long anonKb(pid_t pid);

// Value of option `--name` in argv[first..], or `fallback`.
std::string option(int argc, char** argv, const char* name, const std::string& fallback);
long optionNum(int argc, char** argv, const char* name, long fallback);
double optionReal(int argc, char** argv, const char* name, double fallback);

}  // namespace noxload

#endif  // BENCH_NOXLOAD_UTIL_H
