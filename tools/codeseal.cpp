// codeseal.cpp -- signs files and bundles for Linux, and verifies and shows such signatures; see
// codeseal.1.
// Tests: tests/system/codeseal_test

#include <fcntl.h>
#include <getopt.h>

#include <array>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>

#include "lib/public/fd.h"
#include "platform/files.h"
#include "platform/linux/seal/sealCheck.h"
#include "tools/sealMaker.h"

namespace {

enum Status { kOk = 0, kFailed = 1, kUsage = 2 };

constexpr char kUsageText[] =
    "usage: codeseal sign --key FILE --cert FILE [--chain FILE] --identifier NAME PATH\n"
    "       codeseal verify [--anchors FILE] --identifier NAME PATH\n"
    "       codeseal show PATH\n"
    "       codeseal --help\n"
    "\n"
    "  sign    seal the regular file or bundle PATH under the name NAME\n"
    "  verify  check that it is sealed under that name by a trusted signer, and unchanged\n"
    "  show    print what the seal says, without checking anything\n"
    "\n"
    "FILEs are in PEM.  Anchors are those of /etc/zephrin/code-signing-anchors.pem if not given.\n"
    "Exit status: 0 done or valid, 1 failed or not valid, 2 wrong usage.\n";

struct UsageError : std::runtime_error {
  using runtime_error::runtime_error;
};

struct Arguments {
  std::map<std::string, std::string> options;
  std::string path;

  const std::string &Need(const std::string &option) const {
    const auto found = options.find(option);
    if (found == options.end() || found->second.empty())
      throw UsageError("--" + option + " is missing");
    return found->second;
  }

  std::string Get(const std::string &option) const {
    const auto found = options.find(option);
    return found == options.end() ? "" : found->second;
  }
};

// `allowed` ends with a row of zeros.
Arguments Parse(int argc, char **argv, const option *allowed) {
  Arguments arguments;
  opterr = 0;
  int index = 0;
  for (int c = 0; (c = getopt_long(argc, argv, ":", allowed, &index)) != -1;) {
    if (c == ':') throw UsageError(std::string(argv[optind - 1]) + " wants a value");
    if (c == '?') throw UsageError(std::string(argv[optind - 1]) + " is no option here");
    arguments.options[allowed[index].name] = optarg;
  }
  if (argc - optind != 1) throw UsageError("one PATH is wanted");
  arguments.path = argv[optind];
  return arguments;
}

Fd OpenItem(const std::string &path) {
  Fd item = Platform_OpenRegularOrDirectory(AT_FDCWD, path.c_str());
  if (!item) throw std::system_error(errno, std::generic_category(), "cannot be opened");
  return item;
}

// ---- commands ----------------------------------------------------------------------------------

Status Sign(const Arguments &arguments) {
  const SealMakerFiles files{arguments.Need("key"), arguments.Need("cert"), arguments.Get("chain")};
  const std::string identifier = arguments.Need("identifier");
  const Fd item = OpenItem(arguments.path);
  SealMaker_RemoveHalfDone(item.Get());
  SealMaker_Attach(item.Get(), SealMaker_Sign(SealMaker_Text(item.Get(), identifier), files));
  return kOk;
}

SmallFileBytes ReadAnchors(const std::string &path) {
  SmallFileBytes anchors;
  if (path.empty()) {
    const Fd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!root || SealReadAnchors(root.Get(), kSealAnchors, &anchors) != SealVerdict::Valid) {
      throw std::system_error(errno, std::generic_category(), std::string("/") + kSealAnchors);
    }
    return anchors;
  }
  // A file named on the command line is trusted, whoever owns it.
  const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd || !SmallFileRead(fd.Get(), size_t{1} << 20, &anchors)) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return anchors;
}

Status Verify(const Arguments &arguments) {
  const std::string identifier = arguments.Need("identifier");
  const SmallFileBytes anchors = ReadAnchors(arguments.Get("anchors"));
  const Fd item = OpenItem(arguments.path);
  SealExtent extent;
  const SealVerdict verdict = SealCheck(item.Get(), identifier.c_str(), anchors.View(), &extent);
  if (verdict == SealVerdict::Valid) return kOk;
  const std::string outcome = verdict == SealVerdict::Unreadable ? "" : "not valid: ";
  throw std::runtime_error(outcome + SealVerdictWords(verdict));
}

Status Show(const Arguments &arguments) {
  SmallFileBytes seal;
  if (SealRead(OpenItem(arguments.path).Get(), &seal) != SealVerdict::Valid) {
    throw std::runtime_error("not sealed");
  }
  const std::string text = SealMaker_Describe(std::string(seal.View()));
  if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category(), "standard output");
  }
  return kOk;
}

struct Command {
  const char *name;
  Status (*run)(const Arguments &arguments);
  std::array<option, 5> options;
};

constexpr Command kCommands[] = {
    {"sign",
     Sign,
     {{{"key", required_argument, nullptr, 1},
       {"cert", required_argument, nullptr, 1},
       {"chain", required_argument, nullptr, 1},
       {"identifier", required_argument, nullptr, 1},
       {}}}},
    {"verify",
     Verify,
     {{{"identifier", required_argument, nullptr, 1},
       {"anchors", required_argument, nullptr, 1},
       {}}}},
    {"show", Show, {}},
};

Status Run(int argc, char **argv) {
  const std::string name = argc < 2 ? "" : argv[1];
  if (name == "--help" || name == "-h") {
    fputs(kUsageText, stdout);
    return fflush(stdout) == 0 ? kOk : kFailed;
  }
  for (const Command &command : kCommands) {
    if (name != command.name) continue;
    const Arguments arguments = Parse(argc - 1, argv + 1, command.options.data());
    try {
      return command.run(arguments);
    } catch (const UsageError &) {
      throw;
    } catch (const std::exception &error) {
      fprintf(stderr, "codeseal: %s: %s\n", arguments.path.c_str(), error.what());
      return kFailed;
    }
  }
  throw UsageError(name.empty() ? "a command is wanted" : "no command " + name);
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return Run(argc, argv);
  } catch (const UsageError &error) {
    fprintf(stderr, "codeseal: %s\n%s", error.what(), kUsageText);
    return kUsage;
  } catch (const std::exception &error) {
    fprintf(stderr, "codeseal: %s\n", error.what());
    return kFailed;
  }
}
