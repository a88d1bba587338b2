// The inside of the allocation file, for the unit itself and its tests.

#ifndef KVFS_BITMAP_PRIVATE_H
#define KVFS_BITMAP_PRIVATE_H

#include "bitmap.h"

struct kvfs_bitmap_private {
  kvfs_fork* fork;  // owned
};

#endif  // KVFS_BITMAP_PRIVATE_H
