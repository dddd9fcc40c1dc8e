// lockRecord_fuzz.cpp -- the records of a lock's members against a plain reading of the format.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lib/file/lock/fileLockInt.h"

namespace {

void Require(bool holds, const char *rule) {
  if (holds) return;
  fprintf(stderr, "does not hold: %s\n", rule);
  abort();
}

std::vector<std::string> Fields(const std::string &text) {
  std::vector<std::string> fields;
  std::string field;
  for (const char c : text + ' ') {
    if (c != ' ') {
      field += c;
    } else if (!field.empty()) {
      fields.push_back(std::exchange(field, ""));
    }
  }
  return fields;
}

struct Reading {
  std::string machine, execution, type, payload;  // payload empty when absent
  uint32_t number;
};

std::optional<Reading> Read(const std::string &text) {
  std::vector<std::string> fields = Fields(text);
  if (fields.size() < 5 || fields.size() > 16) return std::nullopt;
  std::string payload;
  for (size_t i = 5; i < fields.size(); i++) {
    const size_t at = fields[i].find('=');
    if (at == std::string::npos || at == 0 || at + 1 == fields[i].size()) return std::nullopt;
    if (fields[i].substr(0, at) == "lc") payload = fields[i].substr(at + 1);
  }
  if (fields.size() == 6 && fields[1].find_first_of("-()") == std::string::npos) {
    fields[1] += "-" + fields[4];
  }
  unsigned number;
  if (sscanf(fields[2].c_str(), "%u", &number) != 1) return std::nullopt;  // NOLINT(cert-err34-c)
  if (fields[3] != "S" && fields[3] != "X") return std::nullopt;
  return Reading{fields[0], fields[1], fields[3], payload, number};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  if (size > kFileLockRecordSize) return -1;
  FileLockRecord record;
  memset(record.text, '#', sizeof record.text);
  memcpy(record.text, bytes, size);
  record.text[size] = '\0';
  const std::optional<Reading> expected = Read(record.text);
  FileLockMember member;
  Require(FileLockParseRecord(&record, &member) == expected.has_value(), "what a record is");
  for (unsigned i = 0; i < record.numTokens; i++) {
    Require(strlen(record.tokens[i]) < sizeof record.text, "tokens that end");
  }
  if (!expected) return 0;
  Require(member.machineID == expected->machine, "the machine");
  Require(member.executionID == expected->execution, "the execution");
  Require(member.lockType == expected->type, "the type");
  Require(member.number == expected->number, "the number");
  Require(
      member.payload == nullptr ? expected->payload.empty() : member.payload == expected->payload,
      "the payload");
  static_cast<void>(FileLockValidExecutionID(member.executionID));
  static_cast<void>(OldMachineIDMatch(FileLockMachineID(), member.machineID));
  return 0;
}
