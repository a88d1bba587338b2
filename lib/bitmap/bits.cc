// The bits of blocks in the allocation file.

#include "bitmap/bits.h"

#include "bitmap/private.h"
#include "fork.h"
#include "support.h"
#include "volume_header.h"

using namespace kvfs::bitmap;

kvfs_fork* kvfs::bitmap::fork_of_bits(const char* speaker, const kvfs_volume* volume) {
  if (volume->bitmap == nullptr) {
    KVFS_ERROR_BY(speaker, "The volume was opened without its allocation file.\n");
    return nullptr;
  }
  return volume->bitmap->priv->fork;
}
