// Scoped guards over the store's one reader-writer lock that keep a writer
// from starving.
//
// The reader-writer lock on Linux prefers readers: while readers overlap,
// each new reader is let in even though a writer waits, and a steady stream
// of lookups can hold a commit off without bound. The guards add a turnstile,
// a plain mutex beside the lock:
//
//   writer: takes the turnstile, waits for the write lock, drops the turnstile
//   reader: passes the turnstile (takes and drops it), then takes the read lock
//
// A waiting writer holds the turnstile, so readers that arrive after it queue
// in front of the turnstile; the readers already inside finish, and the writer
// gets the lock next. Writers queue on the turnstile among themselves. The
// reader-writer lock stays the one lock that guards the store's state; the
// turnstile only orders who may ask for it. Only a writer waits for the lock
// while holding the turnstile, and what it waits for (readers already inside,
// or the writer before it) never needs the turnstile again: no deadlock.
//
// StoreLock is the reader-writer lock as the thread-safety analysis sees
// it (kms/platform/ThreadSafety.h): members marked GUARDED_BY it are used
// only while a guard holds it.
//
// Neither guard nests: a thread that holds either must not take another.
// A failure to take the lock is not reported: as with ACE's guards, errno
// keeps the cause, the guard does not own the lock, the protected code runs
// on, and the guard releases nothing.
#pragma once

#include <ace/Guard_T.h>
#include <ace/RW_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>

#include "kms/platform/ThreadSafety.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

// The store's reader-writer lock; taken only through the guards below.
class CAPABILITY("mutex") StoreLock {
 private:
  friend class StoreReadGuard;
  friend class StoreWriteGuard;
  ACE_RW_Thread_Mutex m_mutex;
};

// Shared hold of `lock` for the guard's lifetime.
class SCOPED_CAPABILITY StoreReadGuard {
 public:
  StoreReadGuard(StoreLock& lock, ACE_Thread_Mutex& turnstile) ACQUIRE_SHARED(lock)
      : m_guard(passTurnstile(turnstile, lock.m_mutex)) {}
  ~StoreReadGuard() RELEASE() {}
  StoreReadGuard(const StoreReadGuard&) = delete;
  StoreReadGuard& operator=(const StoreReadGuard&) = delete;

  bool locked() const { return m_guard.locked(); }

 private:
  static ACE_RW_Thread_Mutex& passTurnstile(ACE_Thread_Mutex& turnstile,
                                            ACE_RW_Thread_Mutex& lock) {
    if (turnstile.acquire() == 0) {
      turnstile.release();
    }
    return lock;
  }

  ACE_Read_Guard<ACE_RW_Thread_Mutex> m_guard;
};

// Exclusive hold of `lock` for the guard's lifetime. The turnstile is held
// only while waiting for the lock.
class SCOPED_CAPABILITY StoreWriteGuard {
 public:
  StoreWriteGuard(StoreLock& lock, ACE_Thread_Mutex& turnstile) ACQUIRE(lock)
      : m_turnstile(turnstile), m_guard(lock.m_mutex) {
    m_turnstile.release();
  }
  ~StoreWriteGuard() RELEASE() {}
  StoreWriteGuard(const StoreWriteGuard&) = delete;
  StoreWriteGuard& operator=(const StoreWriteGuard&) = delete;

  bool locked() const { return m_guard.locked(); }

 private:
  // Declared first: taken before the write lock is asked for.
  ACE_Guard<ACE_Thread_Mutex> m_turnstile;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> m_guard;
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
