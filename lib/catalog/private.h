// Inside the catalog: for the catalog unit and its tests.

#ifndef KVFS_CATALOG_PRIVATE_H
#define KVFS_CATALOG_PRIVATE_H

#include <cstdint>

#include "catalog.h"

struct kvfs_rwlock;

struct kvfs_catalog_private {
  kvfs_btree* btree;                           // owned
  kvfs_catalog_record_locator* open_locators;  // head of the list: the locator opened last, or null
  kvfs_rwlock* open_locators_lock;             // guards the list, every reference count and every parent link
};

struct kvfs_catalog_record_locator_private {
  void* allocation;  // the block that holds tag and both parts
  kvfs_catalog* catalog;
  std::uint64_t reference_count;
  kvfs_catalog_record_locator* previous;  // neighbours in the list of open locators
  kvfs_catalog_record_locator* next;
  kvfs_catalog_record_locator* parent;  // holds one reference; or null
};

#endif  // KVFS_CATALOG_PRIVATE_H
