// show.cpp -- prints the entries of a lock, for people or for programs.
// Tests: tests/system/lumenLocks_test

#include <algorithm>
#include <cstdio>

#include "tools/lumenLocks/entries.h"
#include "tools/lumenLocks/lockTool.h"
#include "tools/toolText.h"

namespace {

constexpr option kOptions[] = {{"json", no_argument, nullptr, 'j'},
                               {"help", no_argument, nullptr, 'h'},
                               {nullptr, 0, nullptr, 0}};

int StatusOf(const std::vector<Entry> &entries) {
  if (entries.empty()) return kOk;
  return std::ranges::all_of(entries, &Entry::IsDead) ? kOnlyDead : kInUse;
}

void PrintTable(const std::vector<Entry> &entries) {
  if (entries.empty()) return;
  printf("%-12s %-18s %-4s %10s %9s  %-28s %s\n", "ENTRY", "STATE", "TYPE", "NUMBER", "AGE/s",
         "PROCESS", "MACHINE");
  for (const Entry &entry : entries) {
    const std::string member[4] = {entry.type, std::to_string(entry.number), entry.execution,
                                   entry.isHere ? "this one" : entry.machine};
    const auto column = [&](int i) { return entry.isMember ? CleanText(member[i]) : "-"; };
    printf("%-12s %-18s %-4s %10s %9lld  %-28s %s\n", CleanText(entry.name).c_str(),
           EntryState_Text(entry.state), column(0).c_str(), column(1).c_str(),
           static_cast<long long>(entry.ageSeconds), column(2).c_str(), column(3).c_str());
  }
}

void PrintJson(const std::vector<Entry> &entries) {
  const int status = StatusOf(entries);
  const char *const lock = status == kOk ? "free" : status == kInUse ? "in use" : "only dead";
  printf("{\"lock\": \"%s\", \"entries\": [", lock);
  const char *separator = "\n";
  for (const Entry &entry : entries) {
    printf("%s  {%s, %s, \"age\": %lld", separator, JsonMember("entry", entry.name).c_str(),
           JsonMember("state", EntryState_Text(entry.state)).c_str(),
           static_cast<long long>(entry.ageSeconds));
    if (entry.isMember) {
      printf(", %s, \"number\": %u, %s, %s, \"here\": %s", JsonMember("type", entry.type).c_str(),
             entry.number, JsonMember("process", entry.execution).c_str(),
             JsonMember("machine", entry.machine).c_str(), entry.isHere ? "true" : "false");
    }
    printf("}");
    separator = ",\n";
  }
  printf("%s]}\n", entries.empty() ? "" : "\n");
}

}  // namespace

int MainShow(int argc, char **argv) {
  bool json = false;
  for (int c; (c = NextOption(argc, argv, kOptions)) != -1;) {
    if (c == '?') return kFailed;
    if (c == 'h') return PrintHelp();
    json = true;
  }
  if (argc - optind != 1) return WrongUsage("show takes one FILE");
  const std::string file = argv[optind];
  if (!IsLockable(file)) return kFailed;
  const std::vector<Entry> entries = ReadEntries(file);
  (json ? PrintJson : PrintTable)(entries);
  return StatusOf(entries);
}
