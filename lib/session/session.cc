// Opening and closing sessions.

#include <cstdlib>

#include "device.h"
#include "ground/owned.h"
#include "session/private.h"
#include "unix/system.h"
#include "volume.h"

static constexpr std::uint32_t kOpenFlags = KVFS_OPEN_WRITE | KVFS_OPEN_NO_WAIT | KVFS_OPEN_NO_ALLOCATION;

uint32_t kvfs_interface_version(void) {
  return KVFS_INTERFACE_VERSION;
}

static kvfs_result open_volume(kvfs_session* session) {
  return kvfs_volume_create(session->device, (session->flags & KVFS_OPEN_NO_ALLOCATION) != 0 ? 1 : 0, &session->volume);
}

// Opens what a session consists of. What was opened before a failure stays in the session.
static kvfs_result open_parts(kvfs_session* session) {
  const bool writable = (session->flags & KVFS_OPEN_WRITE) != 0;
  bool taken = false;
  kvfs_result result = kvfs_rwlock_create(&session->lock);
  if (result == kvfs_ok && (session->flags & KVFS_OPEN_NO_WAIT) != 0) {
    // The device asks once more for what this open file has then, and need not wait.
    result = kvfs_system_try_lock(session->fd, writable, &taken);
    result = kvfs_result_keep(result, taken ? kvfs_ok : kvfs_busy);
  }
  if (result == kvfs_ok) {
    result = kvfs_device_create(session->fd, writable ? 0 : 1, kSessionSectorSize, 0, &session->device);
  }
  if (result == kvfs_ok) {
    return open_volume(session);
  }
  if (taken) {
    kvfs_system_unlock(session->fd);  // later on the device does that
  }
  return result;
}

static void close_parts(kvfs_session* session) {
  if (session->volume != nullptr) {
    kvfs_volume_destroy(&session->volume);
  }
  if (session->device != nullptr) {
    kvfs_device_destroy(&session->device);
  }
  if (session->owns_fd) {
    kvfs_system_close(session->fd);
    session->owns_fd = false;
  }
  std::free(session->freed);
  session->freed = nullptr;
}

static void free_session(kvfs_session* session) {
  if (session->lock != nullptr) {
    (void)kvfs_rwlock_destroy(&session->lock);  // a refusal is logged there; nothing else can be done about it
  }
  kvfs_zero_and_free(session);
}

// Opens a session; a descriptor that is its own is closed on failure.
static kvfs_result open_on(int fd, bool owns_fd, std::uint32_t flags, kvfs_session** out_session) {
  kvfs_session* const session = kvfs_allocate_zeroed<kvfs_session>().release();
  if (session == nullptr) {
    KVFS_ERROR_AS(kvfs_session_open, "Error while allocating %zu bytes for kvfs_session.\n", sizeof(kvfs_session));
    if (owns_fd) {
      kvfs_system_close(fd);
    }
    return kvfs_no_memory;
  }
  session->fd = fd;
  session->owns_fd = owns_fd;
  session->flags = flags;
  const kvfs_result result = open_parts(session);
  if (result != kvfs_ok) {
    close_parts(session);
    free_session(session);
    return result;
  }
  *out_session = session;
  return kvfs_ok;
}

uint64_t kvfs_session_open(const char* path, uint32_t flags, kvfs_session** out_session) {
  if (path == nullptr || out_session == nullptr || (flags & ~kOpenFlags) != 0) {
    return kvfs_invalid;
  }
  int fd = -1;
  const kvfs_result result = kvfs_system_open(path, (flags & KVFS_OPEN_WRITE) != 0, &fd);
  return result == kvfs_ok ? open_on(fd, true, flags, out_session) : result;
}

uint64_t kvfs_session_open_descriptor(int descriptor, uint32_t flags, kvfs_session** out_session) {
  if (descriptor < 0 || out_session == nullptr || (flags & ~kOpenFlags) != 0) {
    return kvfs_invalid;
  }
  const kvfs_result result = kvfs_system_check_mode(descriptor, (flags & KVFS_OPEN_WRITE) != 0);
  return result == kvfs_ok ? open_on(descriptor, false, flags, out_session) : result;
}

// ---- Handles -------------------------------------------------------------------------------------------------------

void kvfs_session_hold(kvfs_session* session) {
  ++session->handles;
}

kvfs_result kvfs_session_let_go(kvfs_session* session) {
  kvfs_write_guard turn(session->lock);
  if (turn.result() != kvfs_ok) {
    return turn.result();
  }
  --session->handles;
  const bool last = session->handles == 0 && session->device == nullptr;
  (void)turn.release();  // logged there; the handle is gone all the same
  if (last) {
    free_session(session);
  }
  return kvfs_ok;
}

uint64_t kvfs_session_close(kvfs_session** session) {
  if (session == nullptr || *session == nullptr) {
    return kvfs_ok;
  }
  kvfs_session* const closed = *session;
  kvfs_write_guard turn(closed->lock);
  if (turn.result() != kvfs_ok) {
    return turn.result();
  }
  close_parts(closed);
  const bool unused = closed->handles == 0;
  (void)turn.release();  // logged there; the session is closed all the same
  if (unused) {
    free_session(closed);
  }
  *session = nullptr;
  return kvfs_ok;
}

// ---- Giving changes up ---------------------------------------------------------------------------------------------

static kvfs_result discard(kvfs_session* session) {
  if (session->device == nullptr) {
    return kvfs_closed;
  }
  if (session->volume != nullptr) {
    kvfs_volume_destroy(&session->volume);
  }
  std::free(session->freed);
  session->freed = nullptr;
  session->freed_count = 0;
  session->changes = {};
  session->private_folder_id = 0;
  session->spoiled = false;
  ++session->epoch;
  return open_volume(session);
}

// The one call that does something without a volume: an earlier one may have failed to open it again.
uint64_t kvfs_session_discard(kvfs_session* session) {
  if (session == nullptr) {
    return kvfs_invalid;
  }
  return kvfs_with_write_lock(session->lock, [=] { return discard(session); });
}
