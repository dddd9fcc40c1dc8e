// main.cpp -- codeseal: signs files and bundles for Linux, and checks, shows and removes such signatures; see
// codeseal.1.
// Tests: tests/system/codeseal_test

#include <fcntl.h>
#include <getopt.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "lib/public/fd.h"
#include "platform/files.h"
#include "platform/linux/seal/sealCheck.h"
#include "tools/codeseal/sealDescription.h"
#include "tools/codeseal/sealMaker.h"
#include "tools/toolText.h"

namespace {

// In the order of what counts when several paths differ.
enum Status { kOk = 0, kUnknown = 3, kFailed = 1, kUsage = 2 };

constexpr char kUsageText[] =
    "usage: codeseal sign --key FILE --cert FILE [--chain FILE] --identifier NAME PATH\n"
    "       codeseal verify [--anchors FILE] [--json] --identifier NAME PATH...\n"
    "       codeseal show [--json] PATH...\n"
    "       codeseal remove PATH...\n"
    "       codeseal [COMMAND] --help | --version\n"
    "\n"
    "  sign    seal the regular file or bundle PATH under the name NAME\n"
    "  verify  check that each is sealed under that name by a trusted signer, and unchanged\n"
    "  show    print what the seals say, without checking anything\n"
    "  remove  take the seals away\n"
    "\n"
    "FILEs are in PEM.  Anchors are those of /etc/zephrin/code-signing-anchors.pem if not given.\n"
    "Exit status: 0 done or valid, 1 failed or not valid, 2 wrong usage, 3 cannot be checked.\n";

struct UsageError : std::runtime_error {
  using runtime_error::runtime_error;
};

// What keeps an item from being examined: it may be valid or not.
struct Obstacle : std::runtime_error {
  using runtime_error::runtime_error;
};

struct Arguments {
  std::map<std::string, std::string> options;
  std::vector<std::string> paths;

  bool Has(const std::string &option) const { return options.count(option) > 0; }

  std::string Get(const std::string &option) const {
    const auto found = options.find(option);
    return found == options.end() ? "" : found->second;
  }

  std::string Need(const std::string &option) const {
    std::string value = Get(option);
    if (value.empty()) throw UsageError("--" + option + " is missing");
    return value;
  }
};

std::string ErrorText(const std::string &what) {
  return what + ": " + std::generic_category().message(errno);
}

Fd OpenItem(const std::string &path) {
  Fd item = Platform_OpenRegularOrDirectory(AT_FDCWD, path.c_str());
  if (!item) throw Obstacle(ErrorText("cannot be opened"));
  return item;
}

// Prints an array of objects as they come.
class JsonArray {
  bool on_;
  bool first_ = true;

 public:
  explicit JsonArray(bool on) : on_(on) {}
  void Add(const std::string &object) {
    if (!on_) return;
    printf("%s{%s}", first_ ? "[\n " : ",\n ", object.c_str());
    first_ = false;
  }
  void End() const {
    if (on_) puts(first_ ? "[]" : "\n]");
  }
};

// ---- commands ----------------------------------------------------------------------------------

Status Sign(const Arguments &arguments) {
  const SealMakerFiles files{arguments.Need("key"), arguments.Need("cert"), arguments.Get("chain")};
  const std::string identifier = arguments.Need("identifier");
  if (arguments.paths.size() != 1) throw UsageError("one PATH is wanted");
  const Fd item = OpenItem(arguments.paths.front());
  SealMaker_RemoveHalfDone(item.Get());
  SealMaker_Attach(item.Get(), SealMaker_Sign(SealMaker_Text(item.Get(), identifier), files));
  return kOk;
}

SmallFileBytes ReadAnchors(const std::string &path) {
  SmallFileBytes anchors;
  if (path.empty()) {
    const Fd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root || SealReadAnchors(root.Get(), kSealAnchors, &anchors) != SealVerdict::Valid) {
      throw Obstacle(ErrorText(std::string("/") + kSealAnchors));
    }
    return anchors;
  }
  // A file that the user names is trusted, whatever its owner.
  const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd || !SmallFileRead(fd.Get(), size_t{1} << 20, &anchors)) throw Obstacle(ErrorText(path));
  return anchors;
}

// Empty for a valid item; otherwise the reason.
std::string ReasonAgainst(const std::string &path, const std::string &identifier,
                          const SmallFileBytes &anchors) {
  const Fd item = OpenItem(path);
  SealExtent extent;
  HeapStr where;
  const SealVerdict verdict =
      SealCheck(item.Get(), identifier.c_str(), anchors.View(), &extent, &where);
  if (verdict == SealVerdict::Valid) return "";
  std::string words = SealVerdictWords(verdict);
  if (where != nullptr) words += std::string(": ") + where.get();
  if (verdict == SealVerdict::Unreadable || verdict == SealVerdict::NoAnchors)
    throw Obstacle(words);
  return words;
}

Status Verify(const Arguments &arguments) {
  const std::string identifier = arguments.Need("identifier");
  const SmallFileBytes anchors = ReadAnchors(arguments.Get("anchors"));
  JsonArray results(arguments.Has("json"));
  bool anyRefused = false;
  bool anyUnknown = false;
  for (const std::string &path : arguments.paths) {
    std::string state = "valid";
    std::string reason;
    try {
      reason = ReasonAgainst(path, identifier, anchors);
      if (!reason.empty()) state = "not valid";
    } catch (const Obstacle &obstacle) {
      state = "unknown";
      reason = obstacle.what();
    }
    anyRefused |= state == "not valid";
    anyUnknown |= state == "unknown";
    results.Add(JsonMember("path", path) + "," + JsonMember("state", state) + "," +
                JsonMember("reason", reason));
    if (reason.empty() || arguments.Has("json")) continue;
    fprintf(stderr, "codeseal: %s: %s%s\n", CleanText(path).c_str(),
            state == "unknown" ? "" : "not valid: ", CleanText(reason).c_str());
  }
  results.End();
  if (anyRefused) return kFailed;
  return anyUnknown ? kUnknown : kOk;
}

Status Show(const Arguments &arguments) {
  JsonArray results(arguments.Has("json"));
  for (const std::string &path : arguments.paths) {
    SmallFileBytes seal;
    if (SealRead(OpenItem(path).Get(), &seal) != SealVerdict::Valid) {
      throw std::runtime_error(path + ": not sealed");
    }
    const SealDescription said = SealDescription_Of(std::string(seal.View()));
    results.Add(JsonMember("path", path) + "," + said.Json());
    if (arguments.Has("json")) continue;
    if (arguments.paths.size() > 1) printf("%s:\n", CleanText(path).c_str());
    fputs(said.Lines().c_str(), stdout);
  }
  results.End();
  return kOk;
}

Status Remove(const Arguments &arguments) {
  for (const std::string &path : arguments.paths) {
    if (!SealMaker_Remove(OpenItem(path).Get())) throw std::runtime_error(path + ": not sealed");
  }
  return kOk;
}

// ---- the command line ----------------------------------------------------------------------------

struct Command {
  const char *name;
  Status (*run)(const Arguments &arguments);
  std::array<option, 6> options;
};

constexpr option kHelp = {"help", no_argument, nullptr, 'h'};

constexpr Command kCommands[] = {
    {"sign",
     Sign,
     {{{"key", required_argument, nullptr, 1},
       {"cert", required_argument, nullptr, 1},
       {"chain", required_argument, nullptr, 1},
       {"identifier", required_argument, nullptr, 1},
       kHelp,
       {}}}},
    {"verify",
     Verify,
     {{{"identifier", required_argument, nullptr, 1},
       {"anchors", required_argument, nullptr, 1},
       {"json", no_argument, nullptr, 1},
       kHelp,
       {}}}},
    {"show", Show, {{{"json", no_argument, nullptr, 1}, kHelp, {}}}},
    {"remove", Remove, {{kHelp, {}}}},
};

Status Print(const char *text) {
  fputs(text, stdout);
  return kOk;
}

Status RunCommand(const Command &command, int argc, char **argv) {
  Arguments arguments;
  opterr = 0;
  int index = 0;
  for (int c = 0; (c = getopt_long(argc, argv, ":h", command.options.data(), &index)) != -1;) {
    if (c == 'h') return Print(kUsageText);
    if (c == ':') throw UsageError(std::string(argv[optind - 1]) + " wants a value");
    if (c == '?') throw UsageError(std::string(argv[optind - 1]) + " is no option here");
    arguments.options[command.options[static_cast<size_t>(index)].name] =
        optarg == nullptr ? "" : optarg;
  }
  arguments.paths.assign(argv + optind, argv + argc);
  if (arguments.paths.empty()) throw UsageError("a PATH is wanted");
  return command.run(arguments);
}

Status Run(int argc, char **argv) {
  const std::string name = argc < 2 ? "" : argv[1];
  if (name == "--help" || name == "-h") return Print(kUsageText);
  if (name == "--version") return Print("codeseal " LUMEN_VERSION "\n");
  const auto command = std::ranges::find(kCommands, name, &Command::name);
  if (command != std::end(kCommands)) return RunCommand(*command, argc - 1, argv + 1);
  throw UsageError(name.empty() ? "a command is wanted" : "no command " + name);
}

int Complain(Status status, const std::string &what) {
  fprintf(stderr, "codeseal: %s\n%s", CleanText(what).c_str(), status == kUsage ? kUsageText : "");
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    const Status status = Run(argc, argv);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    return Complain(kFailed, ErrorText("standard output"));
  } catch (const UsageError &error) {
    return Complain(kUsage, error.what());
  } catch (const Obstacle &error) {
    return Complain(kUnknown, error.what());
  } catch (const std::exception &error) {
    return Complain(kFailed, error.what());
  }
}
