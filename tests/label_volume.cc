#include "label_volume.h"

#include <gtest/gtest.h>

#include "catalog.h"
#include "fork.h"

namespace kvfs_test {

std::vector<ByteRange> writes_of(const FaultInjector& faults) {
  std::vector<ByteRange> writes;
  for (const Transfer& transfer : faults.writes()) {
    writes.push_back({transfer.offset, transfer.size});
  }
  return writes;
}

LabelVolume::LabelVolume(const Volume& volume)
    : TestDevice(volume), result_(kvfs_volume_create(TestDevice::get(), 1, &volume_)) {}

LabelVolume::~LabelVolume() {
  if (volume_ != nullptr) {
    kvfs_volume_destroy(&volume_);
  }
}

Name LabelVolume::label() const {
  return label_of(volume_);
}

kvfs_result LabelVolume::set(const Name& label) const {
  const std::vector<kvfs_be16> units = stored_units(label);
  return kvfs_volume_set_label(volume_, units.data(), units.size());
}

kvfs_result LabelVolume::flush() const {
  return kvfs_fork_flush(tree()->fork);
}

Volume LabelVolume::flushed() const {
  EXPECT_EQ(flush(), kvfs_ok);
  return contents();
}

}  // namespace kvfs_test
