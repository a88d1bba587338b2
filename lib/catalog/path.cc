// Lookup by path.

#include <cstddef>
#include <cstdint>

#include "catalog.h"
#include "catalog/key.h"
#include "catalog/locator.h"
#include "format.h"
#include "result.h"
#include "support.h"
#include "unicode.h"

using namespace kvfs::catalog;

namespace {

// A walk along a path.
struct path_walk {
  kvfs_catalog* catalog;
  kvfs_catalog_component_source source;
  void* context;
  std::uint32_t parent_cnid;
  kvfs_catalog_record_locator* parent;  // the folder that is searched, or null; not owned
  kvfs_catalog_record_locator* held;    // the folder that the walk itself keeps open
  kvfs_catalog_search_result current;   // of the component looked up last
  kvfs_be16 component[kHFSPlusMaxNameLength];
  std::size_t component_length;  // units
};

}  // namespace

static std::uint32_t folder_id_of(const kvfs_catalog_record_locator* locator) {
  return kvfs_view_as<HFSPlusCatalogFolder>(locator->btree_locator->data)->folderID.get();
}

// Sets the folder that the walk starts from.
static kvfs_result start_path(path_walk* walk, kvfs_catalog_record_locator* start) {
  walk->parent_cnid = kHFSRootFolderID;
  if (start == nullptr) {
    return kvfs_ok;
  }
  std::uint16_t type = 0;
  kvfs_result result = read_record_type(KVFS_NAME_OF(kvfs_catalog_search_by_path), start, &type);
  if (result != kvfs_ok) {
    return result;
  }
  if (type != kHFSPlusFolderRecord) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Invalid argument: 'CatalogRecord' has non-folder type %hd.\n",
                  static_cast<short>(type));
    return kvfs_invalid;
  }
  result = check_record_size(KVFS_NAME_OF(kvfs_catalog_search_by_path), start, sizeof(HFSPlusCatalogFolder));
  if (result != kvfs_ok) {
    return result;
  }
  // The root folder's parent has no record to search in; the root folder stands for it: Q-catalog-8.
  if (folder_id_of(start) != kHFSRootParentID) {
    walk->parent_cnid = folder_id_of(start);
    walk->parent = start;
  }
  return kvfs_ok;
}

// Makes the record found last the folder that the next component is searched in.
static kvfs_result enter_current_folder(path_walk* walk) {
  if (walk->current.locator == nullptr) {
    if (walk->component_length != 0) {
      KVFS_CRITICAL_AS(kvfs_catalog_search_by_path, "Unexpected: NULL current_entry but non-0 nodeNameLength (%zu).\n",
                       walk->component_length);
      return kvfs_internal;
    }
    return kvfs_ok;
  }
  const std::uint16_t type = record_type_of(walk->current.locator);
  if (type != kHFSPlusFolderRecord) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Unexpected record type for parent directory in lookup: %hd.\n",
                  static_cast<short>(type));
    return kvfs_internal;
  }
  if (walk->held != nullptr) {
    kvfs_catalog_record_locator_close(&walk->held);
  }
  walk->held = walk->current.locator;
  walk->parent = walk->held;
  walk->parent_cnid = folder_id_of(walk->held);
  kvfs_catalog_search_result_init(&walk->current);
  return kvfs_ok;
}

static kvfs_result search_component(path_walk* walk) {
  HFSPlusCatalogKey key;
  make_key(&key, kvfs_be32::of(walk->parent_cnid), walk->component, static_cast<std::uint32_t>(walk->component_length));
  const kvfs_result result = kvfs_catalog_search_node(walk->catalog, &key, &walk->current);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Error while searching for intermediate path component.\n");
  }
  return result;
}

// Replaces a thread record that was found by the item that it leads to.
static kvfs_result resolve_thread(path_walk* walk) {
  kvfs_catalog_search_result target;
  kvfs_catalog_search_result_init(&target);
  const kvfs_result followed = kvfs_catalog_follow_thread(walk->catalog, walk->current.locator, &target);
  if (followed != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Error while following thread.\n");
    return followed;
  }
  if (target.locator == nullptr || target.found == 0) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "%s: Thread target not found.\n",
                  KVFS_NAME_OF(kvfs_catalog_search_by_path));
    kvfs_catalog_search_result_release(&target);
    return kvfs_inconsistent;
  }
  replace_result(&walk->current, &target);
  return kvfs_ok;
}

// Checks the record that was found and follows it when it is a thread.
static kvfs_result accept_current_record(path_walk* walk) {
  std::uint16_t type = 0;
  const kvfs_result read = read_record_type(KVFS_NAME_OF(kvfs_catalog_search_by_path), walk->current.locator, &type);
  if (read != kvfs_ok) {
    return read;
  }
  if (type < kHFSPlusFolderRecord || type > kHFSPlusFileThreadRecord) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Unexpected record type %hd for looked up record data.\n",
                  static_cast<short>(type));
    return kvfs_inconsistent;
  }
  if (is_thread(type)) {
    const kvfs_result resolved = resolve_thread(walk);
    if (resolved != kvfs_ok) {
      return resolved;
    }
  }
  return check_record_size(KVFS_NAME_OF(kvfs_catalog_search_by_path), walk->current.locator,
                           sizeof(HFSPlusCatalogFolder));
}

static kvfs_result next_component(path_walk* walk) {
  walk->component_length = 0;
  kvfs_result result = walk->source(walk->context, walk->component, kHFSPlusMaxNameLength, &walk->component_length);
  if (result == kvfs_ok && walk->component_length > kHFSPlusMaxNameLength) {  // X-catalog-4
    result = kvfs_invalid;
  }
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Error while converting native path component to HFS+ string.\n");
  }
  return result;
}

// Looks up component after component. The first pass has an empty one and finds the starting folder's own thread.
static kvfs_result walk_components(path_walk* walk) {
  do {
    kvfs_result result = enter_current_folder(walk);
    if (result == kvfs_ok) {
      result = search_component(walk);
    }
    if (result != kvfs_ok) {
      return result;
    }
    if (walk->current.locator == nullptr || walk->current.found == 0) {
      return kvfs_ok;
    }
    result = accept_current_record(walk);
    if (result == kvfs_ok) {
      result = next_component(walk);
    }
    if (result != kvfs_ok) {
      return result;
    }
  } while (walk->component_length != 0);
  return kvfs_ok;
}

// Gives the result its parent and its record type.
static kvfs_result complete_result(path_walk* walk) {
  kvfs_catalog_record_locator* const locator = walk->current.locator;
  if (locator == nullptr) {
    return kvfs_ok;
  }
  if (walk->current.found != 0) {
    const kvfs_result result = kvfs_catalog_record_locator_set_parent_locator(locator, walk->parent);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Error while setting parent locator (search found a match).\n");
      return result;
    }
  } else if (walk->parent != nullptr) {
    const kvfs_result result = kvfs_catalog_record_locator_set_parent_locator(locator, walk->parent);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Error while setting parent locator (search did not find a match).\n");
      return result;
    }
  }
  std::uint16_t type = 0;
  const kvfs_result read = read_record_type(KVFS_NAME_OF(kvfs_catalog_search_by_path), locator, &type);
  locator->record_type = type;
  return read;
}

kvfs_result kvfs_catalog_search_by_path(kvfs_catalog* catalog, kvfs_catalog_component_source source, void* context,
                                        kvfs_catalog_record_locator* start, kvfs_catalog_search_result* out_result) {
  path_walk walk = {};
  walk.catalog = catalog;
  walk.source = source;
  walk.context = context;
  kvfs_result result = start_path(&walk, start);
  if (result == kvfs_ok) {
    result = walk_components(&walk);
  }
  if (result == kvfs_ok) {
    result = complete_result(&walk);
  }
  if (walk.held != nullptr) {
    kvfs_catalog_record_locator_close(&walk.held);
  }
  if (result != kvfs_ok) {
    kvfs_catalog_search_result_release(&walk.current);
    return result;
  }
  *out_result = walk.current;
  return kvfs_ok;
}

static constexpr char kPathSeparator = '/';

kvfs_result kvfs_catalog_utf8_path_component(void* context, kvfs_be16* buffer, std::size_t capacity,
                                             std::size_t* out_length) {
  kvfs_catalog_utf8_path* const path = static_cast<kvfs_catalog_utf8_path*>(context);
  while (*path->rest == kPathSeparator) {
    ++path->rest;
  }
  const char* const name = path->rest;
  while (*path->rest != '\0' && *path->rest != kPathSeparator) {
    ++path->rest;
  }
  std::uint16_t composed[kHFSPlusMaxNameLength];
  std::uint16_t* units = composed;
  std::size_t length = kHFSPlusMaxNameLength;
  const kvfs_result result =
      kvfs_unicode_utf8_to_unistr(name, static_cast<std::size_t>(path->rest - name), &units, &length);
  if (result != kvfs_ok) {
    return result;
  }
  if (kvfs_unicode_windows_to_hfsplus_capped(composed, length, buffer, capacity, out_length) != 0) {
    KVFS_ERROR("Path component of %zu units is too long.\n", length);
    return kvfs_overflow;
  }
  return kvfs_ok;
}
