// stagingPlan.h -- what is copied for the daemon, from which files of the bundle, and to where.
//
// For the opener, and for the program that looks whether the opener can do it.
#pragma once

#include <sys/stat.h>

#include <cstdint>

// The folder of the tree, below the install root: its name, and as the end of a path.
inline constexpr char kServicesDir[] = "Services";
inline constexpr char kServicesFolder[] = "/Services";

// A placeholder: the item is a bundle, and its own bundle identifier is the one to check.
inline constexpr char kOwnIdentifier[] = "zioplug";

enum class SourceOwner : uint8_t { kAnybody, kRoot };

struct StagedItem {
  const char *key;  // of the location service
  const char *identifier;
  mode_t mode;  // of a file's copy
  SourceOwner owner;
};

inline constexpr StagedItem kStagedItems[] = {
    {"productInfo", "productInfo", 0644, SourceOwner::kAnybody},
    {"serviceDaemonFile", "Zephrin Lumen Client Services", 0755, SourceOwner::kRoot},
    {"serviceScriptFile", "services", 0755, SourceOwner::kRoot},
    {"usbarbFile", "zephrin-usbarbitrator", 0755, SourceOwner::kRoot},
    {"usbarbKext", kOwnIdentifier, 0755, SourceOwner::kAnybody},
};

// Whether a folder with these properties is root's, and nobody else may write to it.
inline bool IsRootsAlone(const struct stat &folder) {
  return folder.st_uid == 0 && (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}
