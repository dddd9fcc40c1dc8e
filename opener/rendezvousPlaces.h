// rendezvousPlaces.h -- where openers and the daemon meet on this machine.
#pragma once

inline constexpr char kServiceLockPath[] = "/var/run/Zephrin Lumen Client Services.lock";
inline constexpr char kServiceSocketPath[] = "/var/run/Zephrin Lumen Client Services.sock";
