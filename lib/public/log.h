// log.h -- the diagnostic log, as every module sees it.
//
// Declared here and defined in opener/log.cpp: the library writes its records without knowing who
// opened the descriptor.  A record is a local-time stamp, a tag and the message; the format
// language is that of Str_Vsnprintf.  A message of 1024 bytes or more loses its body.  Nothing is
// allocated, but by conversions of floating-point numbers and wide strings.  errno is not
// preserved: read it before logging.  Any thread may log; records of two threads may interleave at
// the level of their three writes.
#pragma once

// A record without a tag.
void Log(const char *format, ...) __attribute__((format(printf, 1, 2)));

// A record tagged "Warning: ".
void Warning(const char *format, ...) __attribute__((format(printf, 1, 2)));

// A record tagged "Panic: ", then exit(1); also when logging is off.
[[noreturn]] void Panic(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Sends all further records to the file `path` (not null), which is created with mode 0644 or
// truncated.  Returns the new log descriptor, which the log keeps, or -1 with errno set: then
// logging is off.  The earlier descriptor stays open.
int LogOpen(const char *path);

// From now on keeps records in memory, also those of children that this process forks, and writes none:
// for a process that others wait for, since its log may be a pipe that nobody reads.  LogRelease
// writes what was kept, 32 KiB at most, and ends this.  Panic writes it, too, and gives that a second.
// From one thread, while no other one logs; without effect when things are so already.
void LogHold();
void LogRelease();
