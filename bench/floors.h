// The floors that the transfer benchmarks print their figures beside, measured in the same run:
// what the disk and the loopback network do for the same bytes without any of our code.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace mvbench {

// Seconds to copy `from` to a new `to` through user space in 1 MiB pieces, with an fsync of `to`
// when `sync`; negative on failure.
double copyFile(const std::string& from, const std::string& to, bool sync);

// Seconds for `bytes` to cross a loopback TCP connection from one thread to another, in writes
// of `piece` bytes; negative on failure.
double tcpCopy(int64_t bytes, std::size_t piece);

// Peak and current resident memory of a process in kB (-1 when unknown); resetPeak starts the
// peak again from what the process holds now.
long residentKb(pid_t pid);
long peakKb(pid_t pid);
void resetPeak(pid_t pid);

}  // namespace mvbench
