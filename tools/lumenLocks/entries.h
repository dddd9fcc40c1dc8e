// entries.h -- the entries of a lock directory, read without changing anything.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class EntryState {
  Holds,
  Waits,
  Enters,  // chooses its place
  Writes,  // its record
  // From here on: dead, the next one who takes the lock removes it.
  Stale,  // its process was one of this machine, and is gone
  Foreign,
  WrongSize,
  NoRecord,
  NoFile,
};

struct Entry {
  std::string name;
  int64_t ageSeconds = 0;
  EntryState state = EntryState::Foreign;
  // Of a member, otherwise empty.  Any user may have written it.
  bool isMember = false;
  bool isHere = false;  // of this machine
  uint32_t number = 0;
  std::string machine, execution, type;

  bool IsDead() const { return state >= EntryState::Stale; }
};

const char *EntryState_Text(EntryState state);

// All entries of the lock of `file`, members first, in the order of the queue.  Throws
// std::system_error with a text that names the directory.
std::vector<Entry> ReadEntries(const std::string &file);

// For terminals.
std::string Printable(std::string text);

// Such as "process 12 of this machine"; of a member.
std::string OwnerOf(const Entry &entry);
