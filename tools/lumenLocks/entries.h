// entries.h -- the entries of a lock directory, read without changing anything.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class EntryState {
  Holds,
  Waits,
  Enters,  // is choosing its place
  Writes,  // is writing its record
  // The rest is dead: the next process that takes the lock removes it.
  Stale,  // belongs to a process of this machine that is gone
  Foreign,
  WrongSize,
  NoRecord,
  NoFile,
};

struct Entry {
  std::string name;
  int64_t ageSeconds = 0;
  EntryState state = EntryState::Foreign;
  // Only of members.  Any user may have written the texts.
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

// Such as "process 12 of this machine", clean; of a member.
std::string OwnerOf(const Entry &entry);
