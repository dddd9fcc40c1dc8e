// mxUser.h -- named locks: exclusive, recursive, and condition variables on either.
#pragma once

#include <atomic>
#include <cstdint>

struct MXUserExclLock;
struct MXUserRecLock;
struct MXUserCondVar;

using MX_Rank = uint32_t;

[[nodiscard]] MXUserExclLock *MXUser_CreateExclLock(const char *name, MX_Rank rank);
MXUserExclLock *MXUser_CreateSingletonExclLock(std::atomic<MXUserExclLock *> *slot,
                                               const char *name, MX_Rank rank);
void MXUser_AcquireExclLock(MXUserExclLock *lock);
[[nodiscard]] bool MXUser_TryAcquireExclLock(MXUserExclLock *lock);
void MXUser_ReleaseExclLock(MXUserExclLock *lock);
[[nodiscard]] bool MXUser_IsCurThreadHoldingExclLock(const MXUserExclLock *lock);
void MXUser_DestroyExclLock(MXUserExclLock *lock);

[[nodiscard]] MXUserRecLock *MXUser_CreateRecLock(const char *name, MX_Rank rank);
MXUserRecLock *MXUser_CreateSingletonRecLock(std::atomic<MXUserRecLock *> *slot, const char *name,
                                             MX_Rank rank);
void MXUser_AcquireRecLock(MXUserRecLock *lock);
[[nodiscard]] bool MXUser_TryAcquireRecLock(MXUserRecLock *lock);
void MXUser_ReleaseRecLock(MXUserRecLock *lock);
void MXUser_DestroyRecLock(MXUserRecLock *lock);
