// msg_bench.cpp -- what it costs to keep a failure as a message, against printing its text at once.
//
// The peer is one Str_Asprintf of the same text.  Both free what they made, within the time.  The
// rows are messages of the system with four arguments; "append" and "pending" keep a message,
// "print" makes the text of one that is kept.  The last row is the text of a long list against that of
// a short one, sixteen times: it tells whether the time is linear.
//
//   msg_bench [options of Google Benchmark]

#include <cstdlib>
#include <string>

#include "bench/ratios.h"
#include "lib/public/err.h"
#include "lib/public/heap.h"
#include "lib/public/msg.h"
#include "lib/public/str.h"

namespace {

const Peer kDirect = {"Str_Asprintf", 3};

// A pointer that the compiler knows nothing about.
const char *Hidden(const char *p) {
  asm volatile("" : "+r"(p));
  return p;
}

#pragma GCC diagnostic ignored "-Wformat-security"

template <typename... Args>
void AddRows(Ratios *ratios, const std::string &name, const std::string &format, Args... args) {
  const std::string idFormat = "@&!*@*@(msg.File.CopyTree.failure)" + format;
  MsgList *const kept = MsgList_Create(idFormat.c_str(), args...);
  const auto direct = [=] {
    const HeapStr text(Str_Asprintf(nullptr, Hidden(format.c_str()), args...));
    return *text;
  };
  const auto append = [=] {
    MsgList *list = nullptr;
    MsgList_Append(&list, Hidden(idFormat.c_str()), args...);
    MsgList_Free(list);
    return list;
  };
  const auto pending = [=] {
    Msg_Append(Hidden(idFormat.c_str()), args...);
    MsgList_Free(Msg_TakePending());
    return 0;
  };
  const auto print = [kept] {
    return *HeapStr(MsgFmt_Asprintf(nullptr, kept->format, kept->args, kept->numArgs));
  };
  const auto addRow = [=](const char *what, auto body) {
    const std::string row = what + (" " + name);
    ratios->AddRow(row, {kDirect});
    Ratios::Add(row, "lumen", body);
    Ratios::Add(row, kDirect.name, direct);
  };
  addRow("append", append);
  addRow("pending", pending);
  addRow("print", print);
}

void AddLists(Ratios *ratios) {
  const std::string row = "list of 16,000";
  const Peer shorter = {"16 of 1,000", 1.3};
  const auto addList = [&](const std::string &engine, int length, int times) {
    MsgList *list = nullptr;
    for (int i = 0; i < length; ++i) {
      MsgList_Append(&list, "@&!*@*@(msg.File.Unlink.failure)Cannot remove %d: %s.", i,
                     Err_ErrnoToString(EACCES));
    }
    Ratios::Add(row, engine, [list, times] {
      char last = 0;
      for (int i = 0; i < times; ++i) last = *HeapStr(MsgList_ToString(list));
      return last;
    });
  };
  ratios->AddRow(row, {shorter});
  addList("lumen", 16'000, 1);
  addList(shorter.name, 1'000, 16);
}

}  // namespace

int main(int argc, char **argv) {
  Ratios ratios;
  const char *const path = "/Library/Application Support/Zephrin/Zephrin Calder Lumen/Services";
  AddRows(&ratios, "texts", "%s: unable to copy '%s' to '%s': %s\n", "File_CopyTree", path,
          "staged copy", Err_ErrnoToString(EACCES));
  AddRows(&ratios, "mixed", "Unable to lock '%s' within %d ms, %u retries: %s.", path, 2000, 10u,
          Err_ErrnoToString(EAGAIN));
  AddRows(&ratios, "numbers", "Blocks %d to %d of %lld, error %d.", 7, 4095, 1LL << 33, 5);
  AddLists(&ratios);
  return ratios.Main(argc, argv);
}
