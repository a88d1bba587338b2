// Open forks for programs, and the targets of symbolic links.

#include <cstdio>
#include <cstring>

#include "ground/arithmetic.h"
#include "ground/owned.h"
#include "session/private.h"
#include "volume.h"

struct kvfs_stream {
  kvfs_session* session;
  std::uint32_t id;
  std::uint8_t fork_type;
  std::uint64_t epoch;  // of the session when the fork was opened
  kvfs_session_fork fork;
};

// ---- Opening -------------------------------------------------------------------------------------------------------

// Finds the folder with the files that hard links stand for. It cannot be renamed, so that it is looked for once.
static kvfs_result find_private_folder(kvfs_session* session, std::uint32_t* id) {
  *id = session->private_folder_id;
  if (*id != 0) {
    return kvfs_ok;
  }
  static const char kName[] = "%u0000%u0000%u0000%u0000HFS+ Private Data";
  kvfs_session_name name;
  kvfs_session_found folder;
  kvfs_result result = kvfs_session_read_name(kName, sizeof(kName) - 1, &name);
  if (result == kvfs_ok) {
    result = kvfs_session_find_name(session, kHFSRootFolderID, name, &folder);
  }
  if (result == kvfs_ok) {
    *id = session->private_folder_id = kvfs_session_id_of(folder.record()->data);
  }
  return result;
}

// Finds the file that a hard link stands for by its name, which is made of the link's reference.
static kvfs_result find_by_reference(kvfs_session* session, const HFSPlusCatalogFile* link,
                                     kvfs_session_found* target) {
  std::uint32_t folder_id = 0;
  kvfs_result result = find_private_folder(session, &folder_id);
  if (result != kvfs_ok) {
    return result;
  }
  char text[sizeof("iNode4294967295")];
  const int size = std::snprintf(text, sizeof(text), "iNode%lu", to_ul(link->permissions.special.get()));
  kvfs_session_name name;
  result = kvfs_session_read_name(text, static_cast<std::size_t>(size), &name);
  return result == kvfs_ok ? kvfs_session_find_name(session, folder_id, name, target) : result;
}

// Replaces a hard link by the file that it stands for. Where there is none of that name, its reference is an ID, which
// it mostly is anyway.
static kvfs_result follow_hard_link(kvfs_session* session, kvfs_session_found* item) {
  kvfs_session_found target;
  kvfs_result result = find_by_reference(session, item->file(), &target);
  if (result == kvfs_not_found) {
    result = kvfs_session_find_item(session, item->file()->permissions.special.get(), &target);
  }
  if (result != kvfs_ok) {
    return result;
  }
  item->release();
  *item->out() = {1, 0, target.take()};
  return item->file() != nullptr ? kvfs_ok : kvfs_not_a_file;
}

// Finds the file whose fork is wanted.
static kvfs_result find_file(kvfs_session* session, std::uint32_t id, kvfs_session_found* item) {
  const kvfs_result result = kvfs_session_find_item(session, id, item);
  if (result != kvfs_ok) {
    return result;
  }
  if (item->file() == nullptr) {
    return kvfs_not_a_file;
  }
  const std::uint32_t kind = kvfs_session_kind_of(item->file());
  if (kind == KVFS_FOLDER_LINK) {
    return kvfs_not_a_file;
  }
  return kind == KVFS_HARD_LINK ? follow_hard_link(session, item) : kvfs_ok;
}

static kvfs_result open_fork(kvfs_stream* stream) {
  kvfs_session_found item;
  const kvfs_result result = find_file(stream->session, stream->id, &item);
  if (result != kvfs_ok) {
    return result;
  }
  stream->epoch = stream->session->epoch;
  return kvfs_session_open_fork(stream->session, item.file(), stream->fork_type, &stream->fork);
}

// Opens the fork anew where the session has changed anything since: the file may have gone.
static kvfs_result refresh(kvfs_stream* stream) {
  if (stream->fork.fork != nullptr && stream->epoch == stream->session->epoch) {
    return kvfs_ok;
  }
  kvfs_session_close_fork(&stream->fork);
  return open_fork(stream);
}

static kvfs_result open_stream(kvfs_session* session, std::uint32_t id, std::uint8_t fork_type,
                               kvfs_stream** out_stream) {
  kvfs_owned<kvfs_stream> stream = kvfs_allocate_zeroed<kvfs_stream>();
  if (!stream) {
    KVFS_ERROR_AS(kvfs_stream_open, "Error while allocating %zu bytes for kvfs_stream.\n", sizeof(kvfs_stream));
    return kvfs_no_memory;
  }
  stream->session = session;
  stream->id = id;
  stream->fork_type = fork_type;
  const kvfs_result result = open_fork(stream.get());
  if (result == kvfs_ok) {
    kvfs_session_hold(session);
    *out_stream = stream.release();
  }
  return result;
}

uint64_t kvfs_stream_open(kvfs_session* session, uint32_t id, uint32_t fork, kvfs_stream** out_stream) {
  if (session == nullptr || out_stream == nullptr || (fork != KVFS_DATA_FORK && fork != KVFS_RESOURCE_FORK)) {
    return kvfs_invalid;
  }
  const std::uint8_t fork_type = fork == KVFS_DATA_FORK ? kHFSDataForkType : kHFSResourceForkType;
  return kvfs_session_take_turn(session, [=] { return open_stream(session, id, fork_type, out_stream); });
}

// ---- Using ---------------------------------------------------------------------------------------------------------

static kvfs_result tell_size(kvfs_stream* stream, std::uint64_t* out_size) {
  const kvfs_result result = refresh(stream);
  if (result == kvfs_ok) {
    *out_size = stream->fork.data.logicalSize.get();
  }
  return result;
}

uint64_t kvfs_stream_size(kvfs_stream* stream, uint64_t* out_size) {
  if (stream == nullptr || out_size == nullptr) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(stream->session, [=] { return tell_size(stream, out_size); });
}

static kvfs_result read_stream(kvfs_stream* stream, std::uint64_t offset, void* buffer, std::size_t size,
                               std::size_t* out_read) {
  const kvfs_result result = refresh(stream);
  return result == kvfs_ok ? kvfs_session_read_fork(&stream->fork, offset, buffer, size, out_read) : result;
}

uint64_t kvfs_stream_read(kvfs_stream* stream, uint64_t offset, void* buffer, size_t size, size_t* out_read) {
  if (stream == nullptr || (buffer == nullptr && size != 0) || out_read == nullptr) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(stream->session, [=] { return read_stream(stream, offset, buffer, size, out_read); });
}

uint64_t kvfs_stream_close(kvfs_stream** stream) {
  if (stream == nullptr || *stream == nullptr) {
    return kvfs_ok;
  }
  kvfs_stream* const closed = *stream;
  kvfs_session_fork fork = closed->fork;  // the session may be gone with its last handle; a fork needs it no more
  const kvfs_result result = kvfs_session_let_go(closed->session);
  if (result == kvfs_ok) {
    kvfs_session_close_fork(&fork);
    kvfs_zero_and_free(closed);
    *stream = nullptr;
  }
  return result;
}

// ---- Symbolic links ------------------------------------------------------------------------------------------------

// Longest target that is read. Those of other systems are paths, too.
static constexpr std::size_t kLongestTarget = std::size_t{1} << 16;

static kvfs_result read_target(kvfs_session_fork* fork, char* buffer, std::size_t size, std::size_t* out_length) {
  const std::uint64_t target_size = *fork->fork->logical_size;
  if (target_size > kLongestTarget) {
    KVFS_ERROR_AS(kvfs_session_read_link, "Target of symbolic link is too long (%llu bytes).\n", to_ull(target_size));
    return kvfs_inconsistent;
  }
  const kvfs_owned<unsigned char> bytes = kvfs_allocate_bytes(static_cast<std::size_t>(target_size));
  if (!bytes) {
    KVFS_ERROR_AS(kvfs_session_read_link, "Error while allocating %llu bytes for a target.\n", to_ull(target_size));
    return kvfs_no_memory;
  }
  std::size_t length = 0;
  const kvfs_result result =
      kvfs_session_read_fork(fork, 0, bytes.get(), static_cast<std::size_t>(target_size), &length);
  if (result != kvfs_ok) {
    return result;
  }
  const char* const text = static_cast<const char*>(static_cast<void*>(bytes.get()));
  return kvfs_session_copy_text(text, strnlen(text, length), buffer, size, out_length);
}

static kvfs_result read_link(kvfs_session* session, std::uint32_t id, char* buffer, std::size_t size,
                             std::size_t* out_length) {
  kvfs_session_found item;
  kvfs_result result = kvfs_session_find_item(session, id, &item);
  if (result != kvfs_ok) {
    return result;
  }
  if (item.file() == nullptr || kvfs_session_kind_of(item.file()) != KVFS_SYMBOLIC_LINK) {
    return kvfs_not_a_file;
  }
  kvfs_session_fork fork;
  result = kvfs_session_open_fork(session, item.file(), kHFSDataForkType, &fork);
  if (result == kvfs_ok) {
    result = read_target(&fork, buffer, size, out_length);
    kvfs_session_close_fork(&fork);
  }
  return result;
}

uint64_t kvfs_session_read_link(kvfs_session* session, uint32_t id, char* buffer, size_t size, size_t* out_length) {
  if (session == nullptr || (buffer == nullptr && size != 0)) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return read_link(session, id, buffer, size, out_length); });
}
