// An open volume over a copy of an image, to set labels on.

#ifndef KVFS_LABEL_VOLUME_H
#define KVFS_LABEL_VOLUME_H

#include <vector>

#include "btree.h"
#include "fault_injection.h"
#include "open_volume.h"
#include "result.h"
#include "stored_names.h"
#include "volume.h"
#include "volume_image.h"

namespace kvfs_test {

// The transfers of the writes that were recorded.
std::vector<ByteRange> writes_of(const FaultInjector& faults);

class LabelVolume : public TestDevice {
 public:
  // Opens the volume; look at result() when that may fail.
  explicit LabelVolume(const Volume& volume);
  ~LabelVolume();

  [[nodiscard]] kvfs_result result() const { return result_; }
  [[nodiscard]] kvfs_volume* get() const { return volume_; }
  [[nodiscard]] kvfs_btree* tree() const { return *volume_->catalog->btree; }

  // The label in memory.
  [[nodiscard]] Name label() const;
  [[nodiscard]] kvfs_result set(const Name& label) const;
  [[nodiscard]] kvfs_result flush() const;
  // What is on the device once all changes are flushed.
  [[nodiscard]] Volume flushed() const;

 private:
  kvfs_volume* volume_ = nullptr;
  kvfs_result result_;
};

}  // namespace kvfs_test

#endif  // KVFS_LABEL_VOLUME_H
