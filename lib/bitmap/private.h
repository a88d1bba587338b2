// Inside the allocation file: for the bitmap unit and its tests.

#ifndef KVFS_BITMAP_PRIVATE_H
#define KVFS_BITMAP_PRIVATE_H

#include "bitmap.h"

struct kvfs_bitmap_private {
  kvfs_fork* fork;  // owned
};

#endif  // KVFS_BITMAP_PRIVATE_H
